#pragma once
// The user-wide listening treatment: an equaliser, a level balancer and up to two hosted effects.
// Building the record validates its plug-in slots: only effect-type Audio Units, unique ids,
// at most two.

#include "audio/chain/EffectSlot.hpp"
#include "audio/listening/ListeningBalancerSettings.hpp"
#include "audio/listening/ListeningEQSettings.hpp"

#include <vector>

namespace kavore {

struct GlobalListeningSettings {
    static constexpr std::size_t maximumAudioUnitSlots = 2;

    bool enabled = false;
    ListeningEQSettings equalizer;
    ListeningBalancerSettings balancer;
    std::vector<EffectSlot> audioUnitSlots;

    // Off: not enabled, flat EQ, default balancer, no slots.
    GlobalListeningSettings() = default;
    GlobalListeningSettings(bool enabled, ListeningEQSettings equalizer, ListeningBalancerSettings balancer,
                            std::vector<EffectSlot> audioUnitSlots);

    static GlobalListeningSettings off() { return GlobalListeningSettings(); }

    // Audio Unit slots of kind "aufx" or "aumf", first of each id, at most two.
    static std::vector<EffectSlot> validatedSlots(const std::vector<EffectSlot>& slots);

    // The validated slots that are not bypassed; none at all while disabled.
    std::vector<EffectSlot> activeAudioUnitSlots() const;
    bool hasActiveAudioUnitSlot() const;
    bool changesAudio() const;
    // Equal in everything the built-in processing uses; plug-in slots do not count.
    bool matchesDSP(const GlobalListeningSettings& other) const;

    bool operator==(const GlobalListeningSettings&) const = default;
};

} // namespace kavore
