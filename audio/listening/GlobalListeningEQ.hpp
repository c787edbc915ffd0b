#pragma once
// The global listening equaliser: one filter per band and channel, so that unlike the chain's
// EQ10 each channel of the interleaved buffer keeps its own filter state.

#include "audio/listening/ListeningEQSettings.hpp"
#include "audio/primitives/Biquad.hpp"

#include <span>
#include <vector>

namespace kavore {

class GlobalListeningEQ {
  public:
    GlobalListeningEQ() = default;
    // Only bands that change audio get filters, so a neutral band costs nothing.
    GlobalListeningEQ(const ListeningEQSettings& settings, double sampleRate, int channels);

    void process(std::span<float> buffer);

    // Stage k of channel c is filters()[k * channelCount() + c].
    const std::vector<Biquad>& filters() const { return filters_; }
    int channelCount() const { return channelCount_; }

  private:
    std::vector<Biquad> filters_;
    int channelCount_ = 1;
};

} // namespace kavore
