#include "EngineTestSupport.hpp"
#include "core/engine/DefaultMixerAppPolicy.hpp"
#include "core/engine/LatencySensitiveAppPolicy.hpp"
#include "core/engine/RouteRefreshPolicy.hpp"
#include "core/engine/TonaviTapSafety.hpp"
#include "core/smart/KnownAudioApps.hpp"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace tonavi::testing {
namespace {

using IDs = std::vector<std::string>;

TEST(StageMode, ReleasesEveryTapCountsMutedAppsAndRestoresOnRelease) {
    AppAudioState muted = appRow("m");
    muted.muted = true;
    EngineHarness h(configWith({appRow("a", 0.5), muted, appRow("b")}));
    h.engine->setSoloApps({"a", "m"}); // b becomes solo-suppressed and tapped
    ASSERT_EQ(h.engine->engagedBundleIDs(), (IDs{"a", "b", "m"}));

    h.engine->setStageMode(true);
    EXPECT_TRUE(h.engine->stageMode() && h.engine->config().stageModePersisted && !h.engine->soloActive());
    EXPECT_EQ(h.taps->liveCount(), 0);
    EXPECT_EQ(h.kinds(), IDs{"stage-mode"});
    EXPECT_EQ(h.engine->healthLog()[0].detail,
              "engaged: every app tap released to the OS direct path, including 1 muted app(s), which are "
              "audible until bypass ends");

    // Neither a configuration nor a solo request can leave stage mode or add taps.
    h.engine->apply(configWith({appRow("a", 0.5), muted, appRow("b")}));
    h.engine->setSoloApps({"a"});
    EXPECT_TRUE(h.engine->stageMode() && !h.engine->soloActive() && h.engine->engagedBundleIDs().empty());

    h.engine->setStageMode(false);
    EXPECT_EQ(h.kinds(), (IDs{"stage-mode", "stage-mode"}));
    EXPECT_EQ(h.engine->healthLog()[1].detail, "released");
    EXPECT_EQ(h.engine->engagedBundleIDs(), (IDs{"a", "m"}));
    EXPECT_TRUE(h.taps->noDoubleDestroys());

    EngineHarness empty(configWith({}));
    empty.engine->setStageMode(true);
    EXPECT_EQ(empty.engine->healthLog()[0].detail, "engaged: every app tap released to the OS direct path");

    // Stage mode persisted in a configuration is restored at construction.
    TonaviConfig persisted = configWith({appRow("a", 0.5)});
    persisted.stageModePersisted = true;
    EngineHarness restored(persisted);
    EXPECT_TRUE(restored.engine->stageMode() && restored.engine->engagedBundleIDs().empty());
}

TEST(Shutdown, ReleasesEverythingOnceAndNothingComesBack) {
    EngineHarness h(configWith({appRow("a", 0.5), appRow("b", 0.2)}));
    h.engine->releaseAllTapsForShutdown();
    EXPECT_EQ(h.taps->liveCount(), 0);
    EXPECT_EQ(h.kinds(), IDs{"shutdown"});
    EXPECT_EQ(h.engine->healthLog()[0].detail, "released 2 tap(s); audio returns to the OS");

    h.engine->reconcile();
    h.engine->setActiveTriggers({});
    h.engine->updateApp(appRow("c", 0.3));
    EXPECT_TRUE(h.engine->engagedBundleIDs().empty());
    EXPECT_EQ(h.taps->createCalls("c"), 0);

    h.engine->releaseAllTapsForShutdown();
    EXPECT_EQ(h.engine->healthLog()[1].detail, "no taps to release");
    EXPECT_TRUE(h.taps->noDoubleDestroys());
}

TEST(Revert, AutoRevertResetsControlSettingsAndKeepsTheRest) {
    AppAudioState row = appRow("a"), expected = row;
    row.displayName = expected.displayName = "Player";
    row.favorite = expected.favorite = true;
    row.steadyVolume = expected.steadyVolume = true;
    std::tie(row.volume, row.muted, row.redirectUID, row.timedMuteUntil) = std::tuple(0.4, true, "usb", 5.0);
    row.volumePerDevice = {{"usb", 0.2}};
    EngineHarness h(configWith({row}));
    const auto tap = h.engine->tapHandle("a");
    ASSERT_TRUE(tap);

    h.engine->autoRevert("a", "render stalled");
    EXPECT_EQ(h.taps->destroyCount(tap), 1);
    EXPECT_EQ(*h.engine->managedApp("a"), expected);
    EXPECT_EQ(h.engine->healthLog().back().detail, "a reverted to direct: render stalled");
}

TEST(Revert, AudioUnitSlotIsBypassedWhereverItLives) {
    AppAudioState row = appRow("a");
    row.displayName = "Player";
    row.chain.slots = {pluginSlot("S1")};
    TonaviConfig config = configWith({row});
    config.systemRows.systemChain.slots = {pluginSlot("SYS")};
    EngineHarness h(config);
    ASSERT_TRUE(h.engine->hasTap("a")); // an unbypassed slot makes the chain non-neutral
    int requests = 0;
    h.engine->setReconciliationScheduler([&] {
        ++requests;
        h.engine->reconcile();
    });

    h.engine->autoRevertAUSlot("nope", "crashed");
    EXPECT_EQ(requests, 0);
    EXPECT_TRUE(h.engine->healthLog().empty());

    h.engine->autoRevertAUSlot("S1", "crashed");
    EXPECT_EQ(requests, 1);
    EXPECT_TRUE(h.engine->managedApp("a")->chain.slots[0].bypassed);
    EXPECT_EQ(h.engine->healthLog().back().kind, "au-crash");
    EXPECT_EQ(h.engine->healthLog().back().detail, "Player: crashed");
    EXPECT_FALSE(h.engine->hasTap("a")); // the chain is neutral now

    h.engine->autoRevertAUSlot("SYS", "failed to render");
    EXPECT_EQ(requests, 1); // the system chain is not the engine's
    EXPECT_TRUE(h.engine->config().systemRows.systemChain.slots[0].bypassed);
    EXPECT_EQ(h.engine->healthLog().back().detail, "system output: failed to render");
}

TEST(HealthLog, KeepsTheLastTwoHundredEventsAndReportsEachOne) {
    TonaviConfig config = configWith({});
    config.lanes = {WorkspaceLane{"L", "daw", "interface", true}};
    EngineHarness h(config);
    std::vector<std::string> reported;
    h.engine->setOnHealthEvent([&](const HealthEvent& event) { reported.push_back(event.detail); });
    for (int i = 0; i < 201; ++i)
        h.engine->validateRedirect("app" + std::to_string(i), "interface");

    const auto log = h.engine->healthLog();
    ASSERT_EQ(log.size(), 200u);
    EXPECT_EQ(log.front().detail, "app1 kept out of locked lane on interface");
    EXPECT_EQ(log.back().detail, "app200 kept out of locked lane on interface");
    EXPECT_EQ(reported.size(), 201u);
    EXPECT_TRUE(log.front().at == *h.clock && log.front().id != log.back().id);
}

TEST(SafetyPolicies, CaptureLatencyAndDefaultMixerRules) {
    EXPECT_FALSE(TonaviTapSafety::mayCapture("com.rogueamoeba.Loopback")); // the whole family
    EXPECT_TRUE(TonaviTapSafety::mayCapture("com.brelmoor.tonaviapp"));    // exact IDs only

    // Lowercased before matching.
    EXPECT_TRUE(LatencySensitiveAppPolicy::prefersDirectSoftMaster("com.ABLETON.live"));
    EXPECT_FALSE(LatencySensitiveAppPolicy::prefersDirectSoftMaster("com.apple.logic"));

    // Every platform's identifiers, in one list per kind: may it be tapped, is it known to play
    // sound, does it want no added latency, does it join the mixer on first sight.
    struct Identity {
        const char* id;
        bool capture, audio, latency, mixer;
    };
    const Identity identities[] = {
        {"com.brelmoor.tonavi", false, false, false, false}, // the service and its workers
        {"pipewire", false, false, false, false},          {"pipewire-pulse", false, false, false, false},
        {"wireplumber", false, false, false, false},       {"speech-dispatcher", false, false, false, false},
        {"com.apple.Safari", true, true, false, true},     {"firefox", true, true, false, true},
        {"org.mozilla.firefox", true, true, false, true},  {"chromium", true, true, false, true},
        {"google-chrome", true, true, false, true},        {"com.spotify.Client", true, true, false, false},
        {"org.gnome.Rhythmbox3", true, true, false, false}, {"org.videolan.VLC", true, true, false, false},
        {"org.strawberrymusicplayer.strawberry", true, true, false, false},
        {"us.zoom.Zoom", true, true, false, false},        {"com.discordapp.Discord", true, true, false, false},
        {"com.obsproject.Studio", true, true, false, false}, {"org.musescore.MuseScore", true, true, false, true},
        {"org.ardour.Ardour", true, true, true, true},     {"io.lmms.LMMS", true, true, true, true},
        {"org.gnome.Nautilus", true, false, false, false}};
    for (const auto& i : identities) {
        SCOPED_TRACE(i.id);
        EXPECT_EQ(TonaviTapSafety::mayCapture(i.id), i.capture);
        EXPECT_EQ(KnownAudioApps::isAudioApp(i.id), i.audio);
        EXPECT_EQ(LatencySensitiveAppPolicy::prefersDirectSoftMaster(i.id), i.latency);
        EXPECT_EQ(DefaultMixerAppPolicy::includes(i.id, ""), i.mixer);
    }
    // A new installation's favourites are applications of its own platform.
    for (const auto& app : TonaviConfig::firstRunDefaults(AppPlatform::linuxDesktop).apps)
        EXPECT_FALSE(app.id.starts_with("com.apple.") || app.id.starts_with("com.openai.")) << app.id;
    EXPECT_TRUE(TonaviConfig::firstRunDefaults(AppPlatform::linuxDesktop).app("firefox"));
    EXPECT_TRUE(TonaviConfig::firstRunDefaults().app("com.apple.Safari"));

    // A name matches a whole leading word, not a prefix of one.
    EXPECT_TRUE(DefaultMixerAppPolicy::includes("org.example.player", "Reason 12 Studio"));
    EXPECT_FALSE(DefaultMixerAppPolicy::includes("org.example.player", "Reasonable Player"));
    EXPECT_TRUE(DefaultMixerAppPolicy::includes("com.microsoft.edgemac", "")); // by its ID alone
}

TEST(RouteRefreshPolicy, RebuildsWhenForcedDeadMovedOrBoundElsewhere) {
    const TapRouteIdentity speakers{"spk", "spk"};
    const std::tuple<const char*, TapRouteIdentity, bool, bool, bool, bool> cases[] = {
        {"all in place", speakers, true, false, false, false},
        {"forced", speakers, true, false, true, true},
        {"dead io", speakers, false, false, false, true},
        {"process group moved", speakers, true, true, false, true},
        {"playing on another target", {"spk", "usb"}, true, false, false, true}};
    for (const auto& [name, bound, ioAlive, groupChanged, forced, expected] : cases)
        EXPECT_EQ(RouteRefreshPolicy::requiresRefresh(bound, speakers, ioAlive, groupChanged, forced),
                  expected)
            << name;
}

// The audio thread renders while the control side applies configurations, reconciles against a
// slow provider, refreshes, releases and toggles stage mode, all at once, as the service's queues
// would. Run under ThreadSanitizer too: no race report, no deadlock, every handle destroyed once.
TEST(EngineConcurrency, RenderAgainstReconcileStageModeAndReleases) {
    AutoDuckRule rule;
    rule.triggerBundleID = "call";
    rule.duckedBundleIDs = {"a"};
    TonaviConfig base = configWith({appRow("a", 0.5), appRow("b", 0.7)});
    base.duckRules = {rule};
    EngineHarness h(base, false);
    h.taps->createDelay = std::chrono::microseconds(200);
    h.engine->setLoudnessGuard(true, -3.0);

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    std::atomic<bool> done{false};
    std::atomic<long> cycles{0};

    std::thread audio([&] {
        std::vector<float> buffer(256);
        double hostTime = 0.0;
        while (!done.load()) {
            std::fill(buffer.begin(), buffer.end(), 0.5f);
            hostTime += 128.0 / 48000.0;
            h.engine->advanceDucking(128, hostTime);
            h.engine->render("a", buffer);
            for (float sample : buffer)
                ASSERT_TRUE(sample >= 0.0f && sample <= 0.5f);
            cycles.fetch_add(1);
        }
    });
    std::thread tapWork([&] {
        while (!done.load()) {
            h.engine->reconcile();
            h.engine->performTapRefresh("a");
        }
    });
    std::thread control([&] {
        int step = 0;
        while (std::chrono::steady_clock::now() < deadline) {
            TonaviConfig next = base;
            next.apps[0].volume = (step % 5) * 0.2;
            next.apps[0].muted = step % 7 == 0;
            next.apps[1].volume = step % 2 ? 1.0 : 0.6;
            if (step % 11 == 0)
                next.duckRules[0].duckDB = -6.0 - step % 3;
            h.engine->setConfigWithoutReconcile(next);
            h.engine->setActiveTriggers(step % 3 ? EngagementEngine::IDSet{"call"}
                                                 : EngagementEngine::IDSet{});
            if (step % 13 == 0 || step % 13 == 6)
                h.engine->setStageMode(step % 13 == 0);
            if (step % 17 == 0)
                h.engine->releaseTap("a", "worker exited", h.engine->tapHandle("a"));
            (void)h.engine->tapWorkerState("a");
            ++step;
        }
        done.store(true);
    });
    control.join();
    tapWork.join();
    audio.join();

    EXPECT_GT(cycles.load(), 100);
    h.engine->releaseAllTapsForShutdown();
    EXPECT_EQ(h.taps->liveCount(), 0);
    const auto handles = h.taps->everyHandle();
    EXPECT_GT(handles.size(), 2u);
    for (const auto& handle : handles)
        EXPECT_EQ(h.taps->destroyCount(handle), 1);
}

} // namespace
} // namespace tonavi::testing
