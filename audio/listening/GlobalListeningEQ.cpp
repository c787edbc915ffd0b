#include "audio/listening/GlobalListeningEQ.hpp"

#include <algorithm>

namespace kavore {

GlobalListeningEQ::GlobalListeningEQ(const ListeningEQSettings& settings, double sampleRate, int channels)
    : channelCount_(std::max(channels, 1)) {
    for (const auto& band : settings.bands) {
        if (!band.changesAudio())
            continue;
        const Biquad filter = configuredBiquad(band, sampleRate);
        filters_.insert(filters_.end(), static_cast<std::size_t>(channelCount_), filter);
    }
}

void GlobalListeningEQ::process(std::span<float> buffer) {
    if (filters_.empty() || buffer.empty())
        return;
    const std::size_t channels = static_cast<std::size_t>(channelCount_);
    const std::size_t stages = filters_.size() / channels;
    Biquad* const filters = filters_.data();
    for (std::size_t i = 0; i < buffer.size(); ++i) {
        Biquad* stage = filters + i % channels;
        double x = buffer[i];
        for (std::size_t k = 0; k < stages; ++k, stage += channels)
            x = stage->process(x);
        buffer[i] = static_cast<float>(x);
    }
}

} // namespace kavore
