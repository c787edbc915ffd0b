#pragma once
// While the trigger application plays, the ducked applications are turned down.

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace tonavi {

struct AutoDuckRule {
    std::string id;
    std::string triggerBundleID;
    std::vector<std::string> duckedBundleIDs;
    double duckDB = -18.0;
    double recoveryMS = 900.0;
    bool enabled = true;

    bool operator==(const AutoDuckRule&) const = default;
};

void to_json(nlohmann::json& j, const AutoDuckRule& value);
// A rule without an id gets a fresh upper-case UUID.
void from_json(const nlohmann::json& j, AutoDuckRule& value);

} // namespace tonavi
