#pragma once
// One place in an effect chain. The effect's settings stay opaque JSON bytes here, so that code
// which only carries chains around never needs to know the effects.

#include "audio/chain/AUComponentKey.hpp"
#include "audio/chain/EffectKind.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kavore {

struct EffectSlot {
    std::string id;
    EffectKind kind = EffectKind::eq10;
    std::string nickname;
    bool bypassed = false;
    std::vector<std::uint8_t> settingsJSON;
    std::optional<AUComponentKey> auComponent;
    std::optional<std::vector<std::uint8_t>> audioUnitPreset;

    bool operator==(const EffectSlot&) const = default;
};

} // namespace kavore
