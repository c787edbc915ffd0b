#pragma once
// What the automations are doing right now, for the client's display.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace tonavi {

struct SmartLiveStatus {
    std::optional<std::string> followMeHeroID;
    std::optional<std::string> followMeHeroName;
    bool loudnessGuardActive = false;
    std::optional<std::string> loudnessGuardOutputName;
    bool autoDuckActive = false;
    std::vector<std::string> autoDuckMicNames;
    std::int64_t autoDuckCount = 0;
    std::optional<std::string> micFollowName;
    // While follow-me is on: why this session can tell no application in front (no focus source).
    std::optional<std::string> followMeNoFront;

    bool operator==(const SmartLiveStatus&) const = default;
};

// Optional fields are left out when absent. Reading is strict and throws WireDecodingError.
void to_json(nlohmann::json& j, const SmartLiveStatus& value);
void from_json(const nlohmann::json& j, SmartLiveStatus& value);

} // namespace tonavi
