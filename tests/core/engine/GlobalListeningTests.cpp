#include "EngineTestSupport.hpp"
#include "core/engine/GlobalListeningPolicy.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace tonavi::testing {
namespace {

TEST(GlobalListeningPolicy, DecidesInItsOrder) {
    AppAudioState plain = appRow("com.apple.Music"), bypassed = plain, locked = plain;
    bypassed.chain.bypassed = true;
    locked.directLocked = true;
    AppAudioState daw = appRow("com.ableton.live"), controlledDAW = appRow("com.ableton.live", 0.7);
    SmartSettings protecting, open, leaveAlone;
    open.protectMusicApps = false;
    leaveAlone.leaveAloneBundleIDs = {"com.apple.Music"};
    const struct {
        const char* id;
        const AppAudioState* row;
        const SmartSettings& smart;
        bool expected;
    } cases[] = {
        {"com.apple.Music", &plain, protecting, true},
        {"com.apple.Music", nullptr, protecting, true},
        {"com.rogueamoeba.Audio", nullptr, protecting, false},
        {"hidden.app", nullptr, protecting, false},
        {"com.apple.Music", &bypassed, protecting, false},
        {"com.apple.Music", &locked, protecting, false},
        {"com.apple.Music", &plain, leaveAlone, false},
        // A production tool is refused outright while music apps are protected; otherwise it gets the
        // treatment only when its own row asks for control.
        {"com.ableton.live", &controlledDAW, protecting, false},
        {"com.ableton.live", &daw, open, false},
        {"com.ableton.live", nullptr, open, false},
        {"com.ableton.live", &controlledDAW, open, true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(GlobalListeningPolicy::mayProcess(c.id, c.row, {"hidden.app"}, c.smart), c.expected)
            << c.id << (c.row ? " with a row" : "");
}

TEST(GlobalListeningRender, PluginBridgeRunsBetweenTheHalvesAndCountsInLatency) {
    TonaviConfig config = configWith({appRow("a"), appRow("com.ableton.live", 0.5)});
    config.globalListening =
        kavore::GlobalListeningSettings(true, kavore::ListeningEQSettings::flat(), {}, {pluginSlot("GL1")});
    EngineHarness h(config, false);
    std::vector<std::string> rendered;
    h.engine->setExternalAURender([&](const std::string& slotID, std::span<float> buffer) {
        rendered.push_back(slotID);
        for (float& sample : buffer)
            sample *= 0.5f;
    });
    h.engine->setExternalAULatency([](const std::string&) { return 64; });
    h.engine->setForceEngaged({"a"}, {});
    EXPECT_EQ(h.engine->globalPluginSlotIDs(), std::vector<std::string>{"GL1"});

    auto buffer = constantBuffer(16, 0.4f);
    EXPECT_TRUE(h.engine->render("a", buffer)); // unity app, but the global treatment ran
    EXPECT_EQ(rendered, std::vector<std::string>{"GL1"});
    for (float sample : buffer)
        EXPECT_NEAR(sample, 0.2f, 1e-6);
    EXPECT_EQ(h.engine->latencySamples("a", 256, 128), 256 + 128 + 64);

    // A protected production tool renders without it and pays no plug-in latency.
    rendered.clear();
    auto daw = constantBuffer(16, 0.4f);
    h.engine->render("com.ableton.live", daw);
    EXPECT_TRUE(rendered.empty());
    EXPECT_NEAR(daw[0], 0.1f, 1e-6);
    EXPECT_EQ(h.engine->latencySamples("com.ableton.live", 256, 128), 384);

    // A failing plug-in slot is bypassed: the list empties and the treatment stops changing audio.
    h.engine->autoRevertAUSlot("GL1", "stopped responding");
    EXPECT_TRUE(h.engine->globalPluginSlotIDs().empty());
    EXPECT_EQ(h.engine->healthLog().back().detail, "global listening: stopped responding");
    auto after = constantBuffer(16, 0.4f);
    EXPECT_FALSE(h.engine->render("a", after));
    EXPECT_EQ(after, constantBuffer(16, 0.4f));
}

TEST(GlobalListeningRender, EqualizerBoostReachesTheSignal) {
    kavore::ListeningEQSettings eq(std::vector<kavore::ListeningEQBand>{
        {"bell", kavore::ListeningFilterKind::bell, 1000.0, 6.0, 1.0, true}});
    TonaviConfig config = configWith({appRow("a")});
    config.globalListening = kavore::GlobalListeningSettings(true, eq, {}, {});
    EngineHarness h(config, false);
    h.engine->setForceEngaged({"a"}, {});

    // A 1 kHz tone at the bell's centre gains 6 dB (x 1.995) once the filter has settled.
    double peak = 0.0;
    for (int cycle = 0; cycle < 20; ++cycle) {
        auto buffer = toneCycle(cycle, 0.1);
        EXPECT_TRUE(h.engine->render("a", buffer));
        if (cycle >= 15)
            peak = std::max(peak, peakOf(buffer, 0));
    }
    EXPECT_NEAR(peak, 0.1 * std::pow(10.0, 6.0 / 20.0), 0.003);
}

} // namespace
} // namespace tonavi::testing
