// Every processor of the audio library must run its audio path without touching the heap, every
// buffer, however its settings ask it to work.

#include "audio/chain/RenderChain.hpp"
#include "audio/effects/SteadyVolume.hpp"
#include "audio/listening/GlobalListeningProcessor.hpp"
#include "audio/primitives/LevelMeter.hpp"
#include "audio/primitives/RingBuffer.hpp"

#include "bench/audio/FullChainSettings.hpp"
#include "tests/audio/rt/AllocationCounter.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

using namespace kavore;
using namespace kavore::test;

namespace {

constexpr double rate = 48000.0;
constexpr std::size_t blocks = 200, samples = 256; // 128-frame stereo buffers, past a leveler window

// Runs the buffers through `process`, counting allocations inside it only. Returns the share of
// samples it changed, so that a processor that quietly did nothing fails its check.
template <typename Process>
double runBlocks(Process process, std::size_t& allocations, float amplitude = 0.8f) {
    std::size_t changed = 0;
    for (std::size_t block = 0; block < blocks; ++block) {
        std::vector<float> buf(samples);
        for (std::size_t i = 0; i < samples; ++i)
            buf[i] = amplitude * static_cast<float>(std::sin(0.03 * double(block * 128 + i / 2)));
        const auto original = buf;
        {
            AllocationCounter counter;
            process(std::span<float>(buf));
            allocations += counter.count();
        }
        for (std::size_t i = 0; i < samples; ++i)
            changed += buf[i] != original[i];
    }
    return double(changed) / double(blocks * samples);
}

} // namespace

TEST(RealtimeAllocations, CounterSeesHeapUseOnItsThread) {
    AllocationCounter counter;
    auto p = std::make_unique<int>(3);
    std::vector<float> v(100);
    auto* q = new (std::nothrow) double[4];
    EXPECT_EQ(counter.count(), 3u) << "the replaced operator new must be linked in";
    EXPECT_EQ(*p + static_cast<int>(v.size()), 103);
    delete[] q;
}

TEST(RealtimeAllocations, PrimitivesAndSteadyVolumeNeverAllocate) {
    Biquad biquad;
    biquad.setPeaking(1000.0, rate, 6.0, 1.0);
    LevelMeter meter(0.6f, 0.08f);
    RingBuffer ring(1024);
    SteadyVolume steady;
    steady.configure(rate);
    std::size_t allocations = 0;
    const double filtered = runBlocks(
        [&](std::span<float> b) {
            for (float& s : b)
                s = static_cast<float>(biquad.process(s));
            meter.process(b);
            ring.write(b.data(), std::int64_t(b.size()));
            ring.read(b.data(), std::int64_t(b.size()));
        },
        allocations);
    EXPECT_GT(filtered, 0.9);
    EXPECT_GT(meter.peak(), 0.5f);
    // Steady volume learns a quiet baseline; a loud stretch then forces its per-sample gain path.
    const auto steadily = [&](std::span<float> b) { steady.process(b); };
    runBlocks(steadily, allocations, 0.05f);
    runBlocks(steadily, allocations, 0.05f);
    EXPECT_GT(runBlocks(steadily, allocations, 0.5f), 0.5);
    EXPECT_GT(steady.reductionDB(), 1.0);
    EXPECT_EQ(allocations, 0u);
}

// Each built-in alone, then all of them in one chain with a plug-in and overdrive; configuring with
// unchanged settings between buffers is a comparison only.
TEST(ChainRealtimeAllocations, EveryEffectTheFullChainAndGlobalListeningNeverAllocate) {
    ChainSettings settings = bench::fullChainSettings(); // the benchmarks' chain, overdrive included
    std::size_t allocations = 0;
    const auto run = [&](RenderChain& chain, const ChainSettings& s) {
        chain.configure(s, rate);
        return runBlocks(
            [&](std::span<float> b) {
                chain.process(b);
                chain.configure(s, rate);
            },
            allocations);
    };
    for (const auto& one : settings.slots) {
        RenderChain chain;
        EXPECT_GT(run(chain, ChainSettings{{one}, {}, false}), 0.9) << one.id;
    }
    settings.slots.push_back(slot("au", EffectKind::audioUnit, nlohmann::json::object()));
    RenderChain chain;
    // The stand-in plug-in leaves the audio alone, so every changed sample is the built-ins' work.
    int bridged = 0;
    chain.setExternalAURender([&](const std::string&, std::span<float>) { ++bridged; });
    chain.setExternalAULatencySamples([](const std::string&) { return 64; });
    EXPECT_GT(run(chain, settings), 0.9);
    EXPECT_EQ(bridged, 200);
    EXPECT_EQ(chain.latencySamples(), 96 + 64);
    EXPECT_EQ(chain.rebuildCount(), 1);

    // The whole global listening treatment, and its halves around the plug-ins.
    auto eq = ListeningEQSettings::flat();
    for (auto& band : eq.bands)
        band.enabled = true, band.gainDB = 3.0;
    const GlobalListeningSettings listening(true, eq, ListeningBalancerSettings(true, -14, 80),
                                            {auSlot("au")});
    GlobalListeningProcessor whole(listening, rate), split(listening, rate);
    EXPECT_GT(runBlocks([&](std::span<float> b) { whole.process(b); }, allocations), 0.9);
    const auto halves = [&](std::span<float> b) {
        split.processBeforePlugins(b);
        split.processAfterPlugins(b);
    };
    EXPECT_GT(runBlocks(halves, allocations), 0.9);
    EXPECT_EQ(allocations, 0u);
}
