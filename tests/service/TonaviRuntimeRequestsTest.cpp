// The app requests, their refusals and the status they answer with.

#include "core/engine/TonaviTapSafety.hpp"
#include "core/wire/TonaviPayload.hpp"
#include "tests/service/RuntimeTestSupport.hpp"
#include "tests/support/TestPlugins.hpp"

#include <gtest/gtest.h>

#include <future>
#include <sstream>

using namespace tonavi;
using namespace tonavi::testing;
using R = TonaviRequest;

namespace {

bool listed(const TonaviReply& reply, const std::string& id) {
    return reply.status &&
           std::ranges::find(reply.status->apps, id, &AppLiveStatus::id) != reply.status->apps.end();
}

// A harness over a store that already holds `persisted`.
void startWith(RuntimeHarness& h, const TonaviConfig& persisted, bool ready = true) {
    h.store->save(persisted);
    ready ? (void)h.startReady() : (void)h.start();
}

} // namespace

TEST(AppRequests, ValuesAreClampedToTheirRanges) {
    using Read = double (*)(const AppAudioState&);
    const Read volume = [](const AppAudioState&a) { return a.volume; },
               boost = [](const AppAudioState&a) { return a.chain.overdrive.multiplier; },
               mutedFor = [](const AppAudioState&a) {
                   return a.timedMuteUntil.value_or(0) - 1'700'000'000.0;
               };
    const std::tuple<const char*, R::Value, Read, double> cases[] = {
        {"volume above one", R::SetAppVolume{safari, 1.5}, volume, 1.0},
        {"boost above four", R::SetAppBoost{safari, 9.0}, boost, 4.0},
        {"timed mute below a second", R::SetTimedMute{safari, 0.2}, mutedFor, 1.0},
        {"timed mute above a day", R::SetTimedMute{safari, 100000.0}, mutedFor, 86400.0},
    };
    for (const auto& [name, request, read, expected] : cases) {
        SCOPED_TRACE(name);
        RuntimeHarness h;
        h.start();
        const TonaviReply reply = h.send(request);
        ASSERT_TRUE(reply.ok && listed(reply, safari)) << reply.message;
        for (const AppAudioState& a : {*h.runtime->engine().config().app(safari), *h.onDisk().app(safari)}) {
            EXPECT_DOUBLE_EQ(read(a), expected);
            EXPECT_FALSE(a.muted); // a timed mute is no mute
            if (read == volume) {
                EXPECT_DOUBLE_EQ(a.volumePerDevice.at(h.machine->world()->defaultOutputUID), expected);
                EXPECT_TRUE(a.controlAttached);
            }
        }
    }
}

TEST(AppRequests, MutationsKeepWhatTheyDoNotNameAndSoloEndsInStageModeOrWithItsApp) {
    RuntimeHarness h;
    h.start();
    auto row = [&] {
        const AppAudioState a = *h.runtime->engine().config().app(safari);
        std::ostringstream text;
        text << a.displayName << " volume " << a.volume << (a.muted ? " muted" : "")
             << (a.timedMuteUntil ? " timed" : "") << (a.muteWhileBypassed ? " held" : "")
             << (a.steadyVolume ? " steady" : "") << (a.controlAttached ? " attached" : "") << " devices "
             << a.volumePerDevice.size() << (EngagementEngine::isEngaged(a) ? " engaged" : "");
        return text.str();
    };
    // Every change reaches the workers at once, also when its save fails.
    h.failWrites = true;
    auto pushed = [&](TonaviRequest::Value value) {
        const int before = h.provider->syncs;
        return h.send(std::move(value)).ok && h.provider->syncs > before;
    };
    EXPECT_TRUE(pushed(R::SetAppVolume{safari, 0.5}));
    EXPECT_TRUE(pushed(R::SetTimedMute{safari, 60}));
    h.failWrites = false;
    // An explicit mute ends the timed one; the volume stays, and engaging an engaged app changes nothing.
    ASSERT_TRUE(h.send(R::SetAppMuted{safari, true}).ok);
    ASSERT_TRUE(h.send(R::EngageApp{safari}).ok);
    EXPECT_EQ(row(), "Safari volume 0.5 muted attached devices 1 engaged");
    // Back to neutral keeps steady volume and the display name.
    ASSERT_TRUE(h.send(R::SetAppSteadyVolume{safari, true}).ok);
    ASSERT_TRUE(h.send(R::DisengageApp{safari}).ok);
    EXPECT_EQ(row(), "Safari volume 1 steady devices 0 engaged"); // steady volume alone engages
    // A neutral app that is engaged by hand keeps 0.9999, which is still not engaged.
    ASSERT_TRUE(h.send(R::SetAppSteadyVolume{safari, false}).ok);
    ASSERT_TRUE(h.send(R::EngageApp{safari}).ok);
    EXPECT_EQ(row(), "Safari volume 0.9999 devices 0");

    // Solo is refused in stage mode, ends with an empty list or when its app is hidden. It claims taps
    // only for the audible apps it has to silence: Music plays, Zoom only records.
    h.settleDiscovery();
    ASSERT_TRUE(h.send(R::SetAppSolo{safari, true}).ok);
    EXPECT_EQ(h.runtime->engine().soloedBundleIDs(), EngagementEngine::IDSet{safari});
    const auto standing = h.runtime->serialQueue().syncResult([&] { return h.runtime->standingControl(); });
    EXPECT_TRUE(standing.contains(music) && !standing.contains("us.zoom.xos"));

    EXPECT_EQ(h.send(R::StageMode{true}).message,
              "stage mode ON: every tap released; muted apps are audible until you turn it off");
    EXPECT_EQ(h.send(R::SetSoloApps{{safari}}).message, "Turn off Bypass All before starting Solo.");
    EXPECT_TRUE(h.send(R::SetSoloApps{{}}).ok);
    EXPECT_FALSE(h.runtime->engine().soloActive());
    EXPECT_TRUE(h.onDisk().stageModePersisted);

    EXPECT_EQ(h.send(R::StageMode{false}).message, "stage mode off: every setting restored, mutes included");

    // Hiding an app ends its solo; restoring it brings the app back.
    ASSERT_TRUE(h.send(R::SetSoloApps{{safari, "com.google.Chrome"}}).ok);
    const TonaviReply hidden = h.send(R::SetAppVisible{safari, false});
    EXPECT_EQ(hidden.message, "Removed from Tonavi and returned to direct audio.");
    EXPECT_EQ(h.runtime->engine().soloedBundleIDs(), EngagementEngine::IDSet{"com.google.Chrome"});
    EXPECT_FALSE(listed(hidden, safari));
    EXPECT_EQ(h.onDisk().hiddenAppIDs, std::vector<std::string>{safari});
    const TonaviReply restored = h.send(R::SetAppVisible{safari, true});
    EXPECT_EQ(restored.message, "App restored to Tonavi.");
    EXPECT_TRUE(listed(restored, safari));
    EXPECT_TRUE(h.onDisk().hiddenAppIDs.empty());
}

TEST(AppRequests, RefusalsChangeNothingAndSayWhy) {
    const std::string routing = *TonaviTapSafety::blockedBundleIDs().begin();
    const std::tuple<const char*, R::Value, const char*> cases[] = {
        {"capture of a routing process", R::SetAppVolume{routing, 0.5},
         "That process is audio-routing infrastructure and cannot be captured."},
        {"change of a hidden app", R::SetAppMuted{"com.hidden.App", true},
         "Restore this app from Add App before changing it."},
        {"solo of a routing process", R::SetSoloApps{{safari, routing}},
         "Audio-routing infrastructure cannot be soloed."},
        {"adding a routing process", R::SetAppVisible{routing, true},
         "That routing process cannot be added to Tonavi."},
        {"removing a routing process", R::SetAppVisible{routing, false},
         "That routing process cannot be added to Tonavi."},
        {"an order with a duplicate", R::SetAppDisplayOrder{{safari, "com.google.Chrome", safari}},
         "App order contains duplicate entries."},
    };
    for (const auto& [name, request, message] : cases) {
        SCOPED_TRACE(name);
        RuntimeHarness h;
        TonaviConfig persisted = TonaviConfig::firstRunDefaults();
        persisted.hiddenAppIDs.push_back("com.hidden.App");
        startWith(h, persisted, false);
        h.settleDiscovery();
        const TonaviConfig before = h.runtime->engine().config();
        const std::string diskBefore = readText(h.store->configURL());
        const TonaviReply reply = h.send(request);
        EXPECT_EQ(std::tuple(reply.ok, reply.message, reply.status.has_value()),
                  std::tuple(false, message, true));
        EXPECT_EQ(h.runtime->engine().config(), before);
        EXPECT_EQ(readText(h.store->configURL()), diskBefore);
        EXPECT_FALSE(h.runtime->engine().soloActive());
    }
}

TEST(AppRequests, DisplayOrderMergesTheVisibleOrderIntoTheFullOne) {
    RuntimeHarness h;
    TonaviConfig persisted;
    for (const char* id : {"a.One", "b.Two", "c.Three", "d.Four"}) {
        AppAudioState app(id);
        app.displayRank = static_cast<std::int64_t>(persisted.apps.size());
        persisted.apps.push_back(app);
    }
    startWith(h, persisted, false);
    // The client shows only Four and Two, swapped, and a new app.
    ASSERT_TRUE(h.send(R::SetAppDisplayOrder{{"d.Four", "b.Two", "e.Five"}}).ok);
    std::map<std::string, std::int64_t> ranks;
    for (const auto& app : h.onDisk().apps)
        ranks[app.id] = app.displayRank.value_or(-1);
    EXPECT_EQ(ranks, (std::map<std::string, std::int64_t>{
                         {"a.One", 0}, {"d.Four", 1}, {"c.Three", 2}, {"b.Two", 3}, {"e.Five", 4}}));
    EXPECT_EQ(h.runtime->engine().config().app("e.Five")->displayName, "Five");
}

TEST(AppRequests, DirectLocksAndLockedLanesHoldAgainstRequestsYetAMuteStillSilences) {
    RuntimeHarness h;
    const std::string chrome = "com.google.Chrome", spotify = "com.spotify.client";
    TonaviConfig persisted = TonaviConfig::firstRunDefaults();
    persisted.app(chrome)->directLocked = true;
    persisted.apps.push_back(AppAudioState(spotify));
    persisted.apps.back().directLocked = true;
    persisted.lanes.push_back({"lane-1", chrome, "lane-device", true});
    startWith(h, persisted);

    // A mute on a direct-locked app keeps it eligible for a silencing tap ...
    ASSERT_TRUE(h.send(R::SetAppMuted{chrome, true}).ok);
    EXPECT_TRUE(h.runtime->engine().config().app(chrome)->muteWhileBypassed);
    ASSERT_TRUE(waitUntil([&] { return h.runtime->engine().hasTap(chrome); }));
    // ... without the mute a direct-locked app stays direct, whatever else its row says.
    ASSERT_TRUE(h.send(R::SetAppVolume{spotify, 0.2}).ok);
    h.runtime->engine().reconcile();
    EXPECT_FALSE(h.runtime->engine().hasTap(spotify));

    // A redirect to another app's locked lane is refused.
    ASSERT_TRUE(h.send(R::SetAppRedirect{safari, "free-device"}).ok);
    ASSERT_TRUE(waitUntil([&] { return h.provider->taps.createCalls(safari) >= 1; }));
    const int before = h.provider->taps.createCalls(safari);

    EXPECT_EQ(h.send(R::SetAppRedirect{safari, "lane-device"}).message,
              "that device is a locked lane for another app");
    EXPECT_EQ(h.runtime->engine().config().app(safari)->redirectUID, "free-device");
    // The refresh was asked for: a provider that cannot say where a tap is bound rebuilds it.
    ASSERT_TRUE(waitUntil([&] { return h.provider->taps.createCalls(safari) > before; }));
}

// Pollers get the same encoded bytes until something the status shows moves, or until they age. A
// poll never waits for serialQueue behind a change the machine made, but always sees a change a
// client has been answered for.
TEST(Status, TheEncodedReplyIsReusedUntilWhatItShowsMovesOrItAges) {
    RuntimeHarness h;
    h.startReady();
    h.settleDiscovery();
    auto volumeIn = [](const std::shared_ptr<const std::string>& bytes) {
        const TonaviReply reply = decodeReply(*bytes);
        for (const auto& app : reply.status.value().apps)
            if (app.id == safari)
                return app.volume;
        return -1.0;
    };
    // A poll after the queued rebuild has run.
    auto pollRebuilt = [&] {
        h.runtime->encodedStatusReply();
        h.runtime->serialQueue().sync([] {});
        return h.runtime->encodedStatusReply();
    };
    // Holds serialQueue until the returned promise is kept: a poll that waited would never return.
    auto blockSerialQueue = [&] {
        auto release = std::make_shared<std::promise<void>>();
        std::promise<void> entered;
        h.runtime->serialQueue().async([gate = release->get_future().share(), &entered] {
            entered.set_value();
            gate.wait();
        });
        entered.get_future().wait();
        return release;
    };
    const auto first = pollRebuilt();
    EXPECT_EQ(h.runtime->encodedStatusReply(), first);
    const TonaviReply built = h.send(R::Status{});
    EXPECT_EQ(decodeReply(*first), built);
    // The output's cycle, and a playing known audio app as the process list and the workspace see it.
    EXPECT_EQ(built.status->bufferFrames, 512);
    const auto player = std::ranges::find(built.status->apps, music, &AppLiveStatus::id);
    ASSERT_NE(player, built.status->apps.end());
    EXPECT_EQ(std::tuple(player->pid, player->isRunning, player->isUserApp, player->audioCapable),
              std::tuple(4103, true, true, std::optional<bool>(true)));

    // The answered change is in the very next poll, with serialQueue busy.
    h.send(R::SetAppVolume{safari, 0.3});
    auto release = blockSerialQueue();
    const auto afterVolume = h.runtime->encodedStatusReply();
    EXPECT_DOUBLE_EQ(volumeIn(afterVolume), 0.3);
    // A change of the machine's: the poll still answers at once, with what it had.
    h.runtime->statusInputsChanged();
    EXPECT_EQ(h.runtime->encodedStatusReply(), afterVolume);
    release->set_value();
    EXPECT_NE(pollRebuilt(), afterVolume);

    h.send(R::StageMode{true}); // a health event and the stage flag
    const auto afterStage = h.runtime->encodedStatusReply();
    EXPECT_TRUE(decodeReply(*afterStage).status->stageMode);
    // A change answered off serialQueue makes the next poll wait for a status built after it.
    h.runtime->statusMustShowChangesSoFar();
    const auto afterAnswer = h.runtime->encodedStatusReply();
    EXPECT_NE(afterAnswer, afterStage);

    h.wall = h.wall + 0.4;
    EXPECT_EQ(h.runtime->encodedStatusReply(), afterAnswer);
    h.wall = h.wall + 0.2; // older than half a second: ages and recent signals are read again
    EXPECT_NE(pollRebuilt(), afterAnswer);
    const auto aged = h.runtime->encodedStatusReply();
    h.wall = h.wall + 1.1; // too old to hand out even once
    release = blockSerialQueue();
    std::future<std::shared_ptr<const std::string>> waited =
        std::async(std::launch::async, [&] { return h.runtime->encodedStatusReply(); });
    EXPECT_EQ(waited.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    release->set_value();
    EXPECT_NE(waited.get(), aged);
}

TEST(Status, HealthCarriesTheNewestTwentyDiagnosticsAllAndShutdownNone) {
    RuntimeHarness h;
    h.provider->taps.failAlways(safari, true);
    h.startReady();
    // Every stage toggle logs a health event.
    for (int i = 0; i < 12; ++i) {
        h.send(R::StageMode{true});
        h.send(R::StageMode{false});
    }
    const std::vector<HealthEvent> all = h.runtime->engine().healthLog();
    ASSERT_GT(all.size(), 20u);
    EXPECT_EQ(h.send(R::Status{}).status->health, std::vector(all.end() - 20, all.end()));

    const TonaviReply diagnostics = h.send(R::Diagnostics{});
    ASSERT_TRUE(diagnostics.ok && diagnostics.payload);
    const Diagnostics document = TonaviPayload::decodeDiagnostics(*diagnostics.payload);
    EXPECT_EQ(document.version, "9.9-test");
    EXPECT_EQ(document.healthLog, all);
    EXPECT_EQ(document.config, h.runtime->engine().config());

    // The plug-in catalogue comes from the descriptions on LV2_PATH; only the first list scans.
    test::useTestPlugins();
    for (int i = 0; i < 2; ++i) {
        const TonaviReply list = h.send(R::ListAudioUnits{});
        ASSERT_TRUE(list.ok && list.payload) << list.message;
        const auto units = TonaviPayload::decodeAudioUnits(*list.payload);
        EXPECT_EQ(std::ranges::count_if(units, [](const AudioUnitInfo& u) {
                      return u.key.name == "Test Gain" && u.key.manufacturerName == "Tonavi Tests" &&
                             u.id.starts_with("1635083896-");
                  }),
                  1);
    }
    const std::string log = h.log();
    EXPECT_EQ(log.find("tonavi: AU rescan found"), log.rfind("tonavi: AU rescan found"));
    const TonaviReply shutdown = h.send(R::Shutdown{});
    EXPECT_EQ(std::tuple(shutdown.ok, shutdown.message, shutdown.status.has_value()),
              std::tuple(true, "audio returned to the OS", false));
}
