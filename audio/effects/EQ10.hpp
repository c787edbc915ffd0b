#pragma once
// Ten-band graphic equaliser: a preamp, then ten peaking filters with a fixed Q of 1.1.
// Channels are not told apart: the interleaved buffer runs through one set of filters as a
// single stream.

#include "audio/effects/EQ10Settings.hpp"
#include "audio/primitives/Biquad.hpp"

#include <array>
#include <span>

namespace kavore {

class EQ10 {
  public:
    static constexpr std::array<double, EQ10Settings::bandCount> bandFrequencies{
        32, 64, 125, 250, 500, 1000, 2000, 4000, 8000, 16000};
    static constexpr double bandQ = 1.1;

    // Retunes the bands; filter memory is kept so a running EQ can be changed without a click.
    void configure(const EQ10Settings& settings, double sampleRate);
    void process(std::span<float> buffer);
    void reset();

    const std::array<Biquad, EQ10Settings::bandCount>& bands() const { return bands_; }
    double preampLinear() const { return preampLinear_; }
    bool active() const { return active_; }

  private:
    std::array<Biquad, EQ10Settings::bandCount> bands_{};
    double preampLinear_ = 1.0;
    bool active_ = false;
};

} // namespace kavore
