#pragma once
// The bands of the global listening equaliser, at most sixteen.

#include "audio/listening/ListeningEQBand.hpp"

#include <vector>

namespace kavore {

struct ListeningEQSettings {
    static constexpr std::size_t maximumBands = 16;

    std::vector<ListeningEQBand> bands;

    // The flat layout (see flat()).
    ListeningEQSettings();
    // Keeps the first sixteen bands.
    explicit ListeningEQSettings(std::vector<ListeningEQBand> bands);

    // Eight bands at 0 dB: a disabled high-pass, a low shelf, four bells, a high shelf and a
    // disabled low-pass.
    static ListeningEQSettings flat();

    bool isNeutral() const;
    // Summed response of the bands that change audio, in dB.
    double responseDB(double frequency, double sampleRate) const;

    bool operator==(const ListeningEQSettings&) const = default;
};

} // namespace kavore
