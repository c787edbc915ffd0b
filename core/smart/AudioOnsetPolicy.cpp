#include "core/smart/AudioOnsetPolicy.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace tonavi::AudioOnsetPolicy {

BundleIDSet newPlaying(const BundleIDSet& previous, const BundleIDSet& current) {
    BundleIDSet result;
    std::set_difference(current.begin(), current.end(), previous.begin(), previous.end(),
                        std::inserter(result, result.end()), result.key_comp());
    return result;
}

std::vector<AudioOnset> trail(std::vector<AudioOnset> onsets, double now) {
    std::erase_if(onsets, [&](const AudioOnset& onset) { return !(now - onset.startedAt <= trailWindow); });
    std::stable_sort(onsets.begin(), onsets.end(),
                     [](const AudioOnset& a, const AudioOnset& b) { return a.startedAt > b.startedAt; });
    return onsets;
}

std::string agoText(double seconds) {
    if (!(seconds >= 60.0)) {
        const double clamped = seconds > 0.0 ? seconds : 0.0; // NaN lands here too, and counts as 0
        return std::to_string(std::max<long long>(std::llround(clamped), 1)) + "s ago";
    }
    if (seconds < 3600.0)
        return std::to_string(static_cast<long long>(seconds / 60.0)) + "m ago";
    // Capped so that an absurd clock difference cannot overflow the integer.
    return std::to_string(static_cast<long long>(std::min(seconds / 3600.0, 1e15))) + "h ago";
}

} // namespace tonavi::AudioOnsetPolicy
