// Process discovery, eligibility and the watchdog of the runtime, on the simulated laptop: Music
// plays, Zoom records, Safari and its helper are quiet, a background agent "plays" digital silence.

#include "tests/service/RuntimeTestSupport.hpp"

#include <sstream>

using namespace tonavi;
using namespace tonavi::testing;
using R = TonaviRequest;

namespace {

const std::string agent = "com.example.SyncAgent";

void watchdogPass(RuntimeHarness& h) {
    h.runtime->serialQueue().sync([&] { h.runtime->watchdogPass(); });
}

bool suppressed(RuntimeHarness& h) {
    return h.runtime->serialQueue().syncResult(
        [&] { return h.runtime->outputSuppressedUntilPlaybackStops().contains(agent); });
}

// Runs everything queued for tap work, then what that queued on the runtime's queue, then the tap work
// that queued in turn. Each drain has a key of its own, so it is never folded into another pass.
void drainTapWork(RuntimeHarness& h) {
    static std::atomic<int> drains{0};
    for (int round = 0; round < 2; ++round) {
        auto ran = std::make_shared<std::atomic<bool>>(false);
        h.runtime->scheduleTapWork("@drain-" + std::to_string(drains++), [ran] { ran->store(true); });
        ASSERT_TRUE(waitUntil([&] { return ran->load(); }));
        h.runtime->serialQueue().sync([] {});
    }
}

// Safari under control with its tap made, on a fresh discovery.
void tapSafari(RuntimeHarness& h) {
    h.startReady();
    ASSERT_TRUE(h.send(R::SetAppVolume{safari, 0.5}).ok);
    h.settleDiscovery();
    drainTapWork(h);
    ASSERT_TRUE(h.runtime->engine().hasTap(safari));
}

} // namespace

TEST(Watchdog, AnIdleTapWithoutRowControlGoesAndStaysOffWhileTheAppPlaysSilence) {
    RuntimeHarness h;
    h.startReady();
    ASSERT_TRUE(h.send(R::SetAppVisible{agent, true}).ok); // a row that asks for nothing
    h.settleDiscovery();
    TonaviRuntime& rt = *h.runtime;
    rt.serialQueue().sync([&] { rt.engine().setForceEngaged({agent}, {}); });
    drainTapWork(h);
    ASSERT_TRUE(rt.engine().hasTap(agent));

    h.provider->source[agent] = h.provider->target[agent] = speakers; // nothing to heal
    h.provider->idle[agent] = 20.0;                                   // not yet
    watchdogPass(h);
    EXPECT_TRUE(rt.engine().hasTap(agent));

    h.provider->idle[agent] = 20.5;
    watchdogPass(h);
    drainTapWork(h);
    EXPECT_FALSE(rt.engine().hasTap(agent)) << h.log();
    EXPECT_EQ(occurrences(h.log(), "tonavi: released idle output tap for " + agent), 1);
    // (A reconcile that was under way may still have made one, which the engine let go at once.)
    EXPECT_EQ(h.provider->taps.liveCount(), 0);
    const int calls = h.provider->taps.createCalls(agent);

    // It still reports running output, so the next snapshot does not tap it again ...
    h.wall = h.wall + 2.0;
    h.settleDiscovery();
    drainTapWork(h);
    EXPECT_EQ(h.provider->taps.createCalls(agent), calls);
    EXPECT_EQ(h.provider->taps.liveCount(), 0);
    EXPECT_TRUE(suppressed(h));

    // ... until it stopped once.
    h.edit([](SimWorld& w) { return w.setPlaying(agent, false, std::nullopt); });
    h.wall = h.wall + 2.0;
    h.settleDiscovery();
    EXPECT_FALSE(suppressed(h));
}

TEST(Watchdog, SelfHealNamesTheFirstReasonAndRetriesAsTheBackoffAllows) {
    // Rows: name, the tap's source and target, a redirect, a stale IO path, whether the browser's
    // helper starts playing after the tap was made, the reason (none: no heal).
    const std::tuple<const char*, std::string, std::string, std::string, bool, bool, std::string> cases[] = {
        {"dead io first", speakers, "Gone:1", "", true, false, "io path stale"},
        {"target unplugged", speakers, "Gone:1", "", false, false, "device vanished"},
        {"redirect is back", speakers, speakers, usb, false, false, "device returned"},
        {"default moved", usb, speakers, "", false, false, "default output moved"},
        {"a helper plays later", speakers, speakers, "", false, true, "app audio client changed"},
        {"all in place", speakers, speakers, "", false, false, ""},
    };
    for (const auto& [name, source, target, redirect, stale, helperPlays, reason] : cases) {
        SCOPED_TRACE(name);
        RuntimeHarness h;
        tapSafari(h);
        if (!redirect.empty()) {
            ASSERT_TRUE(h.send(R::SetAppRedirect{safari, redirect}).ok);
            drainTapWork(h);
        }
        h.provider->source[safari] = source;
        h.provider->target[safari] = target;
        if (stale)
            h.provider->stale.insert(safari);
        if (helperPlays) {
            watchdogPass(h); // the group the tap was made with
            h.edit([](SimWorld& w) { return w.setPlaying("com.apple.WebKit.GPU", true, std::nullopt); });
            h.wall = h.wall + 2.0;
            h.settleDiscovery();
        }

        const std::string line =
            "tonavi: self-heal rebuilding " + safari + " (" + reason + ", bounded retry)";
        watchdogPass(h);
        watchdogPass(h); // the same issue at the same moment waits for its delay
        EXPECT_EQ(occurrences(h.log(), "self-heal rebuilding"), reason.empty() ? 0 : 1);
        if (reason.empty())
            continue;
        EXPECT_EQ(occurrences(h.log(), line), 1);

        h.wall = h.wall + 2.0; // the first delay is over
        watchdogPass(h);
        EXPECT_EQ(occurrences(h.log(), line), 2);

        h.wall = h.wall + 7.0; // discovery older than six seconds is no basis for rebuilding
        watchdogPass(h);
        EXPECT_EQ(occurrences(h.log(), line), 2);
    }
}

// A format change of the device under a tap is seen by the device listeners, which rebuild that tap
// before any watchdog pass.
TEST(Watchdog, AFormatChangeUnderATapRebuildsItFromTheDeviceListeners) {
    RuntimeHarness h;
    tapSafari(h);
    h.provider->source[safari] = h.provider->target[safari] = speakers;
    ASSERT_TRUE(h.send(R::SetDeviceSampleRate{speakers, 44100.0}).ok);
    EXPECT_TRUE(h.advanceUntil(
        [&] { return h.logged("tonavi: output format/topology changed; refreshing 1 affected tap(s)"); }));
    EXPECT_EQ(h.timesLogged("self-heal rebuilding"), 0);
}

TEST(Discovery, StatusShowsWhoPlaysAndRecordsAndATapWhoseProcessesAreGoneIsReleasedOnTrustedDiscovery) {
    RuntimeHarness h;
    h.provider->levels[safari] = 0.3;
    tapSafari(h);
    const TonaviStatus status = *h.send(R::Status{}).status;

    // Safari's helper is folded into it; a background agent is no audio app.
    const std::set<std::string> watched = {"com.apple.Music", "us.zoom.xos", safari, "com.apple.WebKit.GPU",
                                           agent};
    std::ostringstream seen;
    for (const auto& a : status.apps)
        if (watched.contains(a.id))
            seen << a.id << (a.isPlayingAudio ? " plays" : "")
                 << (a.isCapturingAudio ? (*a.isCapturingAudio ? " records" : "") : " unknown")
                 << (a.engaged ? " engaged" : "") << " " << a.level << "; ";
    EXPECT_EQ(seen.str(), "com.apple.Safari engaged 0.3; com.apple.Music plays 0; us.zoom.xos records 0; ");
    auto music = std::ranges::find(status.apps, "com.apple.Music", &AppLiveStatus::id);
    EXPECT_EQ(music->displayName + " " + std::to_string(music->pid.value_or(0)) + " on " +
                  status.defaultOutputUID + " of " + std::to_string(status.devices.size()),
              "Music 4103 on BuiltInSpeakerDevice of 6");

    // Safari pauses and plays again: an onset on the trail.
    const auto onTrail = [&] {
        const auto onsets = h.send(R::Status{}).status->recentOnsets.value_or(std::vector<AudioOnset>{});
        return std::ranges::count(onsets, safari, &AudioOnset::id);
    };
    for (const bool playing : {false, true}) {
        h.edit([&](SimWorld& w) { return w.setPlaying(safari, playing, {}); });
        h.wall = h.wall + 7.0;
        watchdogPass(h);
        h.settleDiscovery();
    }
    EXPECT_EQ(onTrail(), 1);

    // Safari quits.
    h.provider->source[safari] = h.provider->target[safari] = speakers;
    const TapHandlePtr handle = h.runtime->engine().tapHandle(safari);
    h.edit([](SimWorld& w) { return w.quit(safari); });

    // The last trusted snapshot still has Safari's processes; a stale one is no basis for a release.
    h.wall = h.wall + 7.0;
    watchdogPass(h);
    drainTapWork(h);
    EXPECT_EQ(h.provider->taps.destroyCount(handle), 0);

    // (This fake provider taps an app without processes again at once; the real one cannot.)
    h.settleDiscovery();
    watchdogPass(h);
    drainTapWork(h);
    EXPECT_EQ(h.provider->taps.destroyCount(handle), 1);
    const auto health = h.runtime->engine().healthLog();
    EXPECT_TRUE(std::any_of(health.begin(), health.end(), [](const HealthEvent& e) {
        return e.kind == "tap-released" && e.detail.find("process exited") != std::string::npos;
    }));
    EXPECT_EQ(onTrail(), 0) << "an app that has exited leaves the trail";
}
