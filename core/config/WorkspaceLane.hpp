#pragma once
// Pins one application to one output device.

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tonavi {

struct WorkspaceLane {
    std::string id;
    std::string appBundleID;
    std::string deviceUID;
    bool locked = true;

    bool operator==(const WorkspaceLane&) const = default;
};

void to_json(nlohmann::json& j, const WorkspaceLane& value);
// A lane without an id gets a fresh upper-case UUID.
void from_json(const nlohmann::json& j, WorkspaceLane& value);

} // namespace tonavi
