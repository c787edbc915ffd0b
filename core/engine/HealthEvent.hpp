#pragma once
// One entry of the engine's health log: an edge in the life of a tap or a safety action.

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tonavi {

struct HealthEvent {
    std::string id; // a fresh UUID
    double at = 0;  // seconds since 1970
    std::string kind;
    std::string detail;

    bool operator==(const HealthEvent&) const = default;
};

// Wire form: an object with the four keys, all required when reading.
void to_json(nlohmann::json& json, const HealthEvent& event);
void from_json(const nlohmann::json& json, HealthEvent& event);

} // namespace tonavi
