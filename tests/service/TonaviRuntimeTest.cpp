// Start-up, warm-up, timers and persistence of the runtime.

#include "tests/service/RuntimeTestSupport.hpp"

#include <gtest/gtest.h>

using namespace tonavi;
using namespace tonavi::testing;
using R = TonaviRequest;

namespace {

std::vector<std::string> sortedIDs(const auto& apps) {
    std::vector<std::string> ids;
    for (const auto& app : apps)
        ids.push_back(app.id);
    std::sort(ids.begin(), ids.end());
    return ids;
}

} // namespace

// (What the store reads from a damaged file is the store's own test.)
TEST(RuntimeStart, NoFileAndNoWayToWriteOneGivesARunningServiceWithFirstRunDefaults) {
    RuntimeHarness h;
    h.failWrites = true;
    h.start();
    const TonaviReply reply = h.send(R::Status{});
    ASSERT_TRUE(reply.ok && reply.status);
    EXPECT_EQ(sortedIDs(reply.status->apps), sortedIDs(TonaviConfig::firstRunDefaults().apps));
    EXPECT_EQ(sortedIDs(h.runtime->engine().config().apps), sortedIDs(TonaviConfig::firstRunDefaults().apps));
}

TEST(RuntimeStart, RequestsAreAnsweredDuringASlowWarmUpAndNoTapIsTakenBeforeItEnds) {
    RuntimeHarness h;
    TonaviConfig persisted = TonaviConfig::firstRunDefaults();
    AppAudioState quiet("com.spotify.client");
    quiet.volume = 0.4; // engaged by its own row
    persisted.apps.push_back(quiet);
    h.store->save(persisted);
    // Every read of the default output stalls: the hardware answers slowly.
    h.machine->setReadDelay(std::chrono::milliseconds(80), kAudioHardwarePropertyDefaultOutputDevice);
    h.start();

    ASSERT_TRUE(waitUntil([&] { return h.runtime->warmUpProbes() >= 1; }));
    EXPECT_TRUE(h.send(R::Ping{}).ok);
    EXPECT_TRUE(h.send(R::SetAppVolume{"com.apple.Safari", 0.5}).ok);
    h.advance(0.5); // a second slow probe
    ASSERT_TRUE(waitUntil([&] { return h.runtime->warmUpProbes() >= 2; }));
    EXPECT_FALSE(h.runtime->coreAudioReady());
    EXPECT_EQ(h.provider->taps.createCalls("com.apple.Safari") +
                  h.provider->taps.createCalls("com.spotify.client"),
              0);
    EXPECT_TRUE(h.runtime->engine().engagedBundleIDs().empty());

    h.machine->setReadDelay(std::chrono::milliseconds(0));
    h.advance(0.5); // a fast probe ends the loop
    ASSERT_TRUE(waitUntil([&] { return h.runtime->warmUpProbes() >= 3; }));
    EXPECT_FALSE(h.runtime->coreAudioReady());
    h.advance(0.5); // the last half second
    ASSERT_TRUE(waitUntil([&] { return h.runtime->coreAudioReady(); }));
    // The warm-up's reconcile takes the taps: the controlled app's, and the persisted engaged app's,
    // which the request's eligibility made standing.
    ASSERT_TRUE(waitUntil([&] {
        return h.runtime->engine().hasTap("com.apple.Safari") &&
               h.runtime->engine().hasTap("com.spotify.client");
    }));
    // A worker gets the state of an app with a row, and none is started for an app without one.
    const auto state = h.provider->hooks.workerState("com.spotify.client");
    EXPECT_EQ(state ? state->app.volume : -1.0, 0.4);
    EXPECT_EQ(h.provider->hooks.workerState("com.example.gone"), std::nullopt);
}

// Sleep suspends the engine. A wake before the warm-up has ended rebuilds nothing and leaves it
// suspended; a wake after it resumes the engine, whose taps come back.
TEST(RuntimeStart, WakeWorkWaitsForTheWarmUp) {
    RuntimeHarness h;
    h.machine->setReadDelay(std::chrono::milliseconds(80), kAudioHardwarePropertyDefaultOutputDevice);
    h.start();
    ASSERT_TRUE(waitUntil([&] { return h.runtime->warmUpProbes() >= 1; }));
    const std::string rebuilt = "tonavi: rebuilt engaged taps after wake";
    auto sleepAndWake = [&] {
        h.edit([](SimWorld& w) { return (w.asleep = true, std::string()); });
        EXPECT_TRUE(waitUntil([&] { return h.runtime->engine().hardwareSuspended(); }));
        h.edit([](SimWorld& w) { return (w.asleep = false, std::string()); });
        h.advance(0.3); // the wake work comes a quarter second after the wake
    };
    sleepAndWake();
    EXPECT_EQ(h.timesLogged(rebuilt), 0);
    h.machine->setReadDelay(std::chrono::milliseconds(0));
    ASSERT_TRUE(h.advanceUntil([&] { return h.runtime->coreAudioReady(); }));
    ASSERT_TRUE(h.send(R::SetAppVolume{"com.apple.Safari", 0.5}).ok);
    h.advance(0.3);
    EXPECT_TRUE(h.runtime->engine().hardwareSuspended());
    EXPECT_EQ(h.provider->taps.createCalls("com.apple.Safari"), 0);

    sleepAndWake();
    EXPECT_FALSE(h.runtime->engine().hardwareSuspended());
    EXPECT_TRUE(waitUntil([&] { return h.runtime->engine().hasTap("com.apple.Safari"); }));
    EXPECT_EQ(h.timesLogged(rebuilt), 1);
}

TEST(RuntimeStart, TheFirstWatchdogPassComesTwoSecondsAfterStartAndAFailedTapIsReported) {
    RuntimeHarness h;
    h.provider->taps.failAlways("com.apple.Safari", true);
    TonaviConfig persisted = TonaviConfig::firstRunDefaults();
    AppAudioState timed("com.spotify.client");
    timed.timedMuteUntil = h.wall.load() - 1.0; // already over
    persisted.apps.push_back(timed);
    h.store->save(persisted);
    h.startReady(); // 0.5 s after start

    auto timedMute = [&] { return h.runtime->engine().config().app("com.spotify.client")->timedMuteUntil; };
    h.advance(1.49);
    EXPECT_TRUE(timedMute().has_value());
    h.advance(0.01); // 2.0 s: the watchdog clears the expired timer and saves
    EXPECT_FALSE(timedMute().has_value());
    EXPECT_FALSE(h.onDisk().app("com.spotify.client")->timedMuteUntil.has_value());

    // A provider without taps leaves the app direct, keeps its row and says so.
    ASSERT_TRUE(h.send(R::SetAppVolume{"com.apple.Safari", 0.3}).ok);
    ASSERT_TRUE(waitUntil([&] { return h.runtime->engine().hasControlFailure("com.apple.Safari"); }));
    const TonaviStatus status = *h.send(R::Status{}).status;
    auto safari = std::ranges::find(status.apps, "com.apple.Safari", &AppLiveStatus::id);
    ASSERT_NE(safari, status.apps.end());
    EXPECT_EQ(std::tuple(safari->engaged, safari->volume, safari->controlIssue),
              std::tuple(false, 0.3,
                         "Audio control could not attach. Sound is on the direct path; Tonavi is retrying."));
    EXPECT_DOUBLE_EQ(h.onDisk().app("com.apple.Safari")->volume, 0.3);
}

TEST(RuntimePersistence, AVolumeStreamIsWrittenOnceAQuarterSecondAfterItsLastUpdateOrAtOnceWhenCut) {
    RuntimeHarness h;
    h.startReady();
    h.settleDiscovery(); // places the first-run and discovered apps in the user's order, which saves
    auto volume = [&](double v) { ASSERT_TRUE(h.send(R::SetAppVolume{"com.apple.Safari", v}).ok); };
    auto writes = [&, before = h.stateWrites.load()] { return h.stateWrites.load() - before; };
    for (int i = 1; i <= 10; ++i) {
        volume(i / 20.0);
        h.advance(0.1);
    }
    h.advance(0.14);
    EXPECT_EQ(writes(), 0); // 0.24 s after the last: nothing yet
    h.advance(0.01);
    EXPECT_EQ(writes(), 1);
    EXPECT_DOUBLE_EQ(h.onDisk().app("com.apple.Safari")->volume, 0.5);

    // An immediate save takes the pending value with it and cancels the deferred one.
    volume(0.6);
    ASSERT_TRUE(h.send(R::SetAppMuted{"com.apple.Safari", true}).ok);
    EXPECT_EQ(writes(), 2);
    h.advance(1.0);
    EXPECT_EQ(writes(), 2);
    EXPECT_DOUBLE_EQ(h.onDisk().app("com.apple.Safari")->volume, 0.6);
    EXPECT_TRUE(h.onDisk().app("com.apple.Safari")->muted);

    // So does a stop inside the deferred window.
    volume(0.2);
    volume(0.7);
    h.runtime->serialQueue().sync([&] { h.runtime->releaseTapsThenStop(); });
    EXPECT_EQ(writes(), 3);
    EXPECT_DOUBLE_EQ(h.onDisk().app("com.apple.Safari")->volume, 0.7);
    h.advance(1.0);
    EXPECT_EQ(writes(), 3);
}
