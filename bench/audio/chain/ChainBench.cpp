// The equaliser, the dynamics and whole chains on 128-frame interleaved stereo buffers at 48 kHz.
// items_per_second counts frames; x_realtime is how many times faster than real time that is.

#include "audio/chain/RenderChain.hpp"
#include "audio/effects/EQ10.hpp"
#include "audio/effects/MagicLeveler.hpp"
#include "audio/effects/NoiseSuppressor.hpp"
#include "audio/effects/OneKnobCompressor.hpp"
#include "audio/effects/OverdriveLimiter.hpp"
#include "audio/effects/SteadyVolume.hpp"
#include "audio/headphone/HeadphoneEQ.hpp"
#include "bench/audio/FullChainSettings.hpp"

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
        b[i] =
            static_cast<float>(amplitude * std::sin(2.0 * 3.141592653589793 * 997.0 * double(i / 2) / kRate));
    return b;
}

void countFrames(benchmark::State& state) {
    const double frames = static_cast<double>(state.iterations()) * kFrames;
    state.SetItemsProcessed(static_cast<std::int64_t>(frames));
    state.counters["x_realtime"] = benchmark::Counter(frames / kRate, benchmark::Counter::kIsRate);
}

// Each iteration starts from the same programme material, so that gains never run away.
template <typename Process>
void runProcessor(benchmark::State& state, Process process, const StereoBuffer& source = programme()) {
    StereoBuffer buffer;
    for (auto _ : state) {
        std::memcpy(buffer.data(), source.data(), sizeof buffer);
        process(std::span<float>(buffer));
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
    countFrames(state);
}

} // namespace

static void BM_EQ10(benchmark::State& state) {
    EQ10 eq;
    eq.configure(EQPresets::named("Rock")->settings, kRate);
    runProcessor(state, [&](std::span<float> b) { eq.process(b); });
}
BENCHMARK(BM_EQ10);

static void BM_Compressor(benchmark::State& state) {
    OneKnobCompressor comp;
    comp.configure(CompressorSettings(0.7, CompressorVoicing::music, true), kRate);
    runProcessor(state, [&](std::span<float> b) { comp.process(b); });
}
BENCHMARK(BM_Compressor);

static void BM_Leveler(benchmark::State& state) {
    MagicLeveler lev;
    lev.configure(LevelerSettings(0.8, true), kRate);
    runProcessor(state, [&](std::span<float> b) { lev.process(b); });
}
BENCHMARK(BM_Leveler);

static void BM_OverdriveLimiter(benchmark::State& state) {
    OverdriveLimiter lim;
    lim.configure(OverdriveSettings(3.0), kRate, 0.0, false);
    runProcessor(state, [&](std::span<float> b) { lim.process(b); });
}
BENCHMARK(BM_OverdriveLimiter);

// A quiet signal that sits in the expansion range, so the gain is computed for every frame, with the
// hiss shelf on.
static void BM_NoiseSuppressor(benchmark::State& state) {
    NoiseSuppressor ns;
    ns.configure(NoiseSuppressorSettings(0.8, true), kRate);
    runProcessor(
        state, [&](std::span<float> b) { ns.process(b); }, tone(0.003));
}
BENCHMARK(BM_NoiseSuppressor);

// The largest bundled profile: preamp and five filters over both channels.
static void BM_HeadphoneEQ(benchmark::State& state) {
    HeadphoneEQ eq;
    eq.configure(&BundledHeadphoneProfiles::all()[2], kRate, true);
    runProcessor(
        state, [&](std::span<float> b) { eq.process(b); }, tone(0.3));
}
BENCHMARK(BM_HeadphoneEQ);

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

static void BM_FullChain(benchmark::State& state) {
    RenderChain chain;
    chain.configure(bench::fullChainSettings(), kRate);
    runProcessor(state, [&](std::span<float> b) { chain.process(b); });
}
BENCHMARK(BM_FullChain);

// A chain that cannot change the audio needs no buffer refresh, so only the chain's own cost is measured.
static void runUnchangingChain(benchmark::State& state, const ChainSettings& settings) {
    RenderChain chain;
    chain.configure(settings, kRate);
    StereoBuffer buffer = programme();
    for (auto _ : state) {
        chain.process(buffer);
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
    countFrames(state);
}

// All slots bypassed, multiplier 1.
static void BM_NeutralChain(benchmark::State& state) {
    ChainSettings settings = bench::fullChainSettings();
    for (auto& s : settings.slots)
        s.bypassed = true;
    settings.overdrive = OverdriveSettings::off();
    runUnchangingChain(state, settings);
}
BENCHMARK(BM_NeutralChain);

static void BM_BypassedChain(benchmark::State& state) {
    ChainSettings settings = bench::fullChainSettings();
    settings.bypassed = true;
    runUnchangingChain(state, settings);
}
BENCHMARK(BM_BypassedChain);
