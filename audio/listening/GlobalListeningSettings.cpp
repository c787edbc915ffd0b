#include "audio/listening/GlobalListeningSettings.hpp"

#include "audio/chain/AUComponentKey.hpp"

#include <algorithm>
#include <set>
#include <string>
#include <utility>

namespace kavore {

GlobalListeningSettings::GlobalListeningSettings(bool enabled_, ListeningEQSettings equalizer_,
                                                 ListeningBalancerSettings balancer_,
                                                 std::vector<EffectSlot> slots)
    : enabled(enabled_), equalizer(std::move(equalizer_)), balancer(balancer_),
      audioUnitSlots(validatedSlots(slots)) {}

std::vector<EffectSlot> GlobalListeningSettings::validatedSlots(const std::vector<EffectSlot>& slots) {
    constexpr std::uint32_t effectType = fourCharCode("aufx");
    constexpr std::uint32_t musicEffectType = fourCharCode("aumf");
    std::vector<EffectSlot> result;
    std::set<std::string> seen;
    for (const auto& slot : slots) {
        if (slot.kind != EffectKind::audioUnit || !slot.auComponent)
            continue;
        if (slot.auComponent->type != effectType && slot.auComponent->type != musicEffectType)
            continue;
        // Duplicates go before the count, so a repeated id never takes the place of a later slot.
        if (!seen.insert(slot.id).second)
            continue;
        if (result.size() == maximumAudioUnitSlots)
            break;
        result.push_back(slot);
    }
    return result;
}

std::vector<EffectSlot> GlobalListeningSettings::activeAudioUnitSlots() const {
    if (!enabled)
        return {};
    auto slots = validatedSlots(audioUnitSlots);
    std::erase_if(slots, [](const EffectSlot& s) { return s.bypassed; });
    return slots;
}

bool GlobalListeningSettings::hasActiveAudioUnitSlot() const {
    if (!enabled)
        return false;
    const auto slots = validatedSlots(audioUnitSlots);
    return std::any_of(slots.begin(), slots.end(), [](const EffectSlot& s) { return !s.bypassed; });
}

bool GlobalListeningSettings::changesAudio() const {
    if (!enabled)
        return false;
    return !equalizer.isNeutral() || balancer.isActive() || hasActiveAudioUnitSlot();
}

bool GlobalListeningSettings::matchesDSP(const GlobalListeningSettings& other) const {
    return enabled == other.enabled && equalizer.bands == other.equalizer.bands && balancer == other.balancer;
}

} // namespace kavore
