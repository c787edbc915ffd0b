#pragma once
// A slow level balancer: it follows the mean power over about a third of a second and moves a
// gain towards the target level, cutting fast (0.15 s) and boosting slowly (1.2 s), within
// -18...+9 dB. Near-silence is left at unity rather than pulled up.

#include "audio/listening/ListeningBalancerSettings.hpp"

#include <span>

namespace kavore {

class GlobalListeningBalancer {
  public:
    GlobalListeningBalancer() = default;
    GlobalListeningBalancer(const ListeningBalancerSettings& settings, double sampleRate);

    void process(std::span<float> buffer, int channels);

    const ListeningBalancerSettings& settings() const { return settings_; }
    double sampleRate() const { return sampleRate_; }
    double measuredPower() const { return measuredPower_; }
    double gain() const { return gain_; }

  private:
    ListeningBalancerSettings settings_;
    double sampleRate_ = 48000.0;
    double measuredPower_ = 0.0;
    double gain_ = 1.0;
};

} // namespace kavore
