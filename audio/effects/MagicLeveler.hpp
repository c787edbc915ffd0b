#pragma once
// A slow automatic leveler: every 0.4 s it measures the level and moves a gain of 0 dB up to
// maxGainDB towards a target, rising by 0.75 dB a step and falling three times as fast, then a
// look-ahead ceiling catches the peaks. Channels are not told apart.

#include "audio/effects/LevelerSettings.hpp"
#include "audio/effects/OverdriveLimiter.hpp"

#include <cstdint>
#include <span>

namespace kavore {

class MagicLeveler {
  public:
    static constexpr double adjustPerBlockDB = 0.75;

    // Allocates the limiter's look-ahead line: configuration path only.
    void configure(const LevelerSettings& settings, double sampleRate);
    void process(std::span<float> buffer);
    void reset();

    // The limiter's look-ahead while leveling, else 0.
    int latencySamples() const;

    bool active() const { return active_; }
    double targetDB() const { return targetDB_; }
    double maxGainDB() const { return maxGainDB_; }
    double currentGainDB() const { return currentGainDB_; }
    std::int64_t rmsWindow() const { return rmsWindow_; }
    std::int64_t rmsCount() const { return rmsCount_; }
    const OverdriveLimiter& limiter() const { return limiter_; }

  private:
    bool active_ = false;
    double targetDB_ = -18.0;
    double maxGainDB_ = 12.0;
    double currentGainDB_ = 0.0;
    double rmsAccum_ = 0.0;
    std::int64_t rmsWindow_ = 0;
    std::int64_t rmsCount_ = 0;
    OverdriveLimiter limiter_;
};

} // namespace kavore
