#pragma once
// tonavi-load mix: figures of per-application mixing on the simulated machine, with real processes.
// Starts its own service (from the folder of this executable) on a private home and world, then:
//   - first sound to live tap: an app whose row asks for control starts and plays; the time until
//     the status shows it tapped (median and worst of several apps);
//   - stage mode releasing 8 live taps at once, against 8 releases one after another;
//   - resident memory of one worker and of the service with 8 workers.
// The last line printed is one JSON object with the figures. Exit status 0 when every step worked.

#include <string>

namespace tonavi {

class MixMeasurement {
  public:
    explicit MixMeasurement(std::string binFolder) : bin_(std::move(binFolder)) {}
    int run();

  private:
    std::string bin_;
};

} // namespace tonavi
