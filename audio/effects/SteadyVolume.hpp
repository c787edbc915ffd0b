#pragma once
// Keeps an application near the level it has settled at: learns a slow baseline from loud
// buffers and turns down whatever rises more than a margin above it (at most 18 dB).
// Runs after the effect chain, once per buffer of interleaved stereo.

#include <span>

namespace kavore {

class SteadyVolume {
  public:
    // Stores the rate and forgets everything learned.
    void configure(double sampleRate);
    void process(std::span<float> buffer);

    double sampleRate() const { return sampleRate_; }
    double shortDB() const { return shortDB_; }
    double baselineDB() const { return baselineDB_; }
    bool baselineSeeded() const { return baselineSeeded_; }
    double reductionDB() const { return reductionDB_; }
    double appliedGain() const { return appliedGain_; }
    double learnSeconds() const { return learnSeconds_; }

    const double marginDB = 3.0;
    const double maxReductionDB = 18.0;
    const double silenceGateDB = -55.0;

  private:
    double sampleRate_ = 48000.0;
    double shortDB_ = -120.0;
    double baselineDB_ = -120.0;
    bool baselineSeeded_ = false;
    double reductionDB_ = 0.0;
    double appliedGain_ = 1.0;
    double learnSeconds_ = 0.0;
};

} // namespace kavore
