#include "EngineTestSupport.hpp"

#include <gtest/gtest.h>

namespace tonavi::testing {
namespace {

using IDs = std::vector<std::string>;

TEST(EngagementRules, SanitizedDropsProtectedAppsEverywhere) {
    TonaviConfig config = configWith({appRow("com.rogueamoeba.Loopback", 0.5), appRow("com.apple.Music", 0.5),
                                      appRow("com.brelmoor.tonavi", 0.2)});
    config.duckRules = {AutoDuckRule{"r", "com.zoom.us", {"com.rogueamoeba.arkaudiod", "com.apple.Music"}}};
    const TonaviConfig clean = EngagementEngine::sanitized(config, AutoDirectList::bundled());
    EXPECT_EQ(clean.apps, std::vector{config.apps[1]});
    EXPECT_EQ(clean.duckRules[0].duckedBundleIDs, IDs{"com.apple.Music"});

    EngineHarness h(config);
    EXPECT_EQ(h.engine->engagedBundleIDs(), IDs{"com.apple.Music"});
    EXPECT_EQ(h.taps->createCalls("com.rogueamoeba.Loopback"), 0);
}

// Who gets a tap, and how a tapped app's first cycle sounds: a new tap starts at its target.
TEST(Reconcile, WhoGetsATapAndHowItsFirstCycleSounds) {
    using Eligible = std::optional<EngagementEngine::IDSet>;
    const auto row = [](double volume, bool muted, bool directLocked, bool muteWhileBypassed, bool control) {
        AppAudioState r = appRow("a", volume);
        std::tie(r.muted, r.directLocked, r.muteWhileBypassed, r.controlAttached) =
            std::tuple(muted, directLocked, muteWhileBypassed, control);
        return r;
    };
    AppAudioState perDevice = appRow("a");
    perDevice.volumePerDevice = {{"spk", 1.0}, {"hdp", 0.9998}};
    const std::tuple<const char*, AppAudioState, Eligible, bool, float> cases[] = {
        {"neutral, even when eligible", appRow("a"), EngagementEngine::IDSet{"a"}, false, 1.0f},
        {"volume within the tolerance", appRow("a", 0.99995), std::nullopt, false, 1.0f},
        {"half volume", appRow("a", 0.5), std::nullopt, true, 0.25f},
        {"a per-device volume off unity", perDevice, std::nullopt, true, 1.0f},
        {"muted, never played", row(1, true, false, false, false), EngagementEngine::IDSet{}, false, 1.0f},
        {"muted, eligible", row(1, true, false, false, false), EngagementEngine::IDSet{"a"}, true, 0.0f},
        {"locked direct and muted: audible", row(0.5, true, true, false, false), std::nullopt, false, 1.0f},
        {"locked direct, bypass mute: silence only", row(0.5, false, true, true, false), std::nullopt, true,
         0.0f},
        {"locked direct wins over control", row(0.5, false, true, false, true), std::nullopt, false, 1.0f}};
    for (const auto& [why, row, eligible, tapped, gain] : cases) {
        EngineHarness h(configWith({row}), false);
        h.engine->setCreationEligibility(eligible);
        h.engine->reconcile();
        EXPECT_EQ(h.taps->createCalls("a"), tapped ? 1 : 0) << why;
        auto buffer = constantBuffer(8, 0.8f);
        h.engine->render("a", buffer);
        EXPECT_EQ(buffer, constantBuffer(8, 0.8f * gain)) << why;
    }
}

TEST(Reconcile, SoloTapsAndSilencesTheOthersAndReleasesThemWhenItEnds) {
    EngineHarness h(configWith({appRow("a"), appRow("b"), appRow("c", 0.5)}));
    EXPECT_EQ(h.engine->engagedBundleIDs(), IDs{"c"});

    h.engine->setSoloApps({"a"});
    EXPECT_EQ(h.engine->engagedBundleIDs(), (IDs{"b", "c"}));
    auto buffer = constantBuffer(8, 0.9f);
    EXPECT_TRUE(h.engine->render("b", buffer));
    EXPECT_EQ(buffer, constantBuffer(8, 0.0f));
    auto tapOfB = h.engine->tapHandle("b");

    h.engine->setSoloApps({});
    EXPECT_FALSE(h.engine->soloActive());
    EXPECT_EQ(h.engine->engagedBundleIDs(), IDs{"c"});
    EXPECT_EQ(h.taps->destroyCount(tapOfB), 1);

    // Protected IDs are filtered first, so a solo of only those is no solo at all.
    h.engine->setSoloApps({"com.rogueamoeba.arkaudiod"});
    EXPECT_FALSE(h.engine->soloActive());
}

TEST(Reconcile, HardwareSuspensionReleasesEverythingWithoutCountingFailures) {
    AppAudioState muted = appRow("m");
    muted.muted = true;
    EngineHarness h(configWith({appRow("a", 0.5), muted}));
    ASSERT_EQ(h.taps->liveCount(), 2);

    h.engine->setHardwareSuspended(true);
    EXPECT_TRUE(h.engine->engagedBundleIDs().empty() && h.engine->failingBundleIDs().empty() &&
                h.engine->healthLog().empty());
    EXPECT_EQ(h.taps->liveCount(), 0);
    EXPECT_TRUE(h.taps->noDoubleDestroys());

    h.engine->setHardwareSuspended(false); // settings were kept: both come back
    EXPECT_EQ(h.engine->engagedBundleIDs(), (IDs{"a", "m"}));
}

TEST(Reconcile, FailingCreateLogsOneFailureEdgeAndOneRecoveryEdge) {
    EngineHarness h(configWith({appRow("a", 0.5)}), false);
    h.taps->failAlways("a", true);
    for (int i = 0; i < 3; ++i)
        h.engine->reconcile();
    EXPECT_EQ(h.taps->createCalls("a"), 3);
    EXPECT_TRUE(h.engine->hasControlFailure("a"));
    EXPECT_EQ(h.kinds(), IDs{"tap-failure"});
    EXPECT_EQ(h.engine->healthLog()[0].detail, "could not create tap for a; staying direct");
    EXPECT_EQ(h.engine->managedApp("a")->volume, 0.5); // the row is never touched

    h.taps->failAlways("a", false);
    h.engine->reconcile();
    h.engine->reconcile();
    EXPECT_TRUE(h.engine->hasTap("a") && !h.engine->hasControlFailure("a"));
    EXPECT_EQ(h.kinds(), (IDs{"tap-failure", "tap-recovered"}));
    EXPECT_EQ(h.engine->healthLog()[1].detail, "a is now controlled");
}

TEST(Reconcile, SettingChangesSwapProcessorsWithoutTouchingTheTap) {
    EngineHarness h(configWith({appRow("a", 0.5)}));
    h.engine->updateApp(appRow("a", 0.8));
    EXPECT_EQ(h.taps->createCalls("a"), 1);
    // Later rows of the same ID win; a row that vanishes turns its handle into an orphan.
    h.engine->apply(configWith({appRow("a", 0.5), appRow("a", 1.0)}));
    EXPECT_FALSE(h.engine->hasTap("a"));
    h.engine->apply(configWith({appRow("b", 0.5)}));
    h.engine->apply(configWith({}));
    EXPECT_EQ(h.taps->liveCount(), 0);
    EXPECT_TRUE(h.taps->noDoubleDestroys());
}

TEST(Reconcile, DecisionThatChangesDuringCreateDestroysTheNewHandle) {
    EngineHarness h(configWith({appRow("a", 0.5)}), false);
    // While the provider blocks, the user puts the app back to unity.
    h.taps->onCreate = [&](const std::string&) {
        h.engine->setConfigWithoutReconcile(configWith({appRow("a")}));
    };
    h.engine->reconcile();
    EXPECT_FALSE(h.engine->hasTap("a"));
    EXPECT_EQ(h.taps->everyHandle().size(), 1u);
    EXPECT_TRUE(h.taps->noDoubleDestroys() && h.taps->liveCount() == 0);
}

TEST(Reconcile, ForceEngagedAppsGetEphemeralRowsAndUnchangedSetsRequestNothing) {
    EngineHarness h(configWith({appRow("configured")}));
    int requests = 0;
    h.engine->setReconciliationScheduler([&] {
        ++requests;
        h.engine->reconcile();
    });
    h.engine->setForceEngaged({"configured", "guest", "com.brelmoor.tonavi"}, {{"guest", "Guest App"}});
    EXPECT_EQ(requests, 1);
    EXPECT_EQ(h.engine->engagedBundleIDs(), (IDs{"configured", "guest"}));
    EXPECT_EQ(h.engine->ephemeralAppIDs(), IDs{"guest"});
    EXPECT_EQ(h.engine->managedApp("guest")->displayName, "Guest App");
    EXPECT_FALSE(h.engine->config().app("guest")); // never persisted

    h.engine->setForceEngaged({"configured", "guest"}, {});
    EXPECT_EQ(requests, 1);

    h.engine->setForceEngaged({}, {});
    EXPECT_EQ(requests, 2);
    EXPECT_TRUE(h.engine->ephemeralAppIDs().empty() && h.engine->engagedBundleIDs().empty());
}

TEST(Reconcile, RefreshMakesBeforeBreakAndLateDeathNoticesOfReplacedHandlesAreIgnored) {
    EngineHarness h(configWith({appRow("a", 0.5)}));
    const auto first = h.engine->tapHandle("a");
    h.engine->performTapRefresh("a");
    const auto second = h.engine->tapHandle("a");
    ASSERT_NE(first, second);
    EXPECT_EQ(h.taps->retiredCount(), 1);
    EXPECT_EQ(h.taps->destroyCount(first), 1);

    h.engine->releaseTap("a", "worker exited", first);
    EXPECT_EQ(h.engine->tapHandle("a"), second);
    EXPECT_TRUE(h.engine->healthLog().empty());

    h.engine->releaseTap("a", "worker exited", second);
    EXPECT_FALSE(h.engine->hasTap("a"));
    EXPECT_EQ(h.kinds(), IDs{"tap-released"});
    EXPECT_EQ(h.engine->healthLog()[0].detail, "a released: worker exited");

    // A failed replacement sends the app direct; the next reconcile brings it back.
    h.engine->reconcile();
    h.taps->failAlways("a", true);
    h.engine->setReconciliationScheduler([] {});
    const auto third = h.engine->tapHandle("a");
    h.engine->performTapRefresh("a");
    EXPECT_FALSE(h.engine->hasTap("a"));
    EXPECT_EQ(h.taps->destroyCount(third), 1);
}

TEST(Routing, EffectiveVolumeFollowsTheDefaultOutputAndLanesProtectTheirDevice) {
    AppAudioState music = appRow("music", 0.8);
    music.volumePerDevice = {{"headphones", 0.3}};
    AppAudioState routed = appRow("routed", 0.6);
    routed.redirectUID = "usb";
    routed.volumePerDevice = {{"usb", 0.9}, {"headphones", 0.1}};
    TonaviConfig config = configWith({music, routed, appRow("video", 0.5)});
    config.lanes = {WorkspaceLane{"L1", "daw", "interface", true}, WorkspaceLane{"L2", "video", "tv", false},
                    WorkspaceLane{"L3", "hiddenApp", "interface", true}};
    config.hiddenAppIDs = {"hiddenApp"};
    EngineHarness h(config);

    EXPECT_EQ(h.engine->defaultOutputChanged("headphones"), IDs{"music"});
    EXPECT_DOUBLE_EQ(h.engine->effectiveVolume(*h.engine->managedApp("music")), 0.3);
    EXPECT_DOUBLE_EQ(h.engine->effectiveVolume(*h.engine->managedApp("routed")), 0.9);
    EXPECT_EQ(h.engine->defaultOutputChanged("speakers"), IDs{"music"});

    EXPECT_EQ(h.engine->routeFor("daw"), "interface");
    EXPECT_EQ(h.engine->routeFor("video"), ""); // unlocked lane: follows the default
    EXPECT_EQ(h.engine->routeFor("routed"), "usb");
    EXPECT_EQ(h.engine->deviceReconnected("interface"), IDs{"daw"});

    EXPECT_EQ(h.engine->validateRedirect("video", "tv"), "tv");
    EXPECT_EQ(h.engine->validateRedirect("routed", "interface"), "usb");
    EXPECT_EQ(h.kinds(), IDs{"lane-protect"});
    EXPECT_EQ(h.engine->healthLog()[0].detail, "routed kept out of locked lane on interface");

    EXPECT_EQ(h.engine->engagedBundleIDs(), (IDs{"music", "routed", "video"}));
    EXPECT_EQ(h.engine->bundleIDsUsingDefaultOutput([](const std::string&) { return true; }),
              (IDs{"music", "video"}));
    EXPECT_EQ(h.engine->bundleIDsUsingDefaultOutput([](const std::string& uid) { return uid != "usb"; }),
              (IDs{"music", "routed", "video"}));
}

TEST(Ducking, UnchangedRulesKeepGainsAndChangedRulesRestartThem) {
    TonaviConfig config = configWith({appRow("music", 0.5)});
    config.duckRules = {AutoDuckRule{"r", "call", {"music"}, -20.0}};
    EngineHarness h(config);
    h.engine->setActiveTriggers({"call"});
    h.engine->advanceDucking(48000);
    ASSERT_NEAR(h.engine->duckGain("music"), 0.1, 1e-12);

    h.engine->apply(config);
    EXPECT_NEAR(h.engine->duckGain("music"), 0.1, 1e-12);

    config.duckRules[0].recoveryMS = 300.0;
    h.engine->apply(config);
    EXPECT_DOUBLE_EQ(h.engine->duckGain("music"), 1.0);
    EXPECT_TRUE(h.engine->activeDuckTriggers().empty());
}

TEST(Ducking, ActiveTriggerOpensTapsForUnengagedDuckedApps) {
    AppAudioState locked = appRow("locked");
    locked.directLocked = true;
    TonaviConfig config = configWith({appRow("music"), locked});
    config.duckRules = {AutoDuckRule{"r", "call", {"music", "locked", "absent", "com.rogueamoeba.x"}}};
    EngineHarness h(config);
    EXPECT_TRUE(h.engine->engagedBundleIDs().empty());

    h.engine->setActiveTriggers({"call"});
    EXPECT_EQ(h.engine->engagedBundleIDs(), IDs{"music"});
    EXPECT_EQ(h.engine->activeDuckTriggers(), EngagementEngine::IDSet{"call"});
    // Not backed by the app's own settings: the next reconcile lets it go.
    h.engine->reconcile();
    EXPECT_TRUE(h.engine->engagedBundleIDs().empty());

    h.engine->setStageMode(true);
    h.engine->setActiveTriggers({"call"});
    EXPECT_TRUE(h.engine->engagedBundleIDs().empty());
}

} // namespace
} // namespace tonavi::testing
