// The equaliser, the dynamics and whole chains on 128-frame interleaved stereo buffers at 48 kHz.
// items_per_second counts frames; x_realtime is how many times faster than real time that is.
// Then one render cycle of one app through the engine, its locks included, as a tap worker's IO
// thread pays it.

#include "audio/chain/RenderChain.hpp"
#include "audio/effects/EQ10.hpp"
#include "audio/effects/MagicLeveler.hpp"
#include "audio/effects/NoiseSuppressor.hpp"
#include "audio/effects/OneKnobCompressor.hpp"
#include "audio/effects/SteadyVolume.hpp"
#include "audio/headphone/HeadphoneEQ.hpp"
#include "bench/audio/FullChainSettings.hpp"
#include "core/engine/EngagementEngine.hpp"

#include <benchmark/benchmark.h>

#include <array>
#include <cmath>
#include <cstring>

using namespace kavore;

namespace {

constexpr double kRate = 48000.0;
constexpr std::size_t kFrames = 128;
using StereoBuffer = std::array<float, kFrames * 2>;

StereoBuffer programme() {
    StereoBuffer b{};
    for (std::size_t i = 0; i < b.size(); ++i)
        b[i] = 0.3f * static_cast<float>(std::sin(0.021 * double(i / 2)) + 0.5 * std::sin(0.37 * double(i)));
    return b;
}

StereoBuffer tone(double amplitude) {
    StereoBuffer b{};
    for (std::size_t i = 0; i < b.size(); ++i)
        b[i] = static_cast<float>(amplitude * std::sin(0.1305 * double(i / 2))); // about 997 Hz at 48 kHz
    return b;
}

// Each iteration starts from the same programme material, so that gains never run away. A chain that
// cannot change the audio needs no refill, so that only the chain's own cost is measured.
template <typename Process>
void runProcessor(benchmark::State& state, Process process, const StereoBuffer& source = programme(),
                  bool refill = true) {
    StereoBuffer buffer = source;
    for (auto _ : state) {
        if (refill)
            std::memcpy(buffer.data(), source.data(), sizeof buffer);
        process(std::span<float>(buffer));
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
    const double frames = static_cast<double>(state.iterations()) * kFrames;
    state.SetItemsProcessed(static_cast<std::int64_t>(frames));
    state.counters["x_realtime"] = benchmark::Counter(frames / kRate, benchmark::Counter::kIsRate);
}

} // namespace

// A fresh processor, configured with `args`, on `source`.
template <typename Processor, typename... Args>
void BM_Processor(benchmark::State& state, Processor p, const StereoBuffer& source, Args... args) {
    p.configure(args...);
    runProcessor(
        state, [&](std::span<float> b) { p.process(b); }, source);
}
BENCHMARK_CAPTURE(BM_Processor, EQ10, EQ10{}, programme(), EQPresets::named("Rock")->settings, kRate);
BENCHMARK_CAPTURE(BM_Processor, OneKnobCompressor, OneKnobCompressor{}, programme(),
                  CompressorSettings(0.7, CompressorVoicing::music, true), kRate);
BENCHMARK_CAPTURE(BM_Processor, MagicLeveler, MagicLeveler{}, programme(), LevelerSettings(0.8, true), kRate);
BENCHMARK_CAPTURE(BM_Processor, OverdriveLimiter, OverdriveLimiter{}, programme(), OverdriveSettings(3.0),
                  kRate, 0.0, false);
// A quiet signal that sits in the expansion range, so the gain is computed for every frame, with the
// hiss shelf on.
BENCHMARK_CAPTURE(BM_Processor, NoiseSuppressor, NoiseSuppressor{}, tone(0.003),
                  NoiseSuppressorSettings(0.8, true), kRate);
// The largest bundled profile: preamp and five filters over both channels.
BENCHMARK_CAPTURE(BM_Processor, HeadphoneEQ, HeadphoneEQ{}, tone(0.3), &BundledHeadphoneProfiles::all()[2],
                  kRate, true);

// Worst case: a level well above the learned baseline keeps the per-sample gain loop running. Over a
// long run the baseline creeps up to the loud level; it is learned again before it gets there.
static void BM_SteadyVolume(benchmark::State& state) {
    SteadyVolume sv;
    const auto relearn = [&] {
        sv.configure(kRate);
        for (int i = 0; i < 2000; ++i) {
            auto b = tone(0.01);
            sv.process(b);
        }
    };
    relearn();
    std::int64_t count = 0;
    runProcessor(
        state,
        [&](std::span<float> b) {
            if (++count % 100000 == 0 && sv.reductionDB() < 6.0) {
                state.PauseTiming();
                relearn();
                state.ResumeTiming();
            }
            sv.process(b);
        },
        tone(0.2));
    state.counters["reductionDB"] = sv.reductionDB();
}
BENCHMARK(BM_SteadyVolume);

static void runChain(benchmark::State& state, const ChainSettings& settings, bool changesAudio) {
    RenderChain chain;
    chain.configure(settings, kRate);
    runProcessor(
        state, [&](std::span<float> b) { chain.process(b); }, programme(), changesAudio);
}
BENCHMARK_CAPTURE(runChain, BM_FullChain, bench::fullChainSettings(), true);

// All slots bypassed with multiplier 1, or the whole chain bypassed.
ChainSettings neutralChain(bool bypassWhole) {
    ChainSettings settings = bench::fullChainSettings();
    settings.bypassed = bypassWhole;
    for (auto& s : settings.slots)
        s.bypassed = !bypassWhole;
    settings.overdrive = bypassWhole ? settings.overdrive : OverdriveSettings::off();
    return settings;
}
BENCHMARK_CAPTURE(runChain, BM_NeutralChain, neutralChain(false), false);
BENCHMARK_CAPTURE(runChain, BM_BypassedChain, neutralChain(true), false);

namespace {

using namespace tonavi;

class BenchTaps : public TapProviding {
  public:
    TapHandlePtr createTap(const std::string&) override { return std::make_shared<TapHandle>(); }
    void destroyTap(const TapHandlePtr&) override {}
};

const std::string appID = "com.example.player";

// A unity app leaves the buffer alone and a muted one silences it: neither needs a refill between
// cycles. The whole chain does, outside the timing, and runs under the loudness guard.
void renderUnchanging(benchmark::State& state, bool muted, bool chain) {
    TonaviConfig config;
    config.apps = {AppAudioState(appID)};
    config.apps[0].muted = muted;
    if (chain)
        config.apps[0].volume = 0.5, config.apps[0].chain = bench::fullChainSettings();
    auto engine = std::make_unique<EngagementEngine>(config, std::make_shared<BenchTaps>(),
                                                     AutoDirectList::bundled(), 48000.0, false);
    engine->setForceEngaged({appID}, {}); // reconciles: the app gets its tap
    engine->setLoudnessGuard(chain, -6.0);
    const auto source = tone(0.5);
    StereoBuffer buffer = source;
    for (auto _ : state) {
        if (chain) {
            state.PauseTiming();
            buffer = source;
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(engine->render(appID, std::span<float>(buffer)));
        benchmark::ClobberMemory();
    }
}
BENCHMARK_CAPTURE(renderUnchanging, BM_RenderUnity, false, false);
BENCHMARK_CAPTURE(renderUnchanging, BM_RenderMuted, true, false);
BENCHMARK_CAPTURE(renderUnchanging, BM_RenderChain, false, true);

} // namespace
