#pragma once
// The text `tonavictl status` prints: a summary line of the system output, a table of applications
// (volume, mute, engaged, level, output, issues), a table of devices, and the newest health events.

#include <string>

namespace tonavi {

struct TonaviStatus;

class StatusTable {
  public:
    static std::string render(const TonaviStatus& status);

    // A ten-character meter for a level in 0...1: "#" for each tenth reached, "." for the rest.
    static std::string levelBar(double level);
};

} // namespace tonavi
