#pragma once
// A named equaliser setting, built in or made by the user.

#include "audio/effects/EQ10Settings.hpp"

#include <string>

namespace kavore {

struct EQPreset {
    std::string id;
    std::string name;
    std::string icon;
    EQ10Settings settings;
    bool builtin = false;

    bool operator==(const EQPreset&) const = default;
};

} // namespace kavore
