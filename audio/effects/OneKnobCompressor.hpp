#pragma once
// A feed-forward compressor driven by one amount: the threshold falls and the ratio rises together,
// with a soft knee, voicing-dependent timing and a partial makeup gain. Channels are not told
// apart: one envelope follows the interleaved buffer as a single stream.

#include "audio/effects/CompressorSettings.hpp"

#include <span>

namespace kavore {

class OneKnobCompressor {
  public:
    void configure(const CompressorSettings& settings, double sampleRate);
    void process(std::span<float> buffer);
    void reset();

    // The reduction applied to the last sample processed, in dB.
    double gainReductionDB() const { return gainReductionDB_; }
    double thresholdDB() const { return thresholdDB_; }
    double ratio() const { return ratio_; }
    double kneeDB() const { return kneeDB_; }
    double attackCoeff() const { return attackCoeff_; }
    double releaseCoeff() const { return releaseCoeff_; }
    double makeupLinear() const { return makeupLinear_; }
    double envelope() const { return envelope_; }
    bool active() const { return active_; }

  private:
    double thresholdDB_ = 0.0;
    double ratio_ = 1.0;
    double kneeDB_ = 6.0;
    double attackCoeff_ = 0.0;
    double releaseCoeff_ = 0.0;
    double makeupLinear_ = 1.0;
    double envelope_ = -120.0;
    bool active_ = false;
    double gainReductionDB_ = 0.0;
};

} // namespace kavore
