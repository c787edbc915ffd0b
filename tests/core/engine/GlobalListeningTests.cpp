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
    const std::tuple<const char*, const AppAudioState*, const SmartSettings&, bool> cases[] = {
        {"com.apple.Music", &plain, protecting, true},
        {"com.rogueamoeba.Audio", nullptr, protecting, false},
        {"hidden.app", nullptr, protecting, false},
        {"com.apple.Music", &bypassed, protecting, false},
        {"com.apple.Music", &locked, protecting, false},
        {"com.apple.Music", &plain, leaveAlone, false},
        // A production tool is refused outright while music apps are protected; otherwise it gets
        // the treatment only when its own row asks for control.
        {"com.ableton.live", &controlledDAW, protecting, false},
        {"com.ableton.live", &daw, open, false},
        {"com.ableton.live", &controlledDAW, open, true}};
    for (const auto& [id, row, smart, expected] : cases)
        EXPECT_EQ(GlobalListeningPolicy::mayProcess(id, row, {"hidden.app"}, smart), expected)
            << id << (row ? " with a row" : "");
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

} // namespace
} // namespace tonavi::testing
