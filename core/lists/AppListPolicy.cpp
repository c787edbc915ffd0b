#include "core/lists/AppListPolicy.hpp"

#include "core/config/TonaviConfig.hpp"

#include <algorithm>
#include <cctype>
#include <climits>
#include <set>

namespace tonavi::AppListPolicy {

namespace {

constexpr std::string_view captureOnlyFragments[] = {"wispr-flow", "reincubate.macos.cam"};

} // namespace

bool isCaptureOnly(std::string_view bundleID) {
    std::string lower(bundleID);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::any_of(std::begin(captureOnlyFragments), std::end(captureOnlyFragments),
                       [&](std::string_view fragment) { return lower.find(fragment) != std::string::npos; });
}

void order(std::vector<AppLiveStatus>& apps) {
    std::stable_sort(apps.begin(), apps.end(), [](const AppLiveStatus& a, const AppLiveStatus& b) {
        const std::int64_t rankA = a.displayRank.value_or(LLONG_MAX);
        const std::int64_t rankB = b.displayRank.value_or(LLONG_MAX);
        if (rankA != rankB)
            return rankA < rankB;
        const int byName = localizedCaseInsensitiveCompare(a.displayName, b.displayName);
        if (byName != 0)
            return byName < 0;
        return a.id < b.id;
    });
}

std::vector<std::string> mergingVisibleOrder(const std::vector<std::string>& existing,
                                             const std::vector<std::string>& visible) {
    std::vector<std::string> unique;
    std::set<std::string> seen;
    for (const auto& id : existing)
        if (seen.insert(id).second)
            unique.push_back(id);
    const std::set<std::string> visibleSet(visible.begin(), visible.end());
    std::vector<std::string> visibleInExisting;
    for (const auto& id : visible)
        if (seen.contains(id))
            visibleInExisting.push_back(id);
    std::vector<std::string> merged;
    std::size_t next = 0;
    for (const auto& id : unique)
        merged.push_back(visibleSet.contains(id) ? visibleInExisting[next++] : id);
    std::set<std::string> appended;
    for (const auto& id : visible)
        if (!seen.contains(id) && appended.insert(id).second)
            merged.push_back(id);
    return merged;
}

} // namespace tonavi::AppListPolicy
