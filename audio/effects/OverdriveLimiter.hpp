#pragma once
// A gain stage followed by a peak limiter that holds the result at -0.3 dBFS: instant attack,
// 60 ms release, and an optional look-ahead delay. Also serves as a plain ceiling (gain 1, forced
// active) for the leveler and for global listening.

#include "audio/effects/OverdriveSettings.hpp"

#include <cmath>
#include <span>
#include <vector>

namespace kavore {

class OverdriveLimiter {
  public:
    // -0.3 dBFS.
    static constexpr double ceilingLinear = 0.9660508789898133;

    // Allocates the look-ahead line: configuration path only.
    void configure(const OverdriveSettings& settings, double sampleRate, double lookaheadMS,
                   bool forceActive);
    void process(std::span<float> buffer);
    void reset();

    // One sample through the gain and limiter, for processors that embed the limiter. The caller
    // checks active().
    double processSample(double sample) {
        const double d = gain_ * sample;
        const double a = std::fabs(d);
        const double t = a > ceilingLinear ? ceilingLinear / a : 1.0;
        if (t < currentGainReduction_)
            currentGainReduction_ = t;
        else
            currentGainReduction_ = currentGainReduction_ * releaseCoeff_ + t * (1.0 - releaseCoeff_);
        double y;
        if (lookaheadFrames_ > 0) {
            const double delayed = delayLine_[writeIndex_];
            delayLine_[writeIndex_] = d;
            writeIndex_ = writeIndex_ + 1 == lookaheadFrames_ ? 0 : writeIndex_ + 1;
            y = delayed * currentGainReduction_;
        } else {
            y = d * currentGainReduction_;
        }
        return y < -1.0 ? -1.0 : (y > 1.0 ? 1.0 : y);
    }

    double gain() const { return gain_; }
    bool active() const { return active_; }
    std::size_t lookaheadFrames() const { return lookaheadFrames_; }
    double currentGainReduction() const { return currentGainReduction_; }
    double releaseCoeff() const { return releaseCoeff_; }

  private:
    double gain_ = 1.0;
    bool active_ = false;
    std::size_t lookaheadFrames_ = 0;
    std::vector<double> delayLine_;
    std::size_t writeIndex_ = 0;
    double currentGainReduction_ = 1.0;
    double releaseCoeff_ = 0.999;
};

} // namespace kavore
