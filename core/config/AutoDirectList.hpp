#pragma once
// Applications that always stay on the direct path. The list shipped with the service decides;
// the file on disk only mirrors it.

#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi {

struct AutoDirectList {
    std::vector<std::string> bundleIDs;
    double updatedAt = 0.0;

    // The shipped list: empty, updated at 0.
    static AutoDirectList bundled() { return AutoDirectList(); }
    // Hosts that must always be in the list; none at present.
    static const std::set<std::string>& requiredLiveHostBundleIDs();

    // True for a required host, a listed id, or an id below a listed one ("a.b" holds "a.b.c").
    bool contains(std::string_view bundleID) const;
    // Appends the required hosts the list does not hold.
    void enforceRequiredLiveHosts();

    bool operator==(const AutoDirectList&) const = default;
};

void to_json(nlohmann::json& j, const AutoDirectList& value);
// Strict: both keys are required.
void from_json(const nlohmann::json& j, AutoDirectList& value);

} // namespace tonavi
