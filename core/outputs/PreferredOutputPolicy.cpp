#include "core/outputs/PreferredOutputPolicy.hpp"

namespace tonavi::PreferredOutputPolicy {

std::optional<std::string> pick(const std::optional<std::string>& sessionUID,
                                const std::set<std::string>& availableUIDs,
                                const std::vector<std::string>& preferredUIDs) {
    if (sessionUID && availableUIDs.count(*sessionUID))
        return std::nullopt;
    for (const auto& uid : preferredUIDs)
        if (availableUIDs.count(uid))
            return uid;
    return std::nullopt;
}

} // namespace tonavi::PreferredOutputPolicy
