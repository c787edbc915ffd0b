// The equaliser, the dynamics, the effect chain and global listening must run their audio path
// without touching the heap, every buffer, however their settings ask them to work.

#include "audio/chain/ChainSettingsJSON.hpp"
#include "audio/chain/RenderChain.hpp"
#include "audio/effects/BalancePanSettingsJSON.hpp"
#include "audio/effects/EQ10.hpp"
#include "audio/effects/EQPresets.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "audio/effects/MagicLeveler.hpp"
#include "audio/effects/NoiseSuppressorSettingsJSON.hpp"
#include "audio/effects/OneKnobCompressor.hpp"
#include "audio/effects/OverdriveLimiter.hpp"
#include "audio/headphone/BundledHeadphoneProfiles.hpp"
#include "audio/headphone/HeadphoneProfileJSON.hpp"
#include "audio/listening/GlobalListeningProcessor.hpp"

#include "tests/audio/rt/AllocationCounter.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <vector>

using namespace kavore;
using kavore::test::AllocationCounter;

namespace {

constexpr double rate = 48000.0;

std::vector<float> stereoBuffer(std::size_t block, float amplitude) {
    std::vector<float> b(256);
    for (std::size_t i = 0; i < b.size(); ++i)
        b[i] = amplitude * static_cast<float>(std::sin(0.03 * static_cast<double>(block * 128 + i / 2)));
    return b;
}

// Runs enough 128-frame buffers to pass a leveler window, counting allocations inside process
// only. Returns how many samples changed, so that a processor that quietly did nothing fails.
template <typename Process>
std::size_t runBlocks(Process process, std::size_t& allocations, float amplitude = 0.8f) {
    std::size_t changed = 0;
    for (std::size_t block = 0; block < 200; ++block) {
        auto buf = stereoBuffer(block, amplitude);
        const auto original = buf;
        {
            AllocationCounter counter;
            process(buf);
            allocations += counter.count();
        }
        for (std::size_t i = 0; i < buf.size(); ++i)
            changed += buf[i] != original[i];
    }
    return changed;
}

EffectSlot slot(const char* id, EffectKind kind, const nlohmann::json& settings) {
    EffectSlot s;
    s.id = id;
    s.kind = kind;
    s.settingsJSON = settingsJSONBytes(settings);
    return s;
}

} // namespace

TEST(ChainRealtimeAllocations, BuiltInProcessorsNeverAllocate) {
    EQ10 eq;
    eq.configure(EQPresets::named("Rock")->settings, rate);
    OneKnobCompressor comp;
    comp.configure(CompressorSettings(0.8, CompressorVoicing::podcast, true), rate);
    OverdriveLimiter lim;
    lim.configure(OverdriveSettings(4.0), rate, 3.0, false);
    MagicLeveler lev;
    lev.configure(LevelerSettings(1.0, true), rate);

    std::size_t allocations = 0;
    EXPECT_GT(runBlocks([&](std::span<float> b) { eq.process(b); }, allocations), 0u);
    EXPECT_GT(runBlocks([&](std::span<float> b) { comp.process(b); }, allocations), 0u);
    EXPECT_GT(runBlocks([&](std::span<float> b) { lim.process(b); }, allocations), 0u);
    EXPECT_GT(runBlocks([&](std::span<float> b) { lev.process(b); }, allocations, 0.02f), 0u);
    EXPECT_GT(lev.currentGainDB(), 0.0) << "the leveler passed at least one window";
    EXPECT_EQ(allocations, 0u);
}

TEST(ChainRealtimeAllocations, FullChainProcessAndLatencyNeverAllocate) {
    ChainSettings settings;
    settings.slots = {
        slot("eq", EffectKind::eq10, toJSON(EQPresets::named("Dance")->settings)),
        slot("comp", EffectKind::compressor, toJSON(CompressorSettings(0.6, CompressorVoicing::music, true))),
        slot("lev", EffectKind::magicBoost, toJSON(LevelerSettings(0.7, true))),
        slot("pan", EffectKind::balancePan, toJSON(BalancePanSettings(-0.4, true))),
        slot("ns", EffectKind::noiseSuppressor, toJSON(NoiseSuppressorSettings(0.8, true))),
        slot("hp", EffectKind::headphoneEQ, toJSON(BundledHeadphoneProfiles::all().front())),
        slot("au", EffectKind::audioUnit, nlohmann::json::object()),
    };
    settings.overdrive = OverdriveSettings(2.0);
    RenderChain chain;
    chain.configure(settings, rate);
    // The stand-in plug-in leaves the audio alone, so every changed sample is the built-ins' work.
    int bridged = 0;
    chain.setExternalAURender([&](const std::string&, std::span<float>) { ++bridged; });
    chain.setExternalAULatencySamples([](const std::string&) { return 64; });

    std::size_t allocations = 0;
    int latency = 0;
    const std::size_t changed = runBlocks(
        [&](std::span<float> b) {
            chain.process(b);
            latency = chain.latencySamples();
            chain.configure(settings, rate); // unchanged settings: a comparison only
        },
        allocations);
    // The equaliser alone alters nearly every sample.
    EXPECT_GT(changed, 200u * 256u * 9u / 10u);
    EXPECT_EQ(bridged, 200);
    EXPECT_EQ(latency, 96 + 64);
    EXPECT_EQ(chain.rebuildCount(), 1);
    EXPECT_EQ(allocations, 0u);
}

TEST(ChainRealtimeAllocations, GlobalListeningNeverAllocates) {
    auto eq = ListeningEQSettings::flat();
    for (auto& band : eq.bands)
        band.enabled = true, band.gainDB = 3.0;
    EffectSlot au;
    au.id = "au";
    au.kind = EffectKind::audioUnit;
    au.auComponent = AUComponentKey{fourCharCode("aufx"), 1, 2, "FX", "Maker"};
    const GlobalListeningSettings settings(true, eq, ListeningBalancerSettings(true, -14, 80), {au});
    GlobalListeningProcessor whole(settings, rate), split(settings, rate);

    std::size_t allocations = 0;
    EXPECT_GT(runBlocks([&](std::span<float> b) { whole.process(b); }, allocations), 0u);
    EXPECT_GT(runBlocks(
                  [&](std::span<float> b) {
                      split.processBeforePlugins(b);
                      split.processAfterPlugins(b);
                  },
                  allocations),
              0u);
    EXPECT_EQ(allocations, 0u);
}
