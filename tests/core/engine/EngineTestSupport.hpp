#pragma once
// Builders shared by the engine tests: rows, configurations and an engine on a fake provider with
// a manual clock.

#include "FakeTaps.hpp"
#include "audio/chain/AUComponentKey.hpp"
#include "audio/chain/EffectSlot.hpp"
#include "core/engine/EngagementEngine.hpp"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

namespace tonavi::testing {

inline AppAudioState appRow(const std::string& id, double volume = 1.0) {
    AppAudioState row(id);
    row.volume = volume;
    return row;
}

inline TonaviConfig configWith(std::vector<AppAudioState> apps) {
    TonaviConfig config;
    config.apps = std::move(apps);
    return config;
}

struct EngineHarness {
    std::shared_ptr<FakeTaps> taps = std::make_shared<FakeTaps>();
    std::shared_ptr<double> clock = std::make_shared<double>(1'700'000'000.0);
    std::unique_ptr<EngagementEngine> engine;

    explicit EngineHarness(const TonaviConfig& config, bool autoReconcile = true,
                           double sampleRate = 48000.0) {
        auto now = clock;
        engine = std::make_unique<EngagementEngine>(config, taps, AutoDirectList::bundled(), sampleRate,
                                                    autoReconcile, [now] { return *now; });
    }

    std::vector<std::string> kinds() const {
        std::vector<std::string> out;
        for (const auto& event : engine->healthLog())
            out.push_back(event.kind);
        return out;
    }
};

// A hosted effect slot for the global listening treatment.
inline kavore::EffectSlot pluginSlot(const std::string& id) {
    kavore::EffectSlot slot;
    slot.id = id;
    slot.kind = kavore::EffectKind::audioUnit;
    slot.auComponent = kavore::AUComponentKey{kavore::fourCharCode("aufx"), 1, 2, "Fx", "Maker"};
    return slot;
}

// An interleaved stereo buffer of one constant value.
inline std::vector<float> constantBuffer(std::size_t frames, float value) {
    return std::vector<float>(frames * 2, value);
}

// One 256-frame cycle of a 1 kHz stereo tone at 48 kHz and `amplitude`, continuing from `cycle`.
inline std::vector<float> toneCycle(int cycle, double amplitude) {
    const double w = 2.0 * M_PI * 1000.0 / 48000.0;
    std::vector<float> buffer(512);
    for (int i = 0; i < 256; ++i)
        buffer[2 * i] = buffer[2 * i + 1] = static_cast<float>(amplitude * std::sin(w * (cycle * 256 + i)));
    return buffer;
}

inline double peakOf(const std::vector<float>& buffer, std::size_t channel) {
    double peak = 0.0;
    for (std::size_t i = channel; i < buffer.size(); i += 2)
        peak = std::max(peak, static_cast<double>(std::abs(buffer[i])));
    return peak;
}

} // namespace tonavi::testing
