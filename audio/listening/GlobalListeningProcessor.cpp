#include "audio/listening/GlobalListeningProcessor.hpp"

namespace kavore {

namespace {
constexpr int kChannels = 2;
}

GlobalListeningProcessor::GlobalListeningProcessor(const GlobalListeningSettings& settings, double sampleRate)
    : settings_(settings), eq_(settings.equalizer, sampleRate, kChannels),
      balancer_(settings.balancer, sampleRate) {
    ceiling_.configure(OverdriveSettings::off(), sampleRate, 0.0, true);
    doesNothing_ =
        settings.equalizer.isNeutral() && !settings.balancer.isActive() && !settings.hasActiveAudioUnitSlot();
}

void GlobalListeningProcessor::process(std::span<float> buffer) {
    if (!settings_.enabled || doesNothing_)
        return;
    eq_.process(buffer);
    balancer_.process(buffer, kChannels);
    ceiling_.process(buffer);
}

void GlobalListeningProcessor::processBeforePlugins(std::span<float> buffer) {
    eq_.process(buffer);
}

void GlobalListeningProcessor::processAfterPlugins(std::span<float> buffer) {
    balancer_.process(buffer, kChannels);
    ceiling_.process(buffer);
}

} // namespace kavore
