#pragma once
// One band of the global listening equaliser. Building a band forces its numbers into range:
// frequency 20...20000 Hz, gain -12...12 dB, q 0.3...8, with non-finite values at their defaults.

#include "audio/listening/ListeningFilterKind.hpp"
#include "audio/primitives/Biquad.hpp"

#include <string>

namespace kavore {

struct ListeningEQBand {
    static constexpr double defaultFrequencyHz = 1000.0;
    static constexpr double defaultGainDB = 0.0;
    static constexpr double defaultQ = 0.707;

    std::string id;
    ListeningFilterKind kind = ListeningFilterKind::bell;
    double frequencyHz = defaultFrequencyHz;
    double gainDB = defaultGainDB;
    double q = defaultQ;
    bool enabled = true;

    ListeningEQBand() = default;
    ListeningEQBand(std::string id, ListeningFilterKind kind, double frequencyHz = defaultFrequencyHz,
                    double gainDB = defaultGainDB, double q = defaultQ, bool enabled = true);

    // Enabled, and either a pass filter (which shapes the sound at any gain) or a gain that counts.
    bool changesAudio() const;

    bool operator==(const ListeningEQBand&) const = default;
};

// The band's filter at this rate. Every kind here keeps its frequency at or below 0.45 of the rate.
Biquad configuredBiquad(const ListeningEQBand& band, double sampleRate);

} // namespace kavore
