// Per-application mixing on the simulated laptop with real processes: the service, its tap workers
// and tonavictl. Safari (through its helper) plays a 1 kHz tone at -12 dBFS, Music a 440 Hz tone. What
// a tap renders is read from the meters that the machine publishes in its world file.

#include "audio/effects/EQ10.hpp"
#include "audio/effects/EQPresets.hpp"
#include "core/wire/TonaviChannel.hpp"
#include "platform/sim/SimWorld.hpp"
#include "tests/integration/ChildProcess.hpp"
#include "tests/platform/support/Eventually.hpp"
#include "tests/support/TestPlugins.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <span>

using namespace tonavi;
using namespace tonavi::testing;
using namespace std::chrono_literals;

namespace {

const std::string safari = "com.apple.Safari";
const std::string music = "com.apple.Music";
const std::string speakers = "BuiltInSpeakerDevice";
const std::string headphones = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
constexpr double toneRMS = -12.0 - 3.0103; // a sine's RMS lies 3 dB under its peak

// A private world and home, the service running on them, and tonavictl to drive both. Safari plays
// before the service starts.
class Mix {
  public:
    Mix() {
        env_ = home_.env();
        env_["TONAVI_SIM_WORLD"] = worldPath();
        ctlOK({"sim", "init"});
        playSafari();
        service_ = startService(home_, env_);
    }
    void playSafari(int frequency = 1000) {
        ctlOK({"sim", "play", "com.apple.WebKit.GPU", "--freq", std::to_string(frequency), "--level", "-12"});
    }
    ~Mix() {
        if (service_.pid > 0)
            service_.stop();
    }

    auto ctl(const std::vector<std::string>& args) { return tonavi::testing::ctl(env_, args); }
    void ctlOK(const std::vector<std::string>& args) {
        const auto [status, out] = ctl(args);
        ASSERT_EQ(status, 0) << out;
    }
    std::string worldPath() const { return home_.home + "/world.json"; }
    SimWorld world() const {
        std::string error;
        auto parsed = simWorldFromJSON(nlohmann::json::parse(readFile(worldPath())), error);
        EXPECT_TRUE(parsed) << error;
        return parsed.value_or(SimWorld{});
    }
    // What the app's tap plays, from the newest published meter.
    std::optional<SimWorld::Meter> meterOf(const std::string& bundleID) const {
        for (const auto& m : world().meters)
            if (m.aggregateUID.starts_with("com.brelmoor.tonavi.agg." + bundleID + ".") && m.cycles > 0)
                return m;
        return std::nullopt;
    }
    // Waits until the app's tap plays at `rmsDB` on `device`, within `tolerance`.
    bool waitForLevel(const std::string& bundleID, double rmsDB, double tolerance,
                      const std::string& device = speakers) {
        return waitUntil(
            [&] {
                auto m = meterOf(bundleID);
                return m && m->deviceUID == device && std::abs(m->rmsDB - rmsDB) <= tolerance;
            },
            15s);
    }
    bool tapped(const std::string& bundleID) const {
        const SimWorld w = world();
        return std::ranges::any_of(w.processes, [&](const auto& p) {
            return (p.bundleID == bundleID || (bundleID == safari && p.bundleID == "com.apple.WebKit.GPU")) &&
                   w.isMutedByTap(p, w.effectiveDeviceUID(p, false));
        });
    }
    std::string log() const { return home_.logText(); }
    // Whether the status (as JSON) mentions the text.
    bool statusHas(const std::string& text) {
        return ctl({"status", "--json"}).second.find(text) != std::string::npos;
    }
    // The live tap workers of the app, children of this service.
    std::vector<int> workers(const std::string& bundleID) const { return workersOf(service_.pid, bundleID); }
    ChildProcess& service() { return service_; }
    // One request over the socket; a failure reply when it times out.
    TonaviReply send(TonaviRequest::Value value, double timeout = 2) {
        try {
            return TonaviChannel::send(home_.socketPath(), TonaviRequest{std::move(value)}, timeout);
        } catch (const std::exception& e) {
            return TonaviReply::failure(e.what());
        }
    }
    void forget() { service_.pid = -1; } // reaped: nothing to stop
    void restartService() {
        service_.stop();
        service_ = startService(home_, env_);
    }

  private:
    PrivateHome home_{"mix"};
    Env env_;
    ChildProcess service_;
};

// The samples of a 32-bit float WAV file, interleaved: all that follows the "data" chunk's header.
std::vector<float> readWav(const std::string& path) {
    const std::string bytes = readFile(path);
    const auto at = std::min(bytes.find("data"), bytes.size()) + 8;
    std::vector<float> samples(at < bytes.size() ? (bytes.size() - at) / sizeof(float) : 0);
    std::memcpy(samples.data(), bytes.data() + std::min(at, bytes.size()), samples.size() * sizeof(float));
    return samples;
}

float peak(std::span<const float> samples) {
    return std::abs(std::ranges::max(samples, {}, [](float x) { return std::abs(x); }));
}

// The gain of the Bass Booster preset's curve at one frequency, as the equaliser is configured.
double bassBoosterDB(double frequency) {
    kavore::EQ10 eq;
    eq.configure(kavore::EQPresets::named("Bass Booster")->settings, 48000.0);
    double db = 20.0 * std::log10(eq.preampLinear());
    for (const auto& band : eq.bands())
        db += band.magnitudeDB(frequency, 48000.0);
    return db;
}

} // namespace

TEST(MixingEndToEnd, VolumeMuteEqualiserRedirectAndResetActOnOneAppOnly) {
    Mix mix;
    // Control at unity first: the tap renders the tone as it is.
    mix.ctlOK({"send", R"({"setAppMuted":{"bundleID":"com.apple.Safari","muted":false}})"});
    ASSERT_TRUE(mix.waitForLevel(safari, toneRMS, 0.5)) << mix.log();
    const auto unity = mix.meterOf(safari);
    ASSERT_TRUE(unity);
    EXPECT_NE(unity->ownerPID, mix.service().pid);
    EXPECT_EQ(mix.workers(safari), std::vector<int>{unity->ownerPID});

    // Half volume is a quarter of the gain: 12 dB down. Music is neither tapped nor touched.
    mix.ctlOK({"volume", "Safari", "0.5"});
    EXPECT_TRUE(mix.waitForLevel(safari, unity->rmsDB - 12.0, 0.5));
    EXPECT_FALSE(mix.meterOf(music));
    EXPECT_FALSE(mix.tapped(music));
    EXPECT_TRUE(mix.tapped(safari));

    // The equaliser bends the level at the tone's frequency the way the preset's curve says.
    mix.ctlOK({"eq", "Safari", "Bass Booster"});
    for (double frequency : {1000.0, 100.0}) {
        SCOPED_TRACE(frequency);
        mix.playSafari(int(frequency));
        EXPECT_TRUE(mix.waitForLevel(safari, unity->rmsDB - 12.0 + bassBoosterDB(frequency), 0.75));
    }
    mix.ctlOK({"eq", "Safari", "off"});
    mix.playSafari();

    // Mute ramps down to silence without a click: recorded across the mute, no step between
    // neighbouring samples is larger than the tone's own steepest one allows.
    const std::string recording = mix.worldPath() + ".mute.wav";
    const auto cyclesBefore = mix.meterOf(safari)->cycles;
    mix.ctlOK({"sim", "record", speakers, recording, "1.5"});
    // A worker that published a new meter since has seen the request, and records.
    ASSERT_TRUE(waitUntil([&] { return mix.meterOf(safari)->cycles != cyclesBefore; }, 5s));
    mix.ctlOK({"mute", "Safari"});
    EXPECT_TRUE(mix.waitForLevel(safari, -120.0, 1.0));
    ASSERT_TRUE(
        waitUntil([&] { return mix.world().recordings.empty() && std::filesystem::exists(recording); }, 10s));
    const std::vector<float> samples = readWav(recording);
    ASSERT_GT(samples.size(), 9600u);
    const float amplitude = std::pow(10.0f, (-12.0f - 12.0f) / 20.0f);
    const std::span<const float> all(samples);
    EXPECT_NEAR(peak(all.first(960)), amplitude, amplitude * 0.12f); // sound before ...
    EXPECT_LT(peak(all.last(960)), 1e-4f);                           // ... silence after
    float largestStep = 0; // between neighbouring samples of one channel
    for (std::size_t i = 2; i < samples.size(); ++i)
        largestStep = std::max(largestStep, std::abs(samples[i] - samples[i - 2]));
    EXPECT_LT(largestStep, amplitude * 2.0f * std::sin(3.14159f * 1000.0f / 48000.0f) * 1.5f);
    mix.ctlOK({"unmute", "Safari"});
    EXPECT_TRUE(mix.waitForLevel(safari, unity->rmsDB - 12.0, 0.5));

    // A redirect moves the rendered sound to the headphones.
    mix.ctlOK({"redirect", "Safari", "USB Headphones"});
    EXPECT_TRUE(mix.waitForLevel(safari, unity->rmsDB - 12.0, 0.5, headphones)) << mix.log();

    // Unplugged, the redirect target's tap is rebuilt on the default output. The device listeners
    // usually see the topology change first; the watchdog catches it otherwise.
    mix.ctlOK({"sim", "unplug", headphones});
    EXPECT_TRUE(mix.waitForLevel(safari, unity->rmsDB - 12.0, 0.5, speakers)) << mix.log();
    const std::string log = mix.log();
    EXPECT_TRUE(log.find("tonavi: output format/topology changed; refreshing 1 affected tap(s)") !=
                    std::string::npos ||
                log.find("tonavi: self-heal rebuilding com.apple.Safari (device vanished, bounded retry)") !=
                    std::string::npos)
        << log;

    // Reset lets the tap go: Safari is heard on its direct path again.
    mix.ctlOK({"reset", "Safari"});
    EXPECT_TRUE(waitUntil([&] { return !mix.tapped(safari) && !mix.meterOf(safari); }, 10s));
}

// A killed worker sends its app direct, and the next attempt waits for the backoff; a killed
// service takes every worker down within a second.
TEST(MixingEndToEnd, KilledWorkersAndAKilledService) {
    Mix mix;
    // Music is known by name once the service has looked at who plays.
    ASSERT_TRUE(waitUntil([&] { return mix.ctl({"volume", "Music", "0.5"}).first == 0; }, 10s));
    mix.ctlOK({"volume", "Safari", "0.5"});
    ASSERT_TRUE(mix.waitForLevel(safari, toneRMS - 12.0, 0.5)) << mix.log();
    const auto first = mix.workers(safari);
    ASSERT_EQ(first.size(), 1u);

    // The first attempt to replace it fails; the next waits out the backoff's first delay.
    mix.ctlOK({"sim", "fail", "create-tap", "1", "nope"});
    auto killedAt = std::chrono::steady_clock::now();
    ::kill(first[0], SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return mix.statusHas(R"("kind":"tap-released")"); }, 10s)) << mix.log();
    EXPECT_TRUE(waitUntil([&] { return !mix.tapped(safari); }, 5s));
    ASSERT_TRUE(waitUntil(
        [&] {
            auto m = mix.meterOf(safari);
            return m && m->ownerPID != first[0] && mix.workers(safari) == std::vector<int>{m->ownerPID};
        },
        20s))
        << mix.log();
    EXPECT_GE(std::chrono::steady_clock::now() - killedAt, 1900ms);
    EXPECT_TRUE(mix.waitForLevel(safari, toneRMS - 12.0, 0.5));

    ASSERT_TRUE(waitUntil([&] { return mix.workers(music).size() == 1; }, 10s)) << mix.log();
    const int workers[] = {mix.workers(safari)[0], mix.workers(music)[0]};
    mix.service().signal(SIGKILL);
    ASSERT_TRUE(mix.service().wait(5s));
    mix.forget();
    killedAt = std::chrono::steady_clock::now();
    EXPECT_TRUE(waitUntil([&] { return !alive(workers[0]) && !alive(workers[1]); }, 5s));
    EXPECT_LT(std::chrono::steady_clock::now() - killedAt, 1000ms * test::sanitizerSlowdown);
}

// A worker that stops reading is found stalled within seconds while requests keep answering: its app
// goes direct and a new worker takes over with the newest state. That a full pipe never blocks the
// writer, and that a stopped worker still dies when released, is the tap provider's test.
TEST(MixingEndToEnd, AStalledWorkerIsEndedAndReplacedWhileTheServiceAnswers) {
    Mix mix;
    mix.ctlOK({"volume", "Safari", "0.5"});
    ASSERT_TRUE(mix.waitForLevel(safari, toneRMS - 12.0, 0.5)) << mix.log();
    const int stopped = mix.workers(safari).at(0);
    ::kill(stopped, SIGSTOP);
    for (int i = 0; i < 300; ++i) {
        ASSERT_TRUE(mix.send(TonaviRequest::SetAppVolume{safari, 0.3 + (i % 10) / 100.0}).ok) << i;
        ASSERT_TRUE(i % 100 || (mix.send(TonaviRequest::Ping{}).ok && mix.send(TonaviRequest::Status{}).status))
            << i;
    }
    EXPECT_TRUE(waitUntil([&] { return mix.statusHas("isolated tap helper stalled (it read nothing for 3 s)"); },
                          10s))
        << mix.log();
    // Live once the service has its "ready": a new worker that never started would time out instead.
    EXPECT_TRUE(waitUntil(
        [&] {
            const auto now = mix.workers(safari);
            return !alive(stopped) && now.size() == 1 && now[0] != stopped && mix.tapped(safari) &&
                   mix.log().find("isolated tap helper " + std::to_string(now[0]) + " owns com.apple.Safari") !=
                       std::string::npos;
        },
        15s))
        << mix.log();
    ::kill(stopped, SIGCONT);
    EXPECT_TRUE(mix.waitForLevel(safari, toneRMS + 40 * std::log10(0.39), 0.5)) << "the newest volume holds";
}

// Plug-ins of the project's test bundle (on LV2_PATH) in Safari's chain: a gain whose setting
// survives a restart of the service, then a plug-in that crashes its worker and one that hangs it.
// Each costs Safari its worker (and so its tap) once: it comes back tapped, the gain still live and the
// culprit bypassed, with "au-crash" in the health log, and the service answers throughout.
TEST(MixingEndToEnd, APluginThatCrashesOrHangsItsWorkerIsBypassedAndTheServiceAnswers) {
    tonavi::test::useTestPlugins();
    Mix mix;
    mix.ctlOK({"chain", "Safari", "add", "Test Gain", "gain=2"});
    const double gained = toneRMS + 20 * std::log10(2.0);
    ASSERT_TRUE(mix.waitForLevel(safari, gained, 0.5)) << mix.log();
    mix.restartService();
    ASSERT_TRUE(mix.waitForLevel(safari, gained, 0.5)) << mix.log();

    for (const auto& [plugin, on] : {std::pair{"Test Crash", "crash=1"}, std::pair{"Test Hang", "hang=1"}}) {
        SCOPED_TRACE(plugin);
        ASSERT_TRUE(waitUntil([&] { return mix.workers(safari).size() == 1; }, 10s));
        const int worker = mix.workers(safari)[0];
        mix.ctlOK({"chain", "Safari", "add", plugin, on});
        int unanswered = 0;
        EXPECT_TRUE(waitUntil(
            [&] {
                unanswered += !mix.send(TonaviRequest::Ping{}).ok;
                const auto m = mix.meterOf(safari);
                return !alive(worker) && m && m->ownerPID != worker && std::abs(m->rmsDB - gained) < 0.5;
            },
            20s))
            << mix.log();
        EXPECT_EQ(unanswered, 0);
        const std::string chain = mix.ctl({"chain", "Safari"}).second;
        EXPECT_NE(chain.find(std::string(plugin) + "  bypassed"), std::string::npos) << chain;
        EXPECT_NE(chain.find("Test Gain  on"), std::string::npos) << chain;
    }
    EXPECT_TRUE(mix.statusHas(R"("detail":"Safari: crashed its tap helper","id")")) << mix.log();
    EXPECT_TRUE(mix.statusHas(R"("detail":"Safari: stopped responding in its render","id")")) << mix.log();
}
