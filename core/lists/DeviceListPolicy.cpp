#include "core/lists/DeviceListPolicy.hpp"

#include "core/config/TonaviConfig.hpp"

#include <algorithm>
#include <climits>

namespace tonavi::DeviceListPolicy {

std::vector<DeviceLiveStatus> ordered(std::vector<DeviceLiveStatus> devices) {
    std::stable_sort(devices.begin(), devices.end(), [](const DeviceLiveStatus& a, const DeviceLiveStatus& b) {
        const std::int64_t rankA = a.displayRank.value_or(LLONG_MAX);
        const std::int64_t rankB = b.displayRank.value_or(LLONG_MAX);
        if (rankA != rankB)
            return rankA < rankB;
        const int byName = localizedCaseInsensitiveCompare(a.name, b.name);
        if (byName != 0)
            return byName < 0;
        return a.id < b.id;
    });
    return devices;
}

std::vector<DeviceLiveStatus> frequentlyUsed(const std::vector<DeviceLiveStatus>& devices, int limit) {
    if (limit < 1)
        return {};
    std::vector<DeviceLiveStatus> used;
    for (const auto& d : devices)
        if (!d.hidden.value_or(false) && !d.isDefaultOutput && d.useCount.value_or(0) > 0)
            used.push_back(d);
    std::stable_sort(used.begin(), used.end(), [](const DeviceLiveStatus& a, const DeviceLiveStatus& b) {
        if (*a.useCount != *b.useCount)
            return *a.useCount > *b.useCount;
        const double lastA = a.lastUsedAt.value_or(0), lastB = b.lastUsedAt.value_or(0);
        if (lastA != lastB)
            return lastA > lastB;
        return localizedCaseInsensitiveCompare(a.name, b.name) < 0;
    });
    if (used.size() > static_cast<std::size_t>(limit))
        used.resize(static_cast<std::size_t>(limit));
    return used;
}

} // namespace tonavi::DeviceListPolicy
