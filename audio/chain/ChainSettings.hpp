#pragma once
// The persisted description of one effect chain: ordered slots, an overdrive stage and a bypass.

#include "audio/chain/EffectSlot.hpp"
#include "audio/effects/OverdriveSettings.hpp"

#include <string_view>
#include <vector>

namespace kavore {

struct ChainSettings {
    std::vector<EffectSlot> slots;
    OverdriveSettings overdrive;
    bool bypassed = false;

    // No slots, multiplier 1, not bypassed.
    static ChainSettings empty() { return ChainSettings(); }

    // True when nothing in the chain can change the audio.
    bool isNeutral() const;
    // Swaps the slot with its neighbour above (up) or below. Unknown ids and moves past either
    // end change nothing.
    void move(std::string_view slotID, bool up);

    bool operator==(const ChainSettings&) const = default;
};

} // namespace kavore
