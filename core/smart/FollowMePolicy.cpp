#include "core/smart/FollowMePolicy.hpp"

namespace tonavi::FollowMePolicy {

std::optional<std::string> hero(const std::optional<std::string>& frontmost, const BundleIDSet& audible,
                                const std::optional<std::string>& held, const BundleIDPredicate& mayCapture) {
    if (frontmost && mayCapture(*frontmost) && audible.contains(*frontmost))
        return frontmost;
    if (held && audible.contains(*held))
        return held;
    return std::nullopt;
}

} // namespace tonavi::FollowMePolicy
