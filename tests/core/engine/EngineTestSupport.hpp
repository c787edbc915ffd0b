#pragma once
// Builders shared by the engine tests: rows, configurations and an engine on a fake provider with
// a manual clock.

#include "FakeTaps.hpp"
#include "audio/chain/AUComponentKey.hpp"
#include "audio/chain/EffectSlot.hpp"
#include "core/engine/EngagementEngine.hpp"

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

} // namespace tonavi::testing
