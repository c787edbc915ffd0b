#include "service/RecencyTracker.hpp"

namespace tonavi {

RecencyTracker::RecencyTracker(std::map<std::string, double> seed, Clock clock)
    : clock_(std::move(clock)), lastHeard_(seed.begin(), seed.end()) {}

void RecencyTracker::noteHeard(const std::string& bundleID) {
    const double now = clock_();
    std::lock_guard guard(lock_);
    lastHeard_[bundleID] = now;
}

std::vector<std::string> RecencyTracker::recent(double seconds) const {
    const double cutOff = clock_() - seconds;
    std::vector<std::string> out;
    std::lock_guard guard(lock_);
    for (const auto& [id, at] : lastHeard_)
        if (at >= cutOff)
            out.push_back(id);
    return out;
}

std::optional<double> RecencyTracker::secondsSince(std::string_view bundleID) const {
    const double now = clock_();
    std::lock_guard guard(lock_);
    auto it = lastHeard_.find(bundleID);
    if (it == lastHeard_.end())
        return std::nullopt;
    return now - it->second;
}

} // namespace tonavi
