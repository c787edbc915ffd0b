#include "audio/chain/RenderChain.hpp"
#include "audio/effects/BalancePanSettingsJSON.hpp"
#include "audio/effects/EQ10.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "audio/effects/OneKnobCompressor.hpp"
#include "audio/primitives/LatencyMath.hpp"

#include "tests/audio/AudioTestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

using namespace kavore;
using namespace kavore::test;

namespace {

std::vector<float> testSignal(std::size_t n = 512) {
    std::vector<float> v(n);
    for (std::size_t i = 0; i < n; ++i)
        v[i] = static_cast<float>(0.6 * std::sin(0.05 * double(i)) + 0.05 * ((i % 2) ? 1 : -1));
    return v;
}

const EQ10Settings boost({9, 6, 3, 0, 0, 0, 0, 0, 0, 0}, 6.0, true);
const CompressorSettings squeeze(1.0, CompressorVoicing::voice, true);

ChainSettings chainOf(std::vector<EffectSlot> slots, double overdrive = 1.0) {
    return {std::move(slots), OverdriveSettings::unclamped(overdrive), false};
}

std::vector<float> render(RenderChain& chain, std::size_t n = 512) {
    auto buf = testSignal(n);
    chain.process(buf);
    return buf;
}

} // namespace

TEST(RenderChain, RebuildsOnlyWhenSettingsOrRateChange) {
    auto settings = chainOf(
        {slot("eq", EffectKind::eq10, toJSON(boost)), slot("comp", EffectKind::compressor, toJSON(squeeze))});
    RenderChain chain, reference;
    chain.configure(settings, 48000);
    reference.configure(settings, 48000);
    render(chain), render(reference);
    chain.configure(settings, 48000);
    EXPECT_EQ(chain.rebuildCount(), 1);
    // Filter and envelope state lived on: the output continues exactly like an untouched chain.
    EXPECT_EQ(render(chain), render(reference));

    chain.configure(settings, 44100);
    EXPECT_EQ(chain.rebuildCount(), 2) << "a changed rate alone rebuilds";
    settings.slots[1].nickname = "renamed";
    EXPECT_FALSE(chain.matches(settings, 44100)) << "any change of any slot rebuilds";
}

TEST(RenderChain, BypassedSlotsAndBypassedChains) {
    auto settings =
        chainOf({slot("a", EffectKind::eq10, toJSON(boost)), slot("b", EffectKind::eq10, toJSON(boost), true),
                 slot("c", EffectKind::compressor, toJSON(squeeze))},
                2.0);
    settings.bypassed = true;
    RenderChain chain;
    chain.configure(settings, 48000);
    EXPECT_EQ(chain.slotIDs(), (std::vector<std::string>{"a", "b", "c"}));
    ASSERT_EQ(chain.processors().size(), 2u) << "a bypassed chain still builds its active processors";
    EXPECT_EQ(chain.processors()[1].id, "c");
    EXPECT_EQ(render(chain), testSignal()) << "and leaves the buffer alone, overdrive included";
    EXPECT_EQ(chain.latencySamples(), 0);
}

TEST(RenderChain, CorruptSettingsGiveNeutralEffects) {
    const struct {
        EffectKind kind;
        std::string bytes;
        bool neutral = true;
    } cases[] = {
        {EffectKind::eq10, "not json"},
        {EffectKind::compressor, R"({"amount":1,"enabled":true})"},
        {EffectKind::magicBoost, R"({"amount":"1","enabled":true})"},
        {EffectKind::headphoneEQ, R"({"id":"x","name":"y","preampDB":-6})"},
        {EffectKind::balancePan, R"({"balance":1})"},
        {EffectKind::noiseSuppressor, "[1,2]"},
        // Well formed, the same keys do change the audio: the fallback, not a silent processor.
        {EffectKind::balancePan, R"({"balance":1,"enabled":true})", false},
    };
    for (const auto& [kind, bytes, neutral] : cases) {
        RenderChain chain;
        ASSERT_NO_THROW(chain.configure(chainOf({rawSlot("s", kind, bytes)}), 48000));
        ASSERT_EQ(chain.processors().size(), 1u);
        EXPECT_EQ(render(chain) == testSignal(), neutral) << bytes;
        EXPECT_EQ(chain.latencySamples(), 0);
    }
}

TEST(RenderChain, ProcessorsRunInSlotOrderAndOverdriveLast) {
    RenderChain chain;
    chain.configure(chainOf({slot("eq", EffectKind::eq10, toJSON(boost)),
                             slot("comp", EffectKind::compressor, toJSON(squeeze))}),
                    48000);
    const auto out = render(chain);
    EQ10 eq;
    eq.configure(boost, 48000);
    OneKnobCompressor comp;
    comp.configure(squeeze, 48000);
    auto inOrder = testSignal(), reversed = testSignal();
    eq.process(inOrder), comp.process(inOrder);
    eq.reset(), comp.reset();
    comp.process(reversed), eq.process(reversed);
    EXPECT_EQ(out, inOrder);
    EXPECT_NE(out, reversed);

    // A +12 dB preamp drives the signal to about 2.4; only an overdrive stage after the EQ brings
    // it back under the ceiling, and only beyond a multiplier of 1.001.
    const auto hot = [](double overdrive) {
        return chainOf({slot("eq", EffectKind::eq10, toJSON(EQ10Settings({}, 12.0, true)))}, overdrive);
    };
    chain.configure(hot(1.001), 48000);
    EXPECT_GT(std::ranges::max(render(chain)), 2.0f);
    chain.configure(hot(1.0011), 48000);
    EXPECT_LE(std::ranges::max(render(chain)), static_cast<float>(OverdriveLimiter::ceilingLinear));
}

TEST(RenderChain, AudioUnitSlotsGoThroughTheWeakBridge) {
    auto chain = std::make_unique<RenderChain>();
    chain->configure(chainOf({rawSlot("au-1", EffectKind::audioUnit, ""),
                              slot("lev", EffectKind::magicBoost, toJSON(LevelerSettings(0.5, true)))}),
                     48000);
    const auto through = [](const RenderChain::Processor& p) {
        auto buf = testSignal(64);
        p.process(buf);
        return buf;
    };
    EXPECT_EQ(through(chain->processors()[0]), testSignal(64)) << "no renderer: audio passes through";
    EXPECT_EQ(chain->latencySamples(), 96) << "the leveler's 2 ms look-ahead";

    std::vector<std::string> rendered;
    chain->setExternalAURender([&](const std::string& id, std::span<float> b) {
        rendered.push_back(id);
        for (float& s : b)
            s *= 0.5f;
    });
    chain->setExternalAULatencySamples([](const std::string& id) { return id == "au-1" ? 512 : -1; });
    EXPECT_FLOAT_EQ(through(chain->processors()[0])[5], testSignal(64)[5] * 0.5f);
    EXPECT_EQ(rendered, std::vector<std::string>{"au-1"});
    EXPECT_EQ(chain->latencySamples(), 512 + 96);
    EXPECT_EQ(std::make_pair(LatencyMath::ms(608, 48000), LatencyMath::ms(480, 0)),
              std::make_pair(608.0 / 48.0, 0.0));

    // A closure that outlives its chain does nothing and reports no latency.
    const RenderChain::Processor orphan = chain->processors()[0];
    chain.reset();
    EXPECT_EQ(through(orphan), testSignal(64));
    EXPECT_EQ(orphan.latency(), 0);
    EXPECT_EQ(rendered.size(), 1u);
}
