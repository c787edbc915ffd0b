// The equaliser, the dynamics and whole chains on 128-frame interleaved stereo buffers at 48 kHz.
// items_per_second counts frames; x_realtime is how many times faster than real time that is.

#include "audio/chain/RenderChain.hpp"
#include "audio/effects/EQ10.hpp"
#include "audio/effects/MagicLeveler.hpp"
#include "audio/effects/OneKnobCompressor.hpp"
#include "audio/effects/OverdriveLimiter.hpp"
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

void countFrames(benchmark::State& state) {
    const double frames = static_cast<double>(state.iterations()) * kFrames;
    state.SetItemsProcessed(static_cast<std::int64_t>(frames));
    state.counters["x_realtime"] = benchmark::Counter(frames / kRate, benchmark::Counter::kIsRate);
}

// Each iteration starts from the same programme material, so that gains never run away.
template <typename Process> void runProcessor(benchmark::State& state, Process process) {
    const StereoBuffer source = programme();
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
