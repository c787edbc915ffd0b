#pragma once
// One device of an output group with its own level.

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tonavi {

struct OutputGroupMember {
    std::string id;
    double volume = 1.0;
    bool muted = false;

    bool operator==(const OutputGroupMember&) const = default;
};

void to_json(nlohmann::json& j, const OutputGroupMember& value);
void from_json(const nlohmann::json& j, OutputGroupMember& value);

} // namespace tonavi
