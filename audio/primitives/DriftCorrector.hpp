#pragma once
// Follows the rate mismatch between a producing and a consuming clock and resamples by linear
// interpolation, carrying the read position and the last sample across calls.

#include <span>
#include <string>
#include <vector>

namespace kavore {

class DriftCorrector {
  public:
    DriftCorrector() = default;
    explicit DriftCorrector(double smoothing) { init(smoothing); }

    void init(double smoothing) { smoothing_ = smoothing; }

    // Pulls the ratio towards produced / consumed, clamped to +-5 %.
    void updateRatio(double producedFrames, double consumedFrames);
    // Returns outputFrames samples read from input at the current ratio. Allocates its result.
    std::vector<float> resample(std::span<const float> input, int outputFrames);
    // "locked" within 1 ppm, else "corrected +N ppm".
    std::string statusText() const;

    double ratio() const { return ratio_; }
    double fractional() const { return fractional_; }
    float last() const { return last_; }
    double smoothing() const { return smoothing_; }

  private:
    double ratio_ = 1.0;
    double fractional_ = 0.0;
    double smoothing_ = 0.0;
    float last_ = 0.0f;
};

} // namespace kavore
