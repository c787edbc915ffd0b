#pragma once
// Links a system focus mode to a quick config.

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tonavi {

struct FocusLink {
    std::string id;
    std::string focusName;
    std::string configName;

    bool operator==(const FocusLink&) const = default;
};

void to_json(nlohmann::json& j, const FocusLink& value);
void from_json(const nlohmann::json& j, FocusLink& value);

} // namespace tonavi
