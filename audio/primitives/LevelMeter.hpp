#pragma once
// A display meter: RMS with separate attack and release smoothing, and a peak that decays.

#include <span>

namespace kavore {

class LevelMeter {
  public:
    LevelMeter() = default;
    LevelMeter(float attack, float release) { init(attack, release); }

    void init(float attack, float release) {
        attack_ = attack;
        release_ = release;
    }

    // One buffer of samples (any channel layout; all samples count alike).
    void process(std::span<const float> samples);

    // The RMS scaled for display, clamped to 0...1.
    float normalized() const;

    float rms() const { return rms_; }
    float peak() const { return peak_; }
    float attack() const { return attack_; }
    float release() const { return release_; }

  private:
    float rms_ = 0.0f;
    float peak_ = 0.0f;
    float attack_ = 0.0f;
    float release_ = 0.0f;
};

} // namespace kavore
