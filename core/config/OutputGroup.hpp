#pragma once
// Several devices played as one.

#include "core/config/OutputGroupMember.hpp"

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace tonavi {

struct OutputGroup {
    std::string id;
    std::string name = "Output Group";
    std::string iconName = "hifispeaker.2";
    std::vector<OutputGroupMember> members;

    bool operator==(const OutputGroup&) const = default;
};

void to_json(nlohmann::json& j, const OutputGroup& value);
void from_json(const nlohmann::json& j, OutputGroup& value);

} // namespace tonavi
