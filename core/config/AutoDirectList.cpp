#include "core/config/AutoDirectList.hpp"

#include <algorithm>

namespace tonavi {

const std::set<std::string>& AutoDirectList::requiredLiveHostBundleIDs() {
    static const std::set<std::string> hosts;
    return hosts;
}

bool AutoDirectList::contains(std::string_view bundleID) const {
    if (requiredLiveHostBundleIDs().count(std::string(bundleID)))
        return true;
    return std::any_of(bundleIDs.begin(), bundleIDs.end(), [&](const std::string& entry) {
        if (bundleID == entry)
            return true;
        return bundleID.size() > entry.size() && bundleID.substr(0, entry.size()) == entry &&
               bundleID[entry.size()] == '.';
    });
}

void AutoDirectList::enforceRequiredLiveHosts() {
    for (const auto& host : requiredLiveHostBundleIDs())
        if (std::find(bundleIDs.begin(), bundleIDs.end(), host) == bundleIDs.end())
            bundleIDs.push_back(host);
}

} // namespace tonavi
