#include "audio/listening/ListeningEQSettings.hpp"

#include <algorithm>
#include <utility>

namespace kavore {

ListeningEQSettings::ListeningEQSettings() : bands(flat().bands) {}

ListeningEQSettings::ListeningEQSettings(std::vector<ListeningEQBand> bands_) : bands(std::move(bands_)) {
    if (bands.size() > maximumBands)
        bands.resize(maximumBands);
}

ListeningEQSettings ListeningEQSettings::flat() {
    using K = ListeningFilterKind;
    return ListeningEQSettings(std::vector<ListeningEQBand>{
        {"high-pass", K::highPass, 35, 0, 0.707, false},
        {"low-shelf", K::lowShelf, 120, 0, 0.707, true},
        {"bell-1", K::bell, 250, 0, 1.0, true},
        {"bell-2", K::bell, 700, 0, 1.0, true},
        {"bell-3", K::bell, 2000, 0, 1.0, true},
        {"bell-4", K::bell, 5000, 0, 1.0, true},
        {"high-shelf", K::highShelf, 10000, 0, 0.707, true},
        {"low-pass", K::lowPass, 18000, 0, 0.707, false},
    });
}

bool ListeningEQSettings::isNeutral() const {
    return std::none_of(bands.begin(), bands.end(),
                        [](const ListeningEQBand& b) { return b.changesAudio(); });
}

double ListeningEQSettings::responseDB(double frequency, double sampleRate) const {
    double sum = 0.0;
    for (const auto& band : bands)
        if (band.changesAudio())
            sum += configuredBiquad(band, sampleRate).magnitudeDB(frequency, sampleRate);
    return sum;
}

} // namespace kavore
