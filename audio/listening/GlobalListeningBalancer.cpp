#include "audio/listening/GlobalListeningBalancer.hpp"

#include <algorithm>
#include <cmath>

namespace kavore {

GlobalListeningBalancer::GlobalListeningBalancer(const ListeningBalancerSettings& settings, double sampleRate)
    : settings_(settings), sampleRate_(std::max(sampleRate, 8000.0)) {}

void GlobalListeningBalancer::process(std::span<float> buffer, int channels) {
    if (!settings_.enabled || !(settings_.strengthPercent > 0.1) || buffer.empty())
        return;

    const double count = static_cast<double>(buffer.size());
    double sum = 0.0;
    for (float s : buffer)
        sum += static_cast<double>(s) * static_cast<double>(s);
    const double power = sum / count;
    const double frames = count / static_cast<double>(std::max(channels, 1));

    measuredPower_ += (power - measuredPower_) * (1.0 - std::exp(-frames / (sampleRate_ * 0.35)));
    const double level = 10.0 * std::log10(std::max(measuredPower_, 1e-12));

    double wantedDB = 0.0;
    if (level >= -48.0)
        wantedDB = std::clamp(settings_.strengthPercent * (settings_.targetDBFS - level) / 100.0, -18.0, 9.0);
    const double wanted = std::pow(10.0, wantedDB / 20.0);

    const double tau = wanted < gain_ ? 0.15 : 1.2;
    const double next = gain_ + (wanted - gain_) * (1.0 - std::exp(-frames / (sampleRate_ * tau)));

    // A linear ramp across the buffer, reaching the new gain on the last sample.
    const double step = (next - gain_) / count;
    double g = gain_;
    for (float& s : buffer) {
        g += step;
        s = static_cast<float>(static_cast<double>(s) * g);
    }
    gain_ = next;
}

} // namespace kavore
