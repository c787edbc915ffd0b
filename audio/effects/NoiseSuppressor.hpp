#pragma once
// A downward expander on the louder channel of each stereo pair, with a floor so that quiet
// passages are turned down rather than cut, and above half strength a gentle high shelf
// against hiss.

#include "audio/effects/NoiseSuppressorSettings.hpp"
#include "audio/primitives/Biquad.hpp"

#include <span>

namespace kavore {

class NoiseSuppressor {
  public:
    void configure(const NoiseSuppressorSettings& settings, double sampleRate);
    // Interleaved stereo in place.
    void process(std::span<float> buffer);
    // Forgets the envelope and the hiss filters' memory.
    void reset();

    double thresholdDB() const { return thresholdDB_; }
    double slope() const { return slope_; }
    double floorDB() const { return floorDB_; }
    double attackCoeff() const { return attackCoeff_; }
    double releaseCoeff() const { return releaseCoeff_; }
    double envelope() const { return envelope_; }
    bool active() const { return active_; }
    bool hissActive() const { return hissActive_; }
    const Biquad& hissLeft() const { return hissLeft_; }
    const Biquad& hissRight() const { return hissRight_; }

  private:
    double thresholdDB_ = -55.0;
    double slope_ = 0.0;
    double floorDB_ = -60.0;
    double attackCoeff_ = 0.0;
    double releaseCoeff_ = 0.0;
    double envelope_ = -120.0;
    bool active_ = false;
    Biquad hissLeft_;
    Biquad hissRight_;
    bool hissActive_ = false;
};

} // namespace kavore
