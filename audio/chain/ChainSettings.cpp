#include "audio/chain/ChainSettings.hpp"

#include <algorithm>
#include <utility>

namespace kavore {

bool ChainSettings::isNeutral() const {
    if (bypassed)
        return true;
    const bool allBypassed =
        std::all_of(slots.begin(), slots.end(), [](const EffectSlot& s) { return s.bypassed; });
    return allBypassed && overdrive.multiplier <= 1.001;
}

void ChainSettings::move(std::string_view slotID, bool up) {
    const auto it =
        std::find_if(slots.begin(), slots.end(), [&](const EffectSlot& s) { return s.id == slotID; });
    if (it == slots.end())
        return;
    const auto index = static_cast<std::size_t>(it - slots.begin());
    if (up) {
        if (index == 0)
            return;
        std::swap(slots[index], slots[index - 1]);
    } else {
        if (index + 1 >= slots.size())
            return;
        std::swap(slots[index], slots[index + 1]);
    }
}

} // namespace kavore
