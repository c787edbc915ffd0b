#pragma once
// Applies a headphone profile: a preamp, then a cascade of shelf and peaking filters. Channels are
// not told apart: the interleaved buffer runs through one cascade as a single stream.

#include "audio/headphone/HeadphoneProfile.hpp"
#include "audio/primitives/Biquad.hpp"

#include <span>
#include <vector>

namespace kavore {

class HeadphoneEQ {
  public:
    // With no profile, or disabled, the effect goes inactive and keeps its cascade. Otherwise the
    // cascade is rebuilt from scratch, so filter memory is cleared even for the same profile.
    // Allocates; not for the audio thread.
    void configure(const HeadphoneProfile* profile, double sampleRate, bool enabled);
    void process(std::span<float> buffer);

    const std::vector<Biquad>& cascade() const { return cascade_; }
    double preampLinear() const { return preampLinear_; }
    bool active() const { return active_; }

  private:
    std::vector<Biquad> cascade_;
    double preampLinear_ = 1.0;
    bool active_ = false;
};

} // namespace kavore
