#pragma once
// tonavi-load mixer: figures of one open `tonavictl mixer` against a running service with 30 configured
// applications. The mixer runs in a detached tmux pane (120x40) and reaches the service through a
// RequestCountingProxy, so that what it sends is counted from outside:
//   - its own CPU while idle, from /proc/<pid>/stat (user plus system time) over the measured seconds;
//   - the requests it sends per second while idle, by case;
//   - the setAppVolume requests that 50 presses of the 1 % key become, and the volume that arrives.
// The last line printed is one JSON object. Exit status 0 when the volume arrived exactly.

#include <string>

namespace tonavi {

class MixerMeasurement {
  public:
    MixerMeasurement(std::string binFolder, std::string servicePath, double seconds)
        : bin_(std::move(binFolder)), servicePath_(std::move(servicePath)), seconds_(seconds) {}
    int run();

  private:
    std::string bin_;
    std::string servicePath_;
    double seconds_;
};

} // namespace tonavi
