// A setting change with the tap live swaps the app's processors between render cycles: the chain
// follows its new settings, and what a processor has learned survives a change that does not
// concern it.

#include "EngineTestSupport.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace tonavi::testing {
namespace {

kavore::ChainSettings panChain(double balance) {
    kavore::EffectSlot slot;
    slot.id = "pan";
    slot.kind = kavore::EffectKind::balancePan;
    const std::string json = "{\"balance\":" + std::to_string(balance) + ",\"enabled\":true}";
    slot.settingsJSON.assign(json.begin(), json.end());
    kavore::ChainSettings chain;
    chain.slots.push_back(std::move(slot));
    return chain;
}

// One cycle of a 1 kHz stereo tone at `amplitude`, continuing from `cycle`.
std::vector<float> toneCycle(int cycle, double amplitude) {
    constexpr int frames = 256;
    const double w = 2.0 * M_PI * 1000.0 / 48000.0;
    std::vector<float> buffer(2 * frames);
    for (int i = 0; i < frames; ++i)
        buffer[2 * i] = buffer[2 * i + 1] =
            static_cast<float>(amplitude * std::sin(w * (cycle * frames + i)));
    return buffer;
}

double peakOf(const std::vector<float>& buffer, std::size_t channel) {
    double peak = 0.0;
    for (std::size_t i = channel; i < buffer.size(); i += 2)
        peak = std::max(peak, static_cast<double>(std::abs(buffer[i])));
    return peak;
}

TEST(ProcessorSwap, ChainChangeIsHeardAtTheNextCycleOnTheSameTap) {
    AppAudioState row = appRow("a");
    row.chain = panChain(-1.0); // hard left
    EngineHarness h(configWith({row}));
    const auto tap = h.engine->tapHandle("a");
    auto before = constantBuffer(64, 0.5f);
    EXPECT_TRUE(h.engine->render("a", before));
    EXPECT_NEAR(peakOf(before, 0), 0.707, 1e-3);
    EXPECT_NEAR(peakOf(before, 1), 0.0, 1e-6);

    row.chain = panChain(1.0); // hard right
    h.engine->apply(configWith({row}));
    auto after = constantBuffer(64, 0.5f);
    EXPECT_TRUE(h.engine->render("a", after));
    EXPECT_NEAR(peakOf(after, 0), 0.0, 1e-6);
    EXPECT_NEAR(peakOf(after, 1), 0.707, 1e-3);
    EXPECT_EQ(h.engine->tapHandle("a"), tap);
    EXPECT_EQ(h.taps->createCalls("a"), 1);
}

// Two engines hear the same tone; one of them gets a change partway. Processors the change does
// not concern keep their state, so both render the same from then on: the same samples, or with
// `mirrored` the channels swapped (a fresh steady volume would start again at unity gain).
TEST(ProcessorSwap, ChangesThatDoNotConcernAProcessorKeepItsState) {
    AppAudioState steady = appRow("a");
    steady.steadyVolume = true;
    steady.chain = panChain(-0.5);
    AppAudioState mirroredChain = steady;
    mirroredChain.chain = panChain(0.5);
    // A 1 kHz bell of +6 dB: its filters carry state from cycle to cycle.
    const kavore::ListeningEQSettings bell(std::vector<kavore::ListeningEQBand>{
        {"bell", kavore::ListeningFilterKind::bell, 1000.0, 6.0, 1.0, true}});
    TonaviConfig listening = configWith({steady});
    listening.globalListening = kavore::GlobalListeningSettings(true, bell, {}, {});
    TonaviConfig withPlugin = listening;
    withPlugin.globalListening = kavore::GlobalListeningSettings(true, bell, {}, {pluginSlot("GL1")});

    const struct {
        const char* name;
        TonaviConfig before;
        TonaviConfig after;
        bool mirrored;
    } changes[] = {
        {"plug-in slot added to the listening treatment", listening, withPlugin, false},
        {"chain mirrored", configWith({steady}), configWith({mirroredChain}), true},
    };
    // The tone jumps by 12 dB once steady volume has learned its level (about 3 s), and a second
    // later, at the change, steady volume is turning the app down.
    constexpr int jumpAt = 600;
    constexpr int changeAt = 800;
    for (const auto& change : changes) {
        EngineHarness changed(change.before);
        EngineHarness reference(change.before);
        ASSERT_TRUE(changed.engine->hasTap("a") && reference.engine->hasTap("a"));
        double settledPeak = 0.0;
        for (int cycle = 0; cycle < changeAt + 20; ++cycle) {
            if (cycle == changeAt)
                changed.engine->apply(change.after);
            const double amplitude = cycle < jumpAt ? 0.05 : 0.2;
            auto a = toneCycle(cycle, amplitude);
            auto b = toneCycle(cycle, amplitude);
            changed.engine->render("a", a);
            reference.engine->render("a", b);
            const bool swap = change.mirrored && cycle >= changeAt;
            for (std::size_t i = 0; i < a.size(); ++i)
                ASSERT_NEAR(a[i], b[swap ? i ^ 1 : i], 1e-6)
                    << change.name << ", cycle " << cycle << ", sample " << i;
            const double peak = std::max(peakOf(b, 0), peakOf(b, 1));
            if (cycle == jumpAt - 1)
                settledPeak = peak;
            // Four times the tone comes out well under four times as loud.
            if (cycle == changeAt) {
                EXPECT_LT(peak, 0.6 * 4.0 * settledPeak)
                    << change.name << ": steady volume had learned nothing";
            }
        }
        EXPECT_EQ(changed.taps->createCalls("a"), 1) << change.name;
    }
}

} // namespace
} // namespace tonavi::testing
