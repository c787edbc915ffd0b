#pragma once
// When each app was last heard, seconds since 1970. Written from tap threads and the runtime's
// queue alike, so it carries its own leaf lock.

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi {

class RecencyTracker {
  public:
    using Clock = std::function<double()>;

    RecencyTracker(std::map<std::string, double> seed, Clock clock);

    void noteHeard(const std::string& bundleID);
    // IDs heard at or after now minus `seconds`, sorted.
    std::vector<std::string> recent(double seconds) const;
    std::optional<double> secondsSince(std::string_view bundleID) const;

  private:
    Clock clock_;
    mutable std::mutex lock_;
    std::map<std::string, double, std::less<>> lastHeard_;
};

} // namespace tonavi
