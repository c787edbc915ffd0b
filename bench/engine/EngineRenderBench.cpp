// Cost of one render cycle of one app, 128 frames of interleaved stereo at 48 kHz, with the
// engine's locks included, as a tap worker's IO thread pays it.

#include "bench/audio/FullChainSettings.hpp"
#include "core/engine/EngagementEngine.hpp"

#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <vector>

namespace {

using namespace tonavi;
using kavore::bench::slot;

class BenchTaps : public TapProviding {
  public:
    TapHandlePtr createTap(const std::string&) override { return std::make_shared<TapHandle>(); }
    void destroyTap(const TapHandlePtr&) override {}
};

constexpr std::size_t frames = 128;
const std::string appID = "com.example.player";

std::unique_ptr<EngagementEngine> makeEngine(const AppAudioState& row) {
    TonaviConfig config;
    config.apps = {row};
    auto engine = std::make_unique<EngagementEngine>(config, std::make_shared<BenchTaps>(),
                                                     AutoDirectList::bundled(), 48000.0, false);
    engine->setForceEngaged({appID}, {}); // reconciles: the app gets its tap
    return engine;
}

std::vector<float> tone() {
    std::vector<float> buffer(frames * 2);
    for (std::size_t i = 0; i < frames; ++i)
        buffer[2 * i] = buffer[2 * i + 1] =
            0.5f * static_cast<float>(std::sin(0.05 * static_cast<double>(i)));
    return buffer;
}

AppAudioState chainRow() {
    AppAudioState row(appID);
    row.volume = 0.5;
    row.chain.slots = {
        slot("eq", kavore::EffectKind::eq10,
             kavore::toJSON(kavore::EQ10Settings({3, 2, 1, 0, -1, -2, 0, 1, 2, 3}, -2.0, true))),
        slot("comp", kavore::EffectKind::compressor,
             kavore::toJSON(kavore::CompressorSettings(0.6, kavore::CompressorVoicing::music, true))),
        slot("pan", kavore::EffectKind::balancePan, kavore::toJSON(kavore::BalancePanSettings(0.3, true))),
        slot("nr", kavore::EffectKind::noiseSuppressor,
             kavore::toJSON(kavore::NoiseSuppressorSettings(0.7, true))),
    };
    return row;
}

// A unity app leaves the buffer alone and a muted one silences it: neither needs a refill between
// cycles. The chain does, outside the timing, and runs under the loudness guard.
void renderUnchanging(benchmark::State& state, AppAudioState row, bool chain) {
    auto engine = makeEngine(row);
    engine->setLoudnessGuard(chain, -6.0);
    const auto source = tone();
    auto buffer = source;
    for (auto _ : state) {
        if (chain) {
            state.PauseTiming();
            buffer = source;
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(engine->render(appID, buffer));
        benchmark::ClobberMemory();
    }
}
BENCHMARK_CAPTURE(renderUnchanging, BM_RenderUnity, AppAudioState(appID), false);
BENCHMARK_CAPTURE(
    renderUnchanging, BM_RenderMuted,
    [] {
        AppAudioState row(appID);
        row.muted = true;
        return row;
    }(),
    false);
BENCHMARK_CAPTURE(renderUnchanging, BM_RenderChain, chainRow(), true);

} // namespace
