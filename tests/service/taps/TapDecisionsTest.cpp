// The pure decisions around a live tap: when its process group has drifted, when it has gone quiet,
// and which apps may get a tap, including the app that plays digital silence.

#include <gtest/gtest.h>

#include <limits>

#include "service/taps/OutputEligibility.hpp"
#include "service/taps/TapActivityWindow.hpp"
#include "tests/service/taps/TapTestSupport.hpp"

namespace tonavi {
namespace {

using namespace std::chrono_literals;
using IDSet = OutputEligibility::IDSet;

TEST(TapProcessIdentity, NeedsRefreshFollowsTheFirstRuleThatApplies) {
    // Bound: the app (object 10, pid 100) and its helper (11, 101), playing on device 50.
    const TapProcessIdentity bound{{10, 11}, {100, 101}, {50}, 100, {10}, {100}};
    struct Case {
        const char* what;
        TapProcessIdentity current;
        bool refresh;
    };
    const Case cases[] = {
        {"identical", bound, false},
        {"owner relaunched", {{10, 11}, {100, 101}, {50}, 200, {10}, {100}}, true},
        {"owner unknown now", {{10, 11}, {100, 101}, {50}, std::nullopt, {10}, {100}}, false},
        {"objects replaced", {{12, 13}, {100, 101}, {50}, 100, {}, {}}, true},
        {"helper gone", {{10}, {100}, {50}, 100, {10}, {100}}, false},
        {"helper started playing after creation", {{10, 11, 12}, {100, 101, 102}, {50}, 100, {12}, {102}}, true},
        {"known process plays again under a new pid", {{10, 11}, {100, 101, 103}, {50}, 100, {11}, {103}}, true},
        {"nothing plays", {{10, 11}, {100, 101}, {}, 100, {}, {}}, false},
        {"moved to another device", {{10, 11}, {100, 101}, {51}, 100, {10}, {100}}, true},
        {"also on another device", {{10, 11}, {100, 101}, {50, 51}, 100, {10}, {100}}, true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(bound.needsRefresh(c.current), c.refresh) << c.what;
}

TEST(TapActivityWindow, CountsFromTheLastSoundOrElseFromCreation) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    struct Case {
        double lastRaw, created, lastIO, now;
        std::optional<bool> recent; // within 2 s
        bool inactive;              // older than 20 s
    };
    const Case cases[] = {
        {0, 1000, 1000, 1001, true, false},    // never sounded, just made
        {0, 1000, 1000, 1021, false, true},    // never sounded, made long ago
        {1015, 1000, 1020, 1017, true, false}, // sounded 2 s ago: still recent
        {1015, 1000, 1020, 1017.5, false, false},
        {1015, 1000, 1020, 1036, false, true},
        {nan, 1000, 1000, 1001, std::nullopt, false},
        {0, 1000, inf, 1001, std::nullopt, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(TapActivityWindow::recentSignal(c.lastRaw, c.created, c.lastIO, c.now, 2.0), c.recent) << c.now;
        EXPECT_EQ(TapActivityWindow::isRawAudioInactive(c.lastRaw, c.created, c.now, 20.0), c.inactive) << c.now;
    }
}

TEST(OutputEligibility, StandingControlNeedsNoSound) {
    AppAudioState quiet, loud, held, free;
    quiet.id = "a.quiet";
    quiet.volume = 0.5;
    loud.id = "b.unity";
    held.id = "c.held";
    held.directLocked = true;
    held.muteWhileBypassed = true;
    free.id = "d.locked";
    free.directLocked = true;
    free.muted = true;
    AudioSnapshot snapshot;
    snapshot.resolved = {{"b.unity", {true, false}}, {"e.other", {false, false}}, {"f.agent", {true, false}}};
    const std::vector<AppAudioState> apps{quiet, loud, held, free};
    auto regular = [](const std::string& id) { return id != "f.agent"; };

    EXPECT_EQ(OutputEligibility::standingControl(apps, std::nullopt, snapshot, regular),
              (IDSet{"a.quiet", "c.held"}));
    // During solo every other running regular app needs a tap to be silenced.
    EXPECT_EQ(OutputEligibility::standingControl(apps, IDSet{"b.unity"}, snapshot, regular),
              (IDSet{"a.quiet", "c.held", "e.other"}));
}

// An app that reports running output but plays digital silence keeps a tap no longer than the idle
// limit, and is not tapped again until it has stopped playing once.
TEST(OutputEligibility, SilentAppIsHeldBackUntilItStopsPlaying) {
    test::SimLaptop laptop;
    auto provider = laptop.makeProvider();
    const std::string agent = "com.example.SyncAgent", music = "com.apple.Music";
    OutputEligibility eligibility;
    auto snapshotPass = [&](std::vector<std::string> engaged) {
        const auto snapshot = TonaviTapProvider::audioSnapshot(laptop.hardware, laptop.workspace);
        EXPECT_TRUE(snapshot);
        const auto playing = snapshot->playingBundleIDs();
        eligibility.publish(IDSet(playing.begin(), playing.end()), engaged);
        return IDSet(playing.begin(), playing.end());
    };

    snapshotPass({});
    ASSERT_EQ(eligibility.outputEligible(), (IDSet{agent, music}));
    auto silent = std::dynamic_pointer_cast<TonaviTapHandle>(provider->createTap(agent));
    auto tone = std::dynamic_pointer_cast<TonaviTapHandle>(provider->createTap(music));
    ASSERT_TRUE(silent && tone);
    snapshotPass({agent, music});
    laptop.advance(21s);

    // Both taps ran; only one of them ever carried sound.
    EXPECT_GT(silent->ioCallbackCount.load(), 0u);
    EXPECT_EQ(silent->rawAudioCallbackCount.load(), 0u);
    EXPECT_EQ(tone->rawAudioCallbackCount.load(), tone->ioCallbackCount.load());
    const double now = laptop.wallNow();
    EXPECT_TRUE(TapActivityWindow::isRawAudioInactive(silent->lastRawAudioAt, silent->createdAt, now, 20.0));
    EXPECT_FALSE(TapActivityWindow::isRawAudioInactive(now - 0.5, tone->createdAt, now, 20.0));

    // The idle release, as the watchdog makes it.
    auto playing = snapshotPass({agent, music});
    eligibility.releaseIdle(agent, playing.count(agent) > 0);
    provider->destroyTap(silent);
    snapshotPass({music});
    EXPECT_EQ(eligibility.creationEligibility({}), (IDSet{music}));
    EXPECT_FALSE(eligibility.noteRunningOutput(agent)) << "a running-output edge does not bring it back";
    EXPECT_EQ(eligibility.outputSuppressedUntilPlaybackStops(), (IDSet{agent}));

    // It stops, and is forgiven; when it plays again it is eligible again.
    laptop.edit([&](SimWorld& w) { return w.setPlaying(agent, false, std::nullopt); });
    snapshotPass({music});
    EXPECT_TRUE(eligibility.outputSuppressedUntilPlaybackStops().empty());
    EXPECT_EQ(eligibility.creationEligibility({}), (IDSet{music}));
    laptop.edit([&](SimWorld& w) { return w.setPlaying(agent, true, std::nullopt); });
    EXPECT_TRUE(eligibility.noteRunningOutput(agent));
    EXPECT_EQ(eligibility.creationEligibility({"x.standing"}), (IDSet{agent, music, "x.standing"}));

    eligibility.processExited(agent);
    EXPECT_EQ(eligibility.outputEligible(), (IDSet{music}));
}

} // namespace
} // namespace tonavi
