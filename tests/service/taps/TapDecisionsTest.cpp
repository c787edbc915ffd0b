// The pure decisions around a live tap: when its process group has drifted, when it has gone quiet,
// and which apps may get a tap, including the app that plays digital silence.

#include <gtest/gtest.h>

#include <cmath>

#include "service/taps/OutputEligibility.hpp"
#include "service/taps/TapActivityWindow.hpp"
#include "tests/service/taps/TapTestSupport.hpp"

namespace tonavi {
namespace {

using namespace std::chrono_literals;
using IDSet = OutputEligibility::IDSet;

TEST(TapProcessIdentity, NeedsRefreshFollowsTheFirstRuleThatApplies) {
    // Bound: the app (object 10, pid 100) and its helper (11, 101), the app playing on device 50.
    const TapProcessIdentity bound{{10, 11}, {100, 101}, {50}, 100, {10}, {100}};
    const std::tuple<const char*, TapProcessIdentity, bool> cases[] = {
        {"identical", bound, false},
        {"owner relaunched", {{10, 11}, {100, 101}, {50}, 200, {10}, {100}}, true},
        {"owner unknown now", {{10, 11}, {100, 101}, {50}, std::nullopt, {10}, {100}}, false},
        {"objects replaced", {{12, 13}, {100, 101}, {50}, 100, {}, {}}, true},
        {"helper gone", {{10}, {100}, {50}, 100, {10}, {100}}, false},
        {"new helper plays", {{10, 11, 12}, {100, 101, 102}, {50}, 100, {12}, {102}}, true},
        {"known object, new pid plays", {{10, 11}, {100, 101, 103}, {50}, 100, {11}, {103}}, true},
        {"nothing plays", {{10, 11}, {100, 101}, {}, 100, {}, {}}, false},
        {"moved to another device", {{10, 11}, {100, 101}, {51}, 100, {10}, {100}}, true},
    };
    for (const auto& [what, current, refresh] : cases)
        EXPECT_EQ(bound.needsRefresh(current), refresh) << what;
}

TEST(TapActivityWindow, CountsFromTheLastSoundOrElseFromCreation) {
    // lastRawAudioAt, createdAt, lastIOAt, now; recent within 2 s; inactive beyond 20 s.
    const std::tuple<double, double, double, double, std::optional<bool>, bool> cases[] = {
        {0, 1000, 1000, 1001, true, false},
        {0, 1000, 1000, 1021, false, true},
        {1015, 1000, 1020, 1017, true, false},
        {1015, 1000, 1020, 1017.5, false, false},
        {1015, 1000, 1020, 1036, false, true},
        {NAN, 1000, 1000, 1001, std::nullopt, false},
        {0, 1000, INFINITY, 1001, std::nullopt, false},
    };
    for (const auto& [raw, created, io, now, recent, inactive] : cases) {
        EXPECT_EQ(TapActivityWindow::recentSignal(raw, created, io, now, 2.0), recent) << now;
        EXPECT_EQ(TapActivityWindow::isRawAudioInactive(raw, created, now, 20.0), inactive) << now;
    }
}

TEST(OutputEligibility, StandingControlNeedsNoSound) {
    std::vector<AppAudioState> apps(4);
    apps[0].id = "a.half";
    apps[0].volume = 0.5;
    apps[1].id = "b.unity";
    apps[2].id = "c.held";
    apps[2].directLocked = apps[2].muteWhileBypassed = true;
    apps[3].id = "d.direct";
    apps[3].directLocked = apps[3].muted = true;
    AudioSnapshot snapshot;
    snapshot.resolved = {{"b.unity", {true, false}}, {"e.other", {}}, {"f.agent", {true, false}}};
    auto regular = [](const std::string& id) { return id != "f.agent"; };
    EXPECT_EQ(OutputEligibility::standingControl(apps, std::nullopt, snapshot, regular),
              (IDSet{"a.half", "c.held"}));
    EXPECT_EQ(OutputEligibility::standingControl(apps, IDSet{"b.unity"}, snapshot, regular),
              (IDSet{"a.half", "c.held", "e.other"}));
}

// An app that reports running output but plays digital silence keeps its tap no longer than the
// idle limit, and is not tapped again until it has stopped playing once.
TEST(OutputEligibility, SilentAppIsHeldBackUntilItStopsPlaying) {
    test::SimLaptop laptop;
    auto provider = laptop.makeProvider();
    const std::string agent = "com.example.SyncAgent", music = "com.apple.Music";
    OutputEligibility eligibility;
    auto snapshotPass = [&](std::vector<std::string> engaged) {
        const auto playing =
            TonaviTapProvider::audioSnapshot(*laptop.machine, laptop.workspace)->playingBundleIDs();
        eligibility.publish(IDSet(playing.begin(), playing.end()), engaged);
        return std::count(playing.begin(), playing.end(), agent) > 0;
    };
    snapshotPass({});
    ASSERT_EQ(eligibility.creationEligibility({}), (IDSet{agent, music}));
    auto silent = std::dynamic_pointer_cast<TonaviTapHandle>(provider->createTap(agent));
    auto tone = std::dynamic_pointer_cast<TonaviTapHandle>(provider->createTap(music));
    ASSERT_TRUE(silent && tone);
    laptop.clock->advance(21s);
    EXPECT_GT(silent->ioCallbackCount.load(), 7000u);
    EXPECT_EQ(silent->rawAudioCallbackCount.load(), 0u);
    EXPECT_EQ(tone->rawAudioCallbackCount.load(), tone->ioCallbackCount.load());
    ASSERT_TRUE(TapActivityWindow::isRawAudioInactive(silent->lastRawAudioAt, silent->createdAt,
                                                      laptop.wallNow(), 20));

    // The idle release, as the watchdog makes it: the agent still "plays", so it is held back.
    eligibility.releaseIdle(agent, snapshotPass({agent, music}));
    provider->destroyTap(silent);
    snapshotPass({music});
    EXPECT_FALSE(eligibility.noteRunningOutput(agent)) << "a running-output edge does not bring it back";
    EXPECT_EQ(eligibility.creationEligibility({}), (IDSet{music}));

    laptop.edit([&](SimWorld& w) { return w.setPlaying(agent, false, std::nullopt); });
    snapshotPass({music});
    EXPECT_TRUE(eligibility.outputSuppressedUntilPlaybackStops().empty()) << "stopped: forgiven";
    EXPECT_TRUE(eligibility.noteRunningOutput(agent));
    EXPECT_EQ(eligibility.creationEligibility({"x.standing"}), (IDSet{agent, music, "x.standing"}));
    eligibility.processExited(agent);
    EXPECT_EQ(eligibility.outputEligible(), (IDSet{music}));
}

} // namespace
} // namespace tonavi
