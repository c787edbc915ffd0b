#include "EngineTestSupport.hpp"
#include "core/engine/Ducker.hpp"

#include <cmath>
#include <gtest/gtest.h>
#include <variant>

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

constexpr double rate = 48000.0;
const double sixDB = 0.501187233627272, twelveDB = 0.251188643150958;

AutoDuckRule rule(std::string trigger, double db, double recoveryMS, bool enabled = true) {
    return {trigger + "-rule", trigger, {"music"}, db, recoveryMS, enabled};
}

// A script of trigger changes and advances, each followed by the gain "music" must then have.
// -20 dB is a linear 0.1, so the range is 0.9. The attack always takes 80 ms (3840 frames at
// 48 kHz), the recovery the rule's time.
using On = std::set<std::string, std::less<>>;
struct Step {
    std::variant<On, double> action; // new triggers, or frames to advance
    double gain;
};

TEST(Ducker, RampsFollowTheirScripts) {
    const std::tuple<const char*, std::vector<AutoDuckRule>, std::vector<Step>> cases[] = {
        // Setting triggers moves nothing, the attack never overshoots, and a tenth of 900 ms recovers a tenth
        // of the range.
        {"linear attack over 80 ms, recovery over the rule's time",
         {rule("voice", -20.0, 900.0)},
         {{On{"voice"}, 1}, {1920.0, 0.55}, {3840.0, 0.1}, {On{}, 0.1}, {4320.0, 0.19}, {1e9, 1}}},
        {"a trigger ending mid-attack reverses from where it stands",
         {rule("voice", -20.0, 900.0)},
         {{On{"voice"}, 1.0}, {1920.0, 0.55}, {On{}, 0.55}, {4320.0, 0.64}, {-500.0, 0.64}}},
        {"the deepest rule wins and depths do not add up",
         {rule("a", -6.0, 900.0), rule("b", -12.0, 900.0)},
         {{On{"a", "b"}, 1.0}, {1e9, twelveDB}, {On{"a"}, twelveDB}, {1e9, sixDB}}},
        // The first rule naming "music" is disabled; it still gives range 0.9 and 100 ms recovery.
        {"a disabled rule does not duck but sets range and recovery",
         {rule("x", -20.0, 100.0, false), rule("voice", -6.0, 2000.0)},
         {{On{"x"}, 1}, {1e9, 1}, {On{"voice"}, 1}, {3840.0, sixDB}, {On{}, sixDB}, {2400.0, sixDB + 0.45}}},
        // A recovery under one frame steps by range x frames: back in one cycle.
        {"zero recovery",
         {rule("voice", -20.0, 0.0)},
         {{On{"voice"}, 1.0}, {1e9, 0.1}, {On{}, 0.1}, {2.0, 1.0}}}};
    for (const auto& [name, rules, steps] : cases) {
        Ducker ducker(rules, rate);
        for (std::size_t i = 0; i < steps.size(); ++i) {
            if (const auto* triggers = std::get_if<On>(&steps[i].action))
                ducker.setActiveTriggers(*triggers);
            else
                ducker.advance(std::get<double>(steps[i].action));
            EXPECT_NEAR(ducker.currentGain("music"), steps[i].gain, 1e-12) << name << ", step " << i;
        }
        EXPECT_TRUE(ducker.hasGainEntry("music"));
        EXPECT_FALSE(ducker.hasGainEntry("other")); // never named by a rule
    }
}

TEST(Ducker, HostTimeGuardIgnoresRepeatedAndBackwardTimesAndLimitsToElapsedFrames) {
    Ducker ducker({rule("voice", -20.0, 900.0)}, rate);
    ducker.setActiveTriggers({"voice"});
    const auto afterFrames = [](double frames) { return 1.0 - 0.9 * frames / 3840.0; };
    ducker.advance(384, 10.0); // first call: the full count
    EXPECT_NEAR(ducker.currentGain("music"), afterFrames(384), 1e-12);
    ducker.advance(384, 10.0); // a second caller in the same cycle
    ducker.advance(384, 9.5);  // a clock that ran backward
    EXPECT_NEAR(ducker.currentGain("music"), afterFrames(384), 1e-12);
    EXPECT_EQ(ducker.lastHostTimeSeconds(), 10.0);
    // Only 96 frames of time passed, although 384 were offered.
    ducker.advance(384, 10.0 + 96.0 / rate);
    EXPECT_NEAR(ducker.currentGain("music"), afterFrames(480), 1e-12);
    // A time that is not finite advances by the count and leaves the stored time alone.
    ducker.advance(384, std::nan(""));
    EXPECT_NEAR(ducker.currentGain("music"), afterFrames(864), 1e-12);
    EXPECT_EQ(ducker.lastHostTimeSeconds(), 10.0 + 96.0 / rate);
}

} // namespace
} // namespace tonavi::testing
