#pragma once
// One entry of the engine's health log: an edge in the life of a tap or a safety action.

#include <string>

namespace tonavi {

struct HealthEvent {
    std::string id; // a fresh UUID
    double at = 0;  // seconds since 1970
    std::string kind;
    std::string detail;

    bool operator==(const HealthEvent&) const = default;
};

} // namespace tonavi
