#include "service/worker/TapRecoveryBackoff.hpp"

#include <algorithm>
#include <cmath>

namespace tonavi {

TapRecoveryBackoff::TapRecoveryBackoff(double initialDelay, double maximumDelay)
    : initialDelay_(std::max(initialDelay, 0.1)), maximumDelay_(std::max(maximumDelay, initialDelay_)) {}

bool TapRecoveryBackoff::permit(const std::string& key, const std::string& issue, double now) {
    auto it = entries_.find(key);
    const bool sameIssue = it != entries_.end() && it->second.issue == issue;
    if (sameIssue && it->second.nextAllowedAt > now)
        return false;
    const int attempt = sameIssue ? it->second.attempt + 1 : 1;
    const double delay = std::min(initialDelay_ * std::pow(2.0, std::clamp(attempt - 1, 0, 20)), maximumDelay_);
    entries_[key] = Entry{issue, attempt, now + delay};
    return true;
}

} // namespace tonavi
