#pragma once
// The built-in equaliser presets.

#include "audio/effects/EQPreset.hpp"

#include <optional>
#include <string_view>
#include <vector>

namespace kavore {

class EQPresets {
  public:
    // The 24 built-in presets in their display order.
    static const std::vector<EQPreset>& all();
    // The first built-in preset whose name matches, ignoring case.
    static std::optional<EQPreset> named(std::string_view name);
};

} // namespace kavore
