#include "audio/chain/ChainSettingsJSON.hpp"
#include "audio/chain/RenderChain.hpp"
#include "audio/effects/BalancePanSettingsJSON.hpp"
#include "audio/effects/EQ10.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "audio/effects/OneKnobCompressor.hpp"
#include "audio/primitives/LatencyMath.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <string>
#include <vector>

using namespace kavore;
using nlohmann::json;

namespace {

EffectSlot makeSlot(const std::string& id, EffectKind kind, const json& settings, bool bypassed = false) {
    EffectSlot s;
    s.id = id;
    s.kind = kind;
    s.bypassed = bypassed;
    s.settingsJSON = settingsJSONBytes(settings);
    return s;
}

EffectSlot rawSlot(const std::string& id, EffectKind kind, const std::string& bytes) {
    EffectSlot s;
    s.id = id;
    s.kind = kind;
    s.settingsJSON.assign(bytes.begin(), bytes.end());
    return s;
}

std::vector<float> testSignal(std::size_t n = 512) {
    std::vector<float> v(n);
    for (std::size_t i = 0; i < n; ++i)
        v[i] = static_cast<float>(0.6 * std::sin(0.05 * double(i)) + 0.05 * ((i % 2) ? 1 : -1));
    return v;
}

EffectSlot boostedEQ(const std::string& id, double preampDB = 0.0) {
    return makeSlot(id, EffectKind::eq10,
                    toJSON(EQ10Settings({9, 6, 3, 0, 0, 0, 0, 0, 0, 0}, preampDB, true)));
}

EffectSlot fullCompressor(const std::string& id) {
    return makeSlot(id, EffectKind::compressor,
                    toJSON(CompressorSettings(1.0, CompressorVoicing::voice, true)));
}

} // namespace

TEST(RenderChain, RebuildsOnlyWhenSettingsOrRateChange) {
    ChainSettings settings;
    settings.slots = {boostedEQ("eq"), fullCompressor("comp")};

    RenderChain chain, reference;
    chain.configure(settings, 48000);
    reference.configure(settings, 48000);
    auto a = testSignal(), b = testSignal();
    chain.process(a);
    reference.process(b);

    chain.configure(settings, 48000);
    EXPECT_EQ(chain.rebuildCount(), 1);
    EXPECT_TRUE(chain.matches(settings, 48000));
    // Filter and envelope state lived on: the output continues exactly like an untouched chain.
    a = testSignal(), b = testSignal();
    chain.process(a);
    reference.process(b);
    EXPECT_EQ(a, b);

    chain.configure(settings, 44100);
    EXPECT_EQ(chain.rebuildCount(), 2) << "a changed rate alone rebuilds";
    auto changed = settings;
    changed.slots[1].nickname = "renamed";
    chain.configure(changed, 44100);
    EXPECT_EQ(chain.rebuildCount(), 3) << "any change of any slot rebuilds";
    EXPECT_FALSE(chain.matches(settings, 44100));
}

TEST(RenderChain, BypassedSlotsAndBypassedChains) {
    ChainSettings settings;
    settings.slots = {boostedEQ("a"), boostedEQ("b"), fullCompressor("c")};
    settings.slots[1].bypassed = true;
    settings.overdrive = OverdriveSettings(2.0);
    RenderChain chain;
    chain.configure(settings, 48000);
    EXPECT_EQ(chain.slotIDs(), (std::vector<std::string>{"a", "b", "c"}));
    ASSERT_EQ(chain.processors().size(), 2u);
    EXPECT_EQ(chain.processors()[1].id, "c");

    settings.bypassed = true;
    chain.configure(settings, 48000);
    EXPECT_EQ(chain.processors().size(), 2u) << "a bypassed chain still builds its processors";
    auto buf = testSignal();
    chain.process(buf);
    EXPECT_EQ(buf, testSignal()) << "and leaves the buffer alone, overdrive included";
    EXPECT_EQ(chain.latencySamples(), 0);
}

TEST(RenderChain, CorruptSettingsGiveNeutralEffects) {
    const std::vector<std::pair<EffectKind, std::string>> cases = {
        {EffectKind::eq10, "not json"},
        {EffectKind::eq10, R"({"bandGainsDB":[12,12],"enabled":true})"},
        {EffectKind::compressor, R"({"amount":1,"enabled":true})"},
        {EffectKind::compressor, ""},
        {EffectKind::magicBoost, R"({"amount":"1","enabled":true})"},
        {EffectKind::headphoneEQ, R"({"id":"x","name":"y","preampDB":-6})"},
        {EffectKind::balancePan, R"({"balance":1})"},
        {EffectKind::noiseSuppressor, "[1,2]"},
    };
    for (const auto& [kind, bytes] : cases) {
        ChainSettings settings;
        settings.slots = {rawSlot("s", kind, bytes)};
        RenderChain chain;
        ASSERT_NO_THROW(chain.configure(settings, 48000));
        ASSERT_EQ(chain.processors().size(), 1u);
        auto buf = testSignal();
        chain.process(buf);
        EXPECT_EQ(buf, testSignal()) << effectKindName(kind) << ": " << bytes;
        EXPECT_EQ(chain.latencySamples(), 0);
    }
    // The same keys, well formed, do change the audio: the neutral result above came from the
    // fallback and not from a processor that never runs.
    ChainSettings good;
    good.slots = {makeSlot("s", EffectKind::balancePan, toJSON(BalancePanSettings(1.0, true)))};
    RenderChain chain;
    chain.configure(good, 48000);
    auto buf = testSignal();
    chain.process(buf);
    EXPECT_NE(buf, testSignal());
}

TEST(RenderChain, ProcessorsRunInSlotOrderAndOverdriveLast) {
    ChainSettings settings;
    settings.slots = {boostedEQ("eq", 6.0), fullCompressor("comp")};
    RenderChain chain;
    chain.configure(settings, 48000);
    auto out = testSignal();
    chain.process(out);

    EQ10 eq;
    eq.configure(EQ10Settings({9, 6, 3, 0, 0, 0, 0, 0, 0, 0}, 6.0, true), 48000);
    OneKnobCompressor comp;
    comp.configure(CompressorSettings(1.0, CompressorVoicing::voice, true), 48000);
    auto inOrder = testSignal();
    eq.process(inOrder);
    comp.process(inOrder);
    EXPECT_EQ(out, inOrder);

    eq.reset();
    comp.reset();
    auto reversed = testSignal();
    comp.process(reversed);
    eq.process(reversed);
    EXPECT_NE(out, reversed);

    // A +12 dB preamp drives the signal past full scale; only an overdrive stage after the EQ
    // brings it back under the ceiling.
    ChainSettings hot;
    hot.slots = {makeSlot("eq", EffectKind::eq10, toJSON(EQ10Settings({}, 12.0, true)))};
    hot.overdrive = OverdriveSettings::unclamped(1.001);
    chain.configure(hot, 48000);
    EXPECT_FALSE(chain.overdriveActive());
    auto loud = testSignal();
    chain.process(loud);
    EXPECT_GT(*std::max_element(loud.begin(), loud.end()), 2.0f);

    hot.overdrive = OverdriveSettings::unclamped(1.0011);
    chain.configure(hot, 48000);
    EXPECT_TRUE(chain.overdriveActive());
    loud = testSignal();
    chain.process(loud);
    for (float s : loud)
        ASSERT_LE(std::fabs(s), static_cast<float>(OverdriveLimiter::ceilingLinear));
}

TEST(RenderChain, AudioUnitSlotsGoThroughTheWeakBridge) {
    EffectSlot au = rawSlot("au-1", EffectKind::audioUnit, "");
    ChainSettings settings;
    settings.slots = {au, makeSlot("lev", EffectKind::magicBoost, toJSON(LevelerSettings(0.5, true)))};

    auto chain = std::make_unique<RenderChain>();
    chain->configure(settings, 48000);
    auto buf = testSignal(64);
    chain->processors()[0].process(buf);
    EXPECT_EQ(buf, testSignal(64)) << "no renderer: audio passes through";
    EXPECT_EQ(chain->latencySamples(), 96) << "the leveler's 2 ms look-ahead";

    std::vector<std::string> rendered;
    chain->setExternalAURender([&](const std::string& id, std::span<float> b) {
        rendered.push_back(id);
        for (float& s : b)
            s *= 0.5f;
    });
    chain->setExternalAULatencySamples([](const std::string& id) { return id == "au-1" ? 512 : -1; });
    buf = testSignal(64);
    chain->processors()[0].process(buf);
    EXPECT_EQ(rendered, std::vector<std::string>{"au-1"});
    EXPECT_FLOAT_EQ(buf[5], testSignal(64)[5] * 0.5f);
    EXPECT_EQ(chain->latencySamples(), 512 + 96);
    EXPECT_DOUBLE_EQ(LatencyMath::ms(chain->latencySamples(), 48000), 608.0 / 48.0);

    // A closure that outlives its chain does nothing and reports no latency.
    const RenderChain::Processor orphan = chain->processors()[0];
    chain.reset();
    buf = testSignal(64);
    orphan.process(buf);
    EXPECT_EQ(orphan.latency(), 0);
    EXPECT_EQ(rendered.size(), 1u);
    EXPECT_EQ(buf, testSignal(64));

    EXPECT_EQ(LatencyMath::ms(480, 0), 0.0);
    EXPECT_EQ(LatencyMath::ms(480, -48000), 0.0);
}
