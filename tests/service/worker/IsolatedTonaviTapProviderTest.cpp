// The service's side of the tap workers, against scripts that play a worker's part over the real
// pipes: readiness, garbage, time-outs, crashes with their backoff, and stopping.

#include "service/worker/IsolatedTonaviTapProvider.hpp"

#include "WorkerTestSupport.hpp"
#include "base/Log.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <future>
#include <mutex>
#include <sstream>

using namespace tonavi;
using namespace tonavi::testing;
using namespace std::chrono_literals;

namespace {

// Counts its launches, fails while "$DIR/fail" exists, records what it receives, answers "ready"
// and ends on "stop".
const char* readyWorker = R"(echo launched >> "$DIR/launches"
if [ -f "$DIR/fail" ]; then exit 1; fi
read line; echo "$line" >> "$DIR/received-$2"
printf '{"kind":"ready","level":0.0,"sampleRate":48000.0,"tapBufferFrames":128,"outputBufferFrames":512,"sourceDeviceUID":"Speakers","targetDeviceUID":"Headphones","lastIOAt":1000.0}\n'
while read line; do
  echo "$line" >> "$DIR/received-$2"
  case "$line" in *'"action":"stop"'*) exit 0;; esac
done)";

class IsolatedProviderTest : public ::testing::Test {
  protected:
    void SetUp() override { Log::setFilePathForTesting(folder.path + "/service.log"); }

    template <class F> auto locked(F&& f) {
        std::lock_guard guard(mutex);
        return f();
    }
    std::shared_ptr<IsolatedTonaviTapProvider> makeProvider(const std::string& executable,
                                                            std::chrono::milliseconds readyTimeout = 10s,
                                                            std::chrono::milliseconds stallLimit = 60s) {
        auto provider = std::make_shared<IsolatedTonaviTapProvider>(IsolatedTonaviTapProvider::Environment{
            .mayCapture = [](std::string_view id) { return id != "com.rogueamoeba.Loopback"; },
            .processGroup =
                [](const std::string& id) {
                    TonaviTapProvider::ProcessGroup group;
                    group.identity.objects = {41};
                    if (id != "com.example.silent")
                        group.objects = {41};
                    return group;
                },
            .defaultOutputUID = [this] { return locked([&] { return defaultOutput; }); },
            .deviceID = [](const std::string& uid) { return uid.empty() ? 0u : 7u; },
            .now = [this] { return now.load(); },
            .uptime = [this] { return uptime.load(); },
            .executable = executable,
            .readyTimeout = readyTimeout,
            .stallLimit = stallLimit});
        provider->setHooks(
            {.workerState =
                 [this](const std::string& id) {
                     TapWorkerState state;
                     state.app = AppAudioState(id);
                     state.app.volume = locked([&] { return volume; });
                     return state;
                 },
             .heard = [this](const std::string&) { ++activity; },
             .tapFailed =
                 [this](const std::string& id, const std::string& message, const TapHandlePtr& handle) {
                     locked([&] { failures.push_back({id, message, handle}); });
                 }});
        return provider;
    }
    // What the provider mirrors of a worker's metrics, in one line.
    static std::string metrics(ServiceTapProvider& p, const std::string& id) {
        const auto frames = p.bufferFrames(id).value_or(ServiceTapProvider::BufferFrames{});
        std::ostringstream out;
        out << p.sampleRate(id) << " Hz, " << frames.tap << "/" << frames.output << " frames, "
            << p.sourceDevice(id).value_or("-") << " -> " << p.targetDevice(id).value_or("-") << ", level "
            << p.level(id);
        return out.str();
    }
    std::string log() const { return folder.read("service.log"); }
    bool logged(const std::string& line) const { return log().find(line) != std::string::npos; }
    std::size_t failureCount() {
        return locked([&] { return failures.size(); });
    }

    ScratchFolder folder;
    std::mutex mutex;
    std::string defaultOutput = "Speakers";
    double volume = 0.5;
    std::vector<std::tuple<std::string, std::string, TapHandlePtr>> failures;
    std::atomic<double> now{1000.0};
    std::atomic<double> uptime{50.0};
    std::atomic<int> activity{0};
};

} // namespace

// A change made while a worker starts up reaches it as soon as it is ready, without another push.
TEST_F(IsolatedProviderTest, ALiveWorkerGetsTheStateChangedWhileItStartedMirrorsItsMetricsAndStopsCleanly) {
    // Answers "ready" only once the test has changed the state behind the one it was started with.
    const std::string slowReady = std::string(readyWorker).replace(
        std::string(readyWorker).find("printf"), 0, "while [ ! -f \"$DIR/go\" ]; do sleep 0.01; done\n");
    auto provider = makeProvider(folder.script("worker", slowReady));
    auto created = std::async(std::launch::async, [&] { return provider->createTap("com.example.player"); });
    const auto received = [&](int lines) {
        EXPECT_TRUE(eventually([&] { return folder.lineCount("received-com.example.player") == lines; }, 5s));
        return folder.read("received-com.example.player");
    };
    EXPECT_NE(received(1).find("\"volume\":0.5"), std::string::npos);
    locked([&] { volume = 0.8; });
    std::ofstream(folder.path + "/go").put('\n');
    auto handle = std::dynamic_pointer_cast<IsolatedTapHandle>(created.get());
    ASSERT_TRUE(handle);
    const std::string two = received(2);
    EXPECT_NE(two.find("\"volume\":0.8", two.find('\n')), std::string::npos) << two;

    EXPECT_EQ(provider->liveHandle("com.example.player"), handle);
    EXPECT_EQ(metrics(*provider, "com.example.player"),
              "48000 Hz, 128/512 frames, Speakers -> Headphones, level 0");
    EXPECT_EQ(metrics(*provider, "com.example.other"), "0 Hz, 0/0 frames, - -> -, level 0");
    now = 1005.0;
    EXPECT_EQ(provider->secondsSinceRawAudio("com.example.player"), 5.0)
        << "no sound yet: counted from creation";
    EXPECT_FALSE(provider->ioStale("com.example.player", 6.0));
    now = 1006.5;
    EXPECT_TRUE(provider->ioStale("com.example.player", 6.0));
    EXPECT_TRUE(
        logged("tonavi: isolated tap helper " + std::to_string(handle->pid()) + " owns com.example.player"));

    locked([&] { volume = 0.9; });
    provider->syncStates();
    const std::string three = received(3);
    EXPECT_NE(three.find("\"volume\":0.9", two.size()), std::string::npos) << three;

    provider->destroyTap(handle);
    EXPECT_EQ(provider->liveHandle("com.example.player"), nullptr);
    EXPECT_TRUE(eventually([&] { return handle->process->terminationStatus() == 0; }, 5s));
    EXPECT_NE(folder.read("received-com.example.player").find("{\"action\":\"stop\"}"), std::string::npos);
    EXPECT_TRUE(logged("tonavi: isolated tap helper released com.example.player; direct path restored"));
    EXPECT_EQ(failureCount(), 0u) << "a worker that exits on stop is no failure";
}

TEST_F(IsolatedProviderTest, GarbageFromAWorkerIsSkippedAndSplitOrJoinedLinesStillCount) {
    // Garbage, a line longer than any event, a mistyped metric, a metric split over two writes,
    // then two events in one write.
    auto provider = makeProvider(folder.script("worker", R"(read line
printf 'not json\n\001\002\n'
head -c 3000000 /dev/zero | tr '\0' x; printf '\n'
printf '{"kind":"metrics","sampleRate":"fast"}\n{"kind":"metr'
printf 'ics","level":0.9,"tapBufferFrames":64}\n'
printf '{"kind":"what"}\n{"kind":"ready","outputBufferFrames":256}\n'
while read line; do case "$line" in *stop*) exit 0;; esac; done)"));
    auto handle = provider->createTap("com.example.player");
    ASSERT_TRUE(handle);
    // A mistyped field is not believed.
    EXPECT_EQ(metrics(*provider, "com.example.player"), "0 Hz, 64/256 frames,  -> , level 0.9");
    EXPECT_EQ(activity.load(), 1);
    provider->destroyTap(handle);
}

TEST_F(IsolatedProviderTest, AStartThatFailsOrNeedNotHappenLeavesNoWorkerAndSaysWhy) {
    const std::pair<const char*, const char*> cases[] = {
        {R"(read line; printf '{"kind":"failure","message":"Core Audio tap creation failed"}\n'; exit 66)",
         "Core Audio tap creation failed"},
        {R"(read line; printf '{"kind":"failure"}\n'; read line)", "tap helper failed"},
        {"read line; exit 3", "tap helper exited with status 3"},
        {"exec cat > /dev/null", "tap helper start timed out"},
        {"trap '' TERM; read line; exec sleep 30", "tap helper start timed out"},
    };
    int n = 0;
    for (const auto& [script, cause] : cases) {
        const std::string id = "com.example.app" + std::to_string(n);
        auto provider = makeProvider(folder.script("worker" + std::to_string(n++), script), 400ms);
        EXPECT_EQ(provider->createTap(id), nullptr) << script;
        EXPECT_TRUE(logged("tonavi: isolated tap helper failed for " + id + ": " + cause)) << script << "\n"
                                                                                           << log();
        EXPECT_EQ(provider->liveHandle(id), nullptr);
    }
    // Nothing is launched for an app that may not or need not be tapped.
    auto refusing = makeProvider(folder.script("worker", readyWorker));
    EXPECT_EQ(refusing->createTap("com.rogueamoeba.Loopback"), nullptr);
    EXPECT_EQ(refusing->createTap("com.example.silent"), nullptr);
    refusing->setHooks({.workerState = [](const std::string&) { return std::optional<TapWorkerState>(); }});
    EXPECT_EQ(refusing->createTap("com.example.player"), nullptr);
    EXPECT_EQ(folder.lineCount("launches"), 0);

    auto missing = makeProvider(folder.path + "/no-such-worker");
    EXPECT_EQ(missing->createTap("com.example.player"), nullptr);
    EXPECT_TRUE(logged(
        "tonavi: could not launch isolated tap helper for com.example.player: No such file or directory"));
    EXPECT_EQ(failureCount(), 0u);
}

TEST_F(IsolatedProviderTest, AKilledWorkerIsReportedOnceAndFailingRestartsFollowTheBackoff) {
    auto provider = makeProvider(folder.script("worker", readyWorker), 2s);
    auto handle = provider->createTap("com.example.player");
    auto worker = std::dynamic_pointer_cast<IsolatedTapHandle>(handle);
    ASSERT_TRUE(worker);
    ::kill(worker->pid(), SIGKILL);
    ASSERT_TRUE(eventually([&] { return failureCount() == 1; }, 5s));
    EXPECT_EQ(locked([&] { return failures[0]; }),
              std::make_tuple(std::string("com.example.player"),
                              std::string("isolated tap helper exited (status 9); direct audio restored"),
                              handle));
    EXPECT_TRUE(provider->ioStale("com.example.player", 6.0)) << "a dead worker's IO is stale at once";
    provider->destroyTap(handle); // what the engine's release does with the failure

    std::ofstream(folder.path + "/fail") << "1";
    const double start = uptime.load();
    // Same cause: held off by the backoff (whose doubling is its own test). The first attempt after a
    // success goes at once.
    const std::pair<double, bool> attempts[] = {{0, true}, {1.9, false}, {2.0, true}, {5.9, false}};
    int launches = folder.lineCount("launches");
    for (const auto& [at, launched] : attempts) {
        uptime = start + at;
        EXPECT_EQ(provider->createTap("com.example.player"), nullptr);
        launches += launched;
        EXPECT_EQ(folder.lineCount("launches"), launches) << "at +" << at;
    }
    locked([&] { defaultOutput = "Headphones"; });
    EXPECT_EQ(provider->createTap("com.example.player"), nullptr);
    EXPECT_EQ(folder.lineCount("launches"), launches + 1) << "a moved default output is a new cause";
    EXPECT_EQ(failureCount(), 1u) << "failed starts are not live failures";
}

TEST_F(IsolatedProviderTest, AWorkerThatIgnoresStopAndTermIsKilledAndAReplacedOneIsRetiredInTheBackground) {
    auto provider = makeProvider(folder.script(
        "stubborn", "trap '' TERM\nread line; printf '{\"kind\":\"ready\"}\\n'; exec sleep 60"));
    auto stubborn = std::dynamic_pointer_cast<IsolatedTapHandle>(provider->createTap("com.example.app"));
    auto replaced = std::dynamic_pointer_cast<IsolatedTapHandle>(provider->createTap("com.example.player"));
    ASSERT_TRUE(stubborn && replaced);
    provider->retireReplacedTap(replaced);
    provider->destroyTaps({stubborn});
    EXPECT_TRUE(eventually([&] { return stubborn->process->terminationStatus() == SIGKILL; }, 5s));
    EXPECT_TRUE(eventually([&] { return replaced->process->terminationStatus().has_value(); }, 5s));
    EXPECT_TRUE(eventually([&] { return provider->liveHandle("com.example.player") == nullptr; }, 5s));
    EXPECT_EQ(failureCount(), 0u);
}

// A worker that stops reading never blocks the one who writes to it: a thousand states go nowhere
// without waiting. A stopped worker that cannot take "stop" is ended by signals, and one that reads
// nothing for the stall limit is ended and reported as stalled.
TEST_F(IsolatedProviderTest, AWorkerThatStopsReadingNeverBlocksItsWriterAndIsEndedAsStalled) {
    auto deaf = makeProvider(folder.script("deaf", "read line; printf '{\"kind\":\"ready\"}\\n'; exec sleep 60"),
                             10s, 300ms);
    auto patient = makeProvider(folder.script("worker", readyWorker));
    auto unread = std::dynamic_pointer_cast<IsolatedTapHandle>(deaf->createTap("com.example.player"));
    auto stopped = std::dynamic_pointer_cast<IsolatedTapHandle>(patient->createTap("com.example.app"));
    ASSERT_TRUE(unread && stopped);
    ::kill(stopped->pid(), SIGSTOP);
    for (int i = 0; i < 1000; ++i) {
        locked([&] { volume = i / 1000.0; });
        deaf->syncStates();
        patient->syncStates();
    }
    ASSERT_TRUE(stopped->process->blockedFor()) << "the pipe must be full for this test to mean anything";

    patient->destroyTaps({stopped});
    EXPECT_TRUE(eventually([&] { return stopped->process->terminationStatus() == SIGTERM; }, 5s))
        << "a stopped worker is continued, so that it dies of TERM";
    EXPECT_EQ(folder.lineCount("received-com.example.app"), 1) << "it read nothing after its first state";

    ASSERT_TRUE(eventually([&] { return failureCount() == 1; }, 10s)) << log();
    EXPECT_EQ(locked([&] { return failures[0]; }),
              std::make_tuple(std::string("com.example.player"),
                              std::string("isolated tap helper stalled (it read nothing for 300 ms); direct audio restored"),
                              std::static_pointer_cast<TapHandle>(unread)));
    EXPECT_TRUE(logged("tonavi: isolated tap helper " + std::to_string(unread->pid()) +
                       " for com.example.player read nothing for 300 ms; stopping it"));
    EXPECT_TRUE(eventually([&] { return unread->process->terminationStatus() == SIGTERM; }, 5s));
    deaf->destroyTap(unread); // what the engine's release does with the failure
    EXPECT_EQ(deaf->liveHandle("com.example.player"), nullptr);
}
