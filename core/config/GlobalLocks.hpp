#pragma once
// Global locks the user can set on the system's audio controls.

#include <nlohmann/json_fwd.hpp>

namespace tonavi {

struct GlobalLocks {
    bool volume = false;
    bool balance = false;
    bool sampleRate = false;
    bool source = false;
    bool mute = false;

    bool operator==(const GlobalLocks&) const = default;
};

void to_json(nlohmann::json& j, const GlobalLocks& value);
void from_json(const nlohmann::json& j, GlobalLocks& value);

} // namespace tonavi
