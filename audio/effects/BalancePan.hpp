#pragma once
// Constant-power stereo balance over interleaved stereo, unity in the centre.

#include "audio/effects/BalancePanSettings.hpp"

#include <span>

namespace kavore {

class BalancePan {
  public:
    void configure(const BalancePanSettings& settings);
    // Even samples are left, odd samples right. A lone trailing sample is left alone.
    void processInterleavedStereo(std::span<float> buffer);

    double leftGain() const { return leftGain_; }
    double rightGain() const { return rightGain_; }
    bool active() const { return active_; }

  private:
    double leftGain_ = 1.0;
    double rightGain_ = 1.0;
    bool active_ = false;
};

} // namespace kavore
