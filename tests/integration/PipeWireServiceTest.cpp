// The service on a private PipeWire server, end to end: two tone clients play on the speakers,
// tonavictl changes one of them, and the speakers' and headphones' monitors say what each
// application sounds like there. Killing a worker or the service must leave the application on its
// own path, with nothing of Tonavi left in the graph. When the audio server goes away and comes back,
// the applications reconnect to the new server and the service taps them again.

#include "base/Paths.hpp"
#include "core/wire/TonaviChannel.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"
#include "tests/integration/ChildProcess.hpp"

#include "PrivatePipeWireServer.hpp"
#include "ToneLevel.hpp"
#include "XSession.hpp"

#include <set>
#include <systemd/sd-bus.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <utility>

using namespace tonavi;
using namespace tonavi::testing;
using namespace tonavi::test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr double rate = 48000;
constexpr std::size_t window = 2400; // 50 ms: every tone below fits whole periods in it
// "Low" plays a bass and a treble tone, "High" one tone; each tone at the same amplitude, so High's
// level is also what Low's tones measure on their own path.
constexpr double bass = 120, treble = 4000, high = 880;

// The level (dBFS) of the frequency in the samples; silence reads -120.
double levelAt(const float* samples, std::size_t count, double frequency, double rate) {
    return 20.0 * std::log10(std::max(amplitudeAt(samples, count, frequency, rate), 1e-6));
}

// A device's monitor, recorded without pause (mono) from construction; a pipe reader thread keeps
// the samples and when each chunk arrived.
class MonitorRecording {
  public:
    explicit MonitorRecording(const std::string& sink) {
        parec_ = ChildProcess::spawn(
            {"/bin/sh", "-c",
             "exec parec --latency-msec=10 --device=" + sink +
                 ".monitor --raw --format=float32le --rate=48000 --channels=1 2>/dev/null"},
            {});
        reader_ = std::thread([this, fd = parec_.outFD] {
            std::string pending(4096, '\0');
            std::size_t held = 0; // bytes of a sample that is not yet whole
            for (ssize_t n; (n = ::read(fd, pending.data() + held, pending.size() - held)) > 0;) {
                const std::size_t whole = (held + std::size_t(n)) / sizeof(float);
                std::lock_guard guard(lock_);
                samples_.resize(samples_.size() + whole);
                std::memcpy(samples_.data() + samples_.size() - whole, pending.data(), whole * sizeof(float));
                held = held + std::size_t(n) - whole * sizeof(float);
                std::memmove(pending.data(), pending.data() + whole * sizeof(float), held);
                arrivals_.emplace_back(samples_.size(), Clock::now());
            }
            ::close(fd);
        });
    }
    ~MonitorRecording() {
        parec_.signal(SIGTERM);
        parec_.wait(5s);
        reader_.join();
    }

    // The levels (dBFS) of the frequencies over 0.3 s recorded from now on.
    std::vector<double> levels(const std::vector<double>& frequencies) {
        const std::size_t from = size(), count = 14400;
        waitUntil([&] { return size() >= from + count; }, 5s);
        std::lock_guard guard(lock_);
        std::vector<double> out(frequencies.size(), -120);
        for (std::size_t i = 0; i < out.size() && samples_.size() >= from + count; ++i)
            out[i] = levelAt(samples_.data() + from, count, frequencies[i], rate);
        return out;
    }
    // Measures until two measurements in a row satisfy `wanted` and agree within 0.3 dB (a change in
    // progress does neither), or the time runs out; the last levels either way.
    std::vector<double> settle(const std::vector<double>& frequencies,
                               const std::function<bool(const std::vector<double>&)>& wanted) {
        const auto deadline = Clock::now() + 10s;
        const auto agree = [](double a, double b) { return std::abs(a - b) <= 0.3; };
        std::vector<double> before, now = levels(frequencies);
        do
            before = std::exchange(now, levels(frequencies));
        while (!(std::ranges::equal(now, before, agree) && wanted(before) && wanted(now)) &&
               Clock::now() < deadline);
        return now;
    }
    // Seconds from `from` to the end of the first 50 ms window (10 ms steps) recorded after it in
    // which the frequency's level satisfies `wanted`; nullopt when none does within the time-out.
    std::optional<double> secondsUntil(Clock::time_point from, double frequency,
                                       const std::function<bool(double)>& wanted,
                                       std::chrono::seconds timeout) {
        std::size_t at = 0; // the first sample that arrived at or after `from`
        {
            std::lock_guard guard(lock_);
            for (const auto& [end, arrived] : arrivals_)
                at = arrived < from ? end : at;
        }
        const std::size_t start = at;
        const auto deadline = from + timeout;
        while (Clock::now() < deadline + 200ms) {
            waitUntil([&] { return size() >= at + window; }, 1s);
            std::lock_guard guard(lock_);
            for (; at + window <= samples_.size(); at += window / 5)
                if (wanted(levelAt(samples_.data() + at, window, frequency, rate)))
                    return static_cast<double>(at + window - start) / rate;
        }
        return std::nullopt;
    }

  private:
    std::size_t size() {
        std::lock_guard guard(lock_);
        return samples_.size();
    }
    ChildProcess parec_;
    std::thread reader_;
    std::mutex lock_;
    std::vector<float> samples_;
    std::vector<std::pair<std::size_t, Clock::time_point>> arrivals_;
};

class PipeWireServiceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string why;
        server = PrivatePipeWireServer::shared(&why);
        if (!server && PrivatePipeWireServer::programsMissing())
            GTEST_SKIP() << "no private PipeWire server: " << why;
        ASSERT_NE(server, nullptr) << "the private PipeWire server did not start: " << why;
    }
    void TearDown() override {
        if (service.pid > 0 && service.wait(0ms) == std::nullopt)
            service.stop();
        for (pid_t pid : tones)
            PrivatePipeWireServer::terminate(pid);
    }
    // Rows for both applications, so that the service lists them by name.
    void seedConfig(double lowVolume) {
        std::filesystem::create_directories(home.supportDir());
        std::ofstream(home.supportDir() + "/state.json")
            << R"({"apps":[{"id":"org.tonavi.Low","displayName":"Low","volume":)" << lowVolume
            << R"(},{"id":"org.tonavi.High","displayName":"High"}]})";
    }
    // A player with a desktop entry of its own, as an application a person opened has.
    void play(const std::string& id, const std::string& name, const std::string& frequencies) {
        std::filesystem::create_directories(home.home + "/.local/share/applications");
        std::ofstream(home.home + "/.local/share/applications/" + id + ".desktop")
            << "[Desktop Entry]\nType=Application\nName=" << name << "\nExec=platform_tone_client\n";
        tones.push_back(server->spawn({TONAVI_TONE_CLIENT, id, name, frequencies, "0.25"}, "tone-" + name));
    }
    void ctl(const std::vector<std::string>& args) {
        auto [status, out] = tonavi::testing::ctl(home.env(), args);
        EXPECT_EQ(status, 0) << out;
    }
    std::string ctlOutput(const std::vector<std::string>& args) { return tonavi::testing::ctl(home.env(), args).second; }
    bool logged(const std::string& text, std::chrono::seconds timeout) {
        return waitUntil([&] { return home.logText().find(text) != std::string::npos; }, timeout);
    }
    void startOnPipeWire(Env extra = {}) {
        extra["TONAVI_AUDIO_BACKEND"] = "pipewire";
        service = startService(home, extra);
    }

    PrivatePipeWireServer* server = nullptr;
    PrivateHome home{"pipewire"};
    ChildProcess service;
    std::vector<pid_t> tones;
};

TEST_F(PipeWireServiceTest, VolumeEqualiserAndRedirectChangeOnlyTheirApplication) {
    seedConfig(1.0);
    play("org.tonavi.Low", "Low", "120+4000");
    play("org.tonavi.High", "High", "880");
    startOnPipeWire();
    MonitorRecording speakers("speakers");
    MonitorRecording headphones("headphones");
    const std::vector<double> tones3 = {bass, treble, high};
    const auto direct = speakers.settle(tones3, [](const auto& l) { return l[0] > -20 && l[2] > -20; });
    ASSERT_GT(direct[0], -20) << "Low does not play on the speakers";

    // Half the volume is a quarter of the gain (the cubic law): -12 dB on both of Low's tones.
    ctl({"volume", "Low", "0.5"});
    const auto lowered = speakers.settle(tones3, [&](const auto& l) { return l[1] < direct[1] - 11; });
    EXPECT_NEAR(lowered[0] - direct[0], -12.04, 0.5);
    EXPECT_NEAR(lowered[1] - direct[1], -12.04, 0.5);
    EXPECT_NEAR(lowered[2], direct[2], 0.5) << "High is untouched";

    // The bass reducer cuts 120 Hz and leaves 4 kHz alone: the spectrum's shape changes.
    ctl({"eq", "Low", "bass-reducer"});
    const auto equalised = speakers.settle(tones3, [&](const auto& l) { return l[0] < lowered[0] - 2; });
    EXPECT_LT(equalised[0], lowered[0] - 2);
    EXPECT_NEAR(equalised[1], lowered[1], 1.0);
    EXPECT_NEAR(equalised[2], direct[2], 0.5);

    // Devices are named by UID here: the service's status does not list devices yet.
    ctl({"send", R"({"setAppRedirect":{"bundleID":"org.tonavi.Low","deviceUID":"headphones"}})"});
    const auto moved = headphones.settle(tones3, [&](const auto& l) { return l[1] > lowered[1] - 1; });
    EXPECT_NEAR(moved[1], lowered[1], 1.0);
    EXPECT_LT(moved[2], -60) << "High stays on the speakers";
    const auto left = speakers.settle(tones3, [](const auto& l) { return l[1] < -60; });
    EXPECT_LT(left[1], -60) << "Low left the speakers";
    EXPECT_NEAR(left[2], direct[2], 0.5);
}

// A third-party LV2 plug-in from Debian's swh-lv2, as an application's chain would use it: two of its
// amplifiers (mono, each run once per channel) in Low's chain before Low plays, measured at the monitor
// from Low's first sound; a parameter change applies live. Then a plug-in that hangs Low's worker in its
// render: Low is silent no longer than the stale-IO limit, and the service answers throughout.
TEST_F(PipeWireServiceTest, AThirdPartyPluginInAChainActsOnItsApplicationAtTheMonitor) {
    if (!std::filesystem::exists("/usr/lib/lv2/amp-swh.lv2"))
        GTEST_SKIP() << "swh-lv2 is not installed";
    seedConfig(1.0);
    play("org.tonavi.High", "High", "880");
    // The project's test bundle beside Debian's plug-ins, for the service and tonavictl alike.
    ::setenv("LV2_PATH", (binPath("") + "/../tests/lv2:/usr/lib/lv2").c_str(), 1);
    startOnPipeWire();
    MonitorRecording speakers("speakers");
    const double reference = speakers.settle({high}, [](const auto& l) { return l[0] > -20; })[0];
    ASSERT_GT(reference, -20);
    ctl({"chain", "Low", "add", "Simple amplifier", "gain=-6"});
    ctl({"chain", "Low", "add", "Simple amplifier", "gain=-6"});

    const auto started = Clock::now();
    play("org.tonavi.Low", "Low", "120+4000");
    const auto live = speakers.secondsUntil(
        started, treble, [&](double l) { return std::abs(l - (reference - 12)) < 0.5; }, 10s);
    ASSERT_TRUE(live.has_value()) << "Low never played through both amplifiers";
    std::cout << "first sound to two plug-ins rendering: " << *live * 1000 << " ms\n";
    EXPECT_NEAR(speakers.settle({high}, [](const auto&) { return true; })[0], reference, 0.5) << "High untouched";

    ctl({"chain", "Low", "set", "2", "gain", "0"});
    EXPECT_NEAR(speakers.settle({treble}, [&](const auto& l) { return l[0] > reference - 7; })[0], reference - 6,
                0.5);

    // Pings over the socket all through the hang: the service answers every one.
    std::mutex pingLock;
    std::vector<double> pings;
    std::jthread pinger([&](std::stop_token stop) {
        while (!stop.stop_requested()) {
            const auto at = Clock::now();
            EXPECT_TRUE(TonaviChannel::send(home.socketPath(), TonaviRequest::ping(), 2).ok);
            std::lock_guard guard(pingLock);
            pings.push_back(std::chrono::duration<double, std::milli>(Clock::now() - at).count());
            std::this_thread::sleep_for(5ms); // paced: the pings must not starve the audio of a core
        }
    });
    const auto hung = Clock::now();
    ctl({"chain", "Low", "add", "Test Hang", "hang=1"});
    const auto silent = speakers.secondsUntil(hung, treble, [](double l) { return l < -60; }, 5s);
    ASSERT_TRUE(silent.has_value()) << "the hang never silenced Low";
    const auto silentAt = hung + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(*silent));
    const auto back = speakers.secondsUntil(silentAt, treble, [](double l) { return l > -40; }, 10s);
    ASSERT_TRUE(back.has_value()) << "Low never came back";
    EXPECT_LT(*back, 6.0) << "held off its direct path for longer than the stale-IO limit";
    EXPECT_NEAR(speakers.settle({treble}, [&](const auto& l) { return l[0] < reference - 4; })[0], reference - 6,
                0.5)
        << "tapped again without the hung slot";
    pinger.request_stop();
    pinger.join();
    std::ranges::sort(pings);
    std::cout << "hung plug-in held Low silent for " << *back * 1000 << " ms; ping p99 "
              << (pings.empty() ? 0.0 : pings[pings.size() * 99 / 100]) << " ms over " << pings.size() << " pings\n";
}

TEST_F(PipeWireServiceTest, KilledWorkerOrServiceLeavesTheApplicationOnItsOwnPath) {
    seedConfig(0.5);
    play("org.tonavi.High", "High", "880");
    startOnPipeWire();
    MonitorRecording speakers("speakers");
    const double reference = speakers.settle({high}, [](const auto& l) { return l[0] > -20; })[0];
    ASSERT_GT(reference, -20);

    // Low is configured at half volume before it plays: its first sound is direct, then its tap takes over.
    const auto started = Clock::now();
    play("org.tonavi.Low", "Low", "120+4000");
    const auto firstSound = speakers.secondsUntil(
        started, treble, [](double l) { return l > -40; }, 5s);
    ASSERT_TRUE(firstSound.has_value()) << "Low never played";
    // From one full window past the onset, so that a window only partly filled is not taken for a quieter
    // one.
    const auto settled =
        started + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(*firstSound)) +
        60ms;
    const auto live = speakers.secondsUntil(
        settled, treble, [&](double l) { return std::abs(l - (reference - 12.04)) < 0.5; }, 10s);
    ASSERT_TRUE(live.has_value()) << "Low was never tapped";
    std::cout << "first sound to tap live: " << (*live + 0.06) * 1000 << " ms\n";

    // The service, held still, cannot replace the worker: the session manager alone brings Low back.
    std::vector<pid_t> workers;
    ASSERT_TRUE(waitUntil([&] { return (workers = workersOf(service.pid)).size() == 1; }, 5s));
    service.signal(SIGSTOP);
    const auto killed = Clock::now();
    ::kill(workers[0], SIGKILL);
    const auto direct = speakers.secondsUntil(
        killed, treble, [&](double l) { return l > reference - 1.5; }, 3s);
    service.signal(SIGCONT);
    ASSERT_TRUE(direct.has_value()) << "Low never came back on its own path";
    EXPECT_LT(*direct, 1.0);
    std::cout << "worker killed to direct path: " << *direct * 1000 << " ms\n";
    // Running again, the service taps it again.
    EXPECT_LT(speakers.settle({treble}, [&](const auto& l) { return l[0] < reference - 11; })[0],
              reference - 11);

    std::vector<pid_t> replacements;
    ASSERT_TRUE(waitUntil([&] { return (replacements = workersOf(service.pid)).size() == 1; }, 5s));
    service.signal(SIGKILL);
    EXPECT_EQ(service.wait(5s), std::optional<int>(128 + SIGKILL));
    service.pid = -1; // reaped: nothing for the tear-down to stop
    PipeWireConnection graph;
    std::string error;
    ASSERT_TRUE(graph.start(error)) << error;
    ASSERT_TRUE(graph.roundTrip()); // the metadata's entries are in
    const bool clean = graph.waitUntil(
        [](const PipeWireGraph& g) {
            return !g.defaultNodeName("default.audio.sink").empty() &&
                   std::ranges::none_of(
                       g.nodes, [](auto& n) { return n.second.prop("node.name").starts_with("tonavi."); }) &&
                   std::ranges::none_of(g.nodeMetadata,
                                        [](auto& m) { return m.second.count("target.object") > 0; });
        },
        3000ms);
    EXPECT_TRUE(clean) << "a tap sink, IO stream or target outlived the service";
    EXPECT_TRUE(waitUntil([&] { return !alive(replacements[0]); }, 3s)) << "the worker outlived the service";
    EXPECT_NEAR(speakers.settle({treble}, [&](const auto& l) { return l[0] > reference - 1; })[0], reference,
                1.0);
}

// The service's and its workers' own streams are never taken for an application's: under a solo and
// auto-duck, which give a tap to whatever plays, only the silenced player gets a worker.
TEST_F(PipeWireServiceTest, TheServiceNeverTapsItselfOrItsWorkers) {
    seedConfig(1.0);
    play("org.tonavi.Low", "Low", "4000");
    play("org.tonavi.High", "High", "880");
    startOnPipeWire();
    ASSERT_TRUE(waitUntil([&] { return tonavi::testing::ctl(home.env(), {"solo", "High"}).first == 0; }, 10s));
    ctl({"smart", "duck", "on"});
    ASSERT_TRUE(waitUntil([&] { return workersOf(service.pid, "org.tonavi.Low").size() == 1; }, 10s))
        << home.logText();
    // Its worker plays now; several snapshots and watchdog passes later, still nothing else is tapped.
    const auto selfTapped = [&] {
        const std::string status = ctlOutput({"status", "--json"});
        return workersOf(service.pid).size() != 1 || status.find(serviceBundleIdentifier) != std::string::npos ||
               status.find("onavi-service") != std::string::npos;
    };
    EXPECT_FALSE(waitUntil(selfTapped, 8s)) << ctlOutput({"status"});
    const std::string log = home.logText();
    EXPECT_EQ(log.find("tonavi-service"), std::string::npos) << log;
}

// A standard MIDI file of one track: a Control Change on channel 1 for each (controller, value),
// a quarter of a second apart (at 120 beats a minute, 96 ticks a beat), then the end of the track.
// The first comes after a second, by which time the service has linked the player's new port.
void writeControlChangeFile(const std::string& path, std::vector<std::pair<unsigned char, unsigned char>> changes) {
    std::vector<unsigned char> track = {0x81, 0x40}; // 192 ticks
    for (const auto& [controller, value] : changes) {
        track.insert(track.end(), {0xB0, controller, value});
        track.push_back(0x30); // the next event's delta
    }
    track.pop_back();
    track.insert(track.end(), {0x30, 0xFF, 0x2F, 0x00});
    std::ofstream out(path, std::ios::binary);
    const unsigned char header[] = {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 0, 0, 1, 0, 96,
                                    'M', 'T', 'r', 'k', 0, 0, 0, static_cast<unsigned char>(track.size())};
    out.write(reinterpret_cast<const char*>(header), sizeof header);
    out.write(reinterpret_cast<const char*>(track.data()), static_cast<std::streamsize>(track.size()));
}

TEST_F(PipeWireServiceTest, AMIDIPlayerInTheGraphMovesAnApplicationsVolume) {
    seedConfig(1.0);
    std::ofstream(home.supportDir() + "/midi-mappings.json")
        << R"([{"id":"fader","channel":1,"cc":7,"target":{"appVolume":{"bundleID":"org.tonavi.Low"}}}])";
    play("org.tonavi.Low", "Low", "4000");
    play("org.tonavi.High", "High", "880");
    startOnPipeWire();
    EXPECT_TRUE(logged("tonavi: MIDI mapper listening (", 5s)) << home.logText();
    MonitorRecording speakers("speakers");
    const auto direct = speakers.settle({treble, high}, [](const auto& l) { return l[0] > -20 && l[1] > -20; });
    ASSERT_GT(direct[0], -20) << "Low does not play on the speakers";

    // A MIDI source that is not ours, which nobody connects (--target 0): pw-midiplay's output port
    // appears, the service links it to "TonaviIn", and fader 7 at 64 sets Low's volume to 64/127; the fader law squares it: -11.95 dB.
    const std::string file = home.home + "/fader.mid";
    writeControlChangeFile(file, {{7, 64}, {7, 64}});
    tones.push_back(server->spawn({"pw-midiplay", "--target", "0", file}, "midiplay"));
    const auto lowered =
        speakers.settle({treble, high}, [&](const auto& l) { return l[0] < direct[0] - 6; });
    EXPECT_NEAR(lowered[0] - direct[0], 40 * std::log10(64 / 127.0), 0.5) << home.logText();
    EXPECT_NEAR(lowered[1], direct[1], 0.5) << "High is untouched";

    // A button on controller 20 loads a scene (Low at 0.25) once per press: held over two messages,
    // it loads once, so fader 8 (Low) moved in between stays; pressed again after a release, it loads
    // again. Fader 9 (High) marks where each file ends, since the messages are handled in order.
    ctl({"volume", "Low", "0.25"});
    ctl({"config", "save", "Quiet"});
    ctl({"volume", "Low", "1"});
    for (const auto& [cc, target] : std::vector<std::pair<int, std::string>>{
             {20, R"({"configLoad":{"name":"Quiet"}})"}, {8, R"({"appVolume":{"bundleID":"org.tonavi.Low"}})"},
             {9, R"({"appVolume":{"bundleID":"org.tonavi.High"}})"}})
        ctl({"send", R"({"setMIDIMapping":{"_0":{"id":"cc)" + std::to_string(cc) + R"(","channel":1,"cc":)" +
                         std::to_string(cc) + R"(,"target":)" + target + "}}}"});
    const auto playFile = [&](std::vector<std::pair<unsigned char, unsigned char>> changes, unsigned char mark) {
        changes.emplace_back(9, mark);
        writeControlChangeFile(file, changes);
        tones.push_back(server->spawn({"pw-midiplay", "--target", "0", file}, "midiplay"));
        return waitUntil([&] { return appVolume(home.env(), "org.tonavi.High") == mark / 127.0; }, 10s);
    };
    ASSERT_TRUE(playFile({{20, 127}, {8, 127}, {20, 127}}, 100)) << home.logText();
    EXPECT_EQ(appVolume(home.env(), "org.tonavi.Low"), 1.0) << "the held button loaded the scene again";
    ASSERT_TRUE(playFile({{20, 0}, {20, 127}}, 50)) << home.logText();
    EXPECT_EQ(appVolume(home.env(), "org.tonavi.Low"), 0.25) << "the second press did not load the scene";
}

TEST_F(PipeWireServiceTest, AfterTheServerReturnsTheApplicationIsTappedAgain) {
    seedConfig(0.5);
    const auto playBoth = [&] {
        play("org.tonavi.Low", "Low", "4000");
        play("org.tonavi.High", "High", "880");
    };
    // Low at half volume is 12 dB under High, which plays as loud as Low does on its own path. Both
    // follow the default output, which the service may move when every device comes back at once
    // (a returning personal device takes over), so either sink may be playing them.
    const auto lowered = [] {
        for (const char* sink : {"speakers", "headphones"}) {
            MonitorRecording monitor(sink);
            monitor.levels({treble, high}); // the monitor's first buffers may be silence
            const auto l = monitor.levels({treble, high});
            if (l[1] > -30 && std::abs(l[0] - l[1] + 12.04) < 1.0)
                return true;
        }
        return false;
    };
    playBoth();
    std::ofstream(home.supportDir() + "/midi-mappings.json")
        << R"([{"id":"fader","channel":1,"cc":7,"target":{"appVolume":{"bundleID":"org.tonavi.High"}}}])";
    startOnPipeWire();
    EXPECT_TRUE(waitUntil(lowered, 10s)) << "Low was never tapped\n" << home.logText();

    // The applications lose the server with it and are started again on the new one.
    server->stopAudio();
    for (pid_t pid : std::exchange(tones, {}))
        PrivatePipeWireServer::terminate(pid);
    std::string why;
    ASSERT_TRUE(server->startAudio(why)) << why;
    playBoth();
    EXPECT_TRUE(waitUntil(lowered, 20s)) << "Low was not tapped again on the new server\n" << home.logText();
    EXPECT_EQ(service.wait(0ms), std::nullopt) << "the service did not survive the server\n"
                                               << home.logText();
    // MIDI is connected again too: a controller on the new server moves High.
    const std::string file = home.home + "/fader.mid";
    writeControlChangeFile(file, {{7, 64}});
    tones.push_back(server->spawn({"pw-midiplay", "--target", "0", file}, "midiplay"));
    EXPECT_TRUE(waitUntil([&] { return appVolume(home.env(), "org.tonavi.High") == 64 / 127.0; }, 10s)) << home.logText();
    EXPECT_NE(home.logText().find("pipewire: MIDI reconnected"), std::string::npos);

    // The server is shared with the tests that follow: the speakers are the default again.
    EXPECT_EQ(service.stop(), std::optional<int>(0));
    service.pid = -1;
    EXPECT_EQ(std::system("pactl set-default-sink speakers"), 0);
    PipeWireConnection graph;
    ASSERT_TRUE(graph.start(why)) << why;
    EXPECT_TRUE(graph.waitUntil(
        [](const PipeWireGraph& g) { return g.defaultNodeName("default.audio.sink") == "speakers"; },
        3000ms));
}

} // namespace

// The desktop around the service: the application in front from a real X display, sleep and wake
// from logind's signal on a private bus in the place of the system bus, and event sounds as alerts.
class PipeWireDesktopTest : public PipeWireServiceTest {
  protected:
    void TearDown() override {
        PipeWireServiceTest::TearDown();
        x.stop();
        test::stopProcess(bus); // on every path, a failed assertion's too
        ::unsetenv("DISPLAY");
        ::unsetenv("TONAVI_TONE_WINDOW");
        ::unsetenv("TONAVI_TONE_ROLE");
    }
    // A player that owns a window titled with its name on the private display.
    void playInWindow(const std::string& id, const std::string& name, const std::string& frequencies) {
        ::setenv("TONAVI_TONE_WINDOW", name.c_str(), 1);
        play(id, name, frequencies);
        ::unsetenv("TONAVI_TONE_WINDOW");
    }
    // Activates the window of the process `pid` from outside, as a click would; the time it was done.
    Clock::time_point activate(pid_t pid) {
        const std::string command =
            "DISPLAY=" + x.display() + " xdotool search --sync --pid " + std::to_string(pid) + " 2>/dev/null";
        std::string window;
        if (FILE* out = ::popen(command.c_str(), "r")) {
            char line[64] = {};
            if (std::fgets(line, sizeof line, out))
                window = std::string(line).substr(0, std::strcspn(line, "\n"));
            ::pclose(out);
        }
        EXPECT_FALSE(window.empty()) << "no window of pid " << pid;
        EXPECT_TRUE(x.xdotool("windowactivate --sync " + window));
        return Clock::now();
    }
    test::XSession x;
    pid_t bus = -1;
};

TEST_F(PipeWireDesktopTest, FollowMeLowersTheApplicationBehindTheWindowInFront) {
    std::string why;
    if (!x.startServer(why))
        GTEST_SKIP() << "no X display for follow-me: " << why;
    ASSERT_TRUE(x.startWindowManager(why)) << why;
    ::setenv("DISPLAY", x.display().c_str(), 1);
    // Follow-me on, the application behind at 25 %: 12 dB under its own level.
    std::filesystem::create_directories(home.supportDir());
    std::ofstream(home.supportDir() + "/state.json")
        << R"({"apps":[{"id":"org.tonavi.Low","displayName":"Low"},{"id":"org.tonavi.High","displayName":"High"}],)"
        << R"("smart":{"followMe":true,"followMeBackgroundPercent":25}})";
    playInWindow("org.tonavi.Low", "Low", "4000");
    playInWindow("org.tonavi.High", "High", "880");
    MonitorRecording speakers("speakers");
    const auto direct = speakers.settle({treble, high}, [](const auto& l) { return l[0] > -20 && l[1] > -20; });
    ASSERT_GT(direct[0], -20);
    ASSERT_GT(direct[1], -20);
    const double lowered = -12.04;

    startOnPipeWire();
    const auto highInFront = activate(tones[1]);
    const auto lowDown = speakers.secondsUntil(
        highInFront, treble, [&](double l) { return std::abs(l - (direct[0] + lowered)) < 1.0; }, 15s);
    ASSERT_TRUE(lowDown.has_value()) << "Low behind was never lowered\n" << home.logText();
    const auto front = speakers.settle({treble, high}, [&](const auto& l) { return l[0] < direct[0] - 11; });
    EXPECT_NEAR(front[0] - direct[0], lowered, 0.5);
    EXPECT_NEAR(front[1], direct[1], 0.5) << "High in front keeps its level";
    std::cout << "focus change to the one behind lowered (first tap, with the service starting): "
              << *lowDown * 1000 << " ms\n";

    // Switching back: High goes down, Low comes back.
    const auto lowInFront = activate(tones[0]);
    const auto highDown = speakers.secondsUntil(
        lowInFront, high, [&](double l) { return std::abs(l - (direct[1] + lowered)) < 1.0; }, 10s);
    ASSERT_TRUE(highDown.has_value()) << "High behind was never lowered\n" << home.logText();
    const auto back = speakers.settle({treble, high}, [&](const auto& l) { return l[1] < direct[1] - 11; });
    EXPECT_NEAR(back[0], direct[0], 0.5) << "Low in front is back at its level";
    EXPECT_NEAR(back[1] - direct[1], lowered, 0.5);
    std::cout << "focus change to the one behind lowered: " << *highDown * 1000 << " ms\n";
    EXPECT_LT(*highDown, 2.3) << "within one smart pass and 300 ms";
    const std::string log = home.logText();
    EXPECT_NE(log.find("follow-me sees frontmost org.tonavi.Low"), std::string::npos) << log;
}

TEST_F(PipeWireDesktopTest, LogindsWakeRebuildsTheTapsAndEventSoundsAreAlerts) {
    int out = -1;
    bus = test::spawnProcess({"dbus-daemon", "--session", "--nofork", "--print-address=1"}, &out);
    const std::string address = bus > 0 ? test::readLine(out) : std::string();
    if (out >= 0)
        ::close(out);
    ASSERT_FALSE(address.empty()) << "the private bus did not start";
    seedConfig(0.5);
    play("org.tonavi.Low", "Low", "4000");
    // No display: follow-me has no application in front here, and says so.
    startOnPipeWire({{"DBUS_SYSTEM_BUS_ADDRESS", address}, {"DISPLAY", ""}, {"WAYLAND_DISPLAY", ""}});
    std::vector<pid_t> workers;
    ASSERT_TRUE(waitUntil([&] { return (workers = workersOf(service.pid, "org.tonavi.Low")).size() == 1; }, 15s))
        << home.logText();
    ASSERT_TRUE(logged("observing sleep and wake", 5s));
    auto tapSinks = [] {
        PipeWireConnection graph;
        std::string error;
        std::set<std::string> names;
        if (graph.start(error) && graph.roundTrip())
            graph.read([&](const PipeWireGraph& g) {
                for (const auto& [id, n] : g.nodes)
                    if (n.prop("node.name").starts_with("tonavi.tap."))
                        names.insert(n.prop("node.name"));
                return 0;
            });
        return names;
    };
    std::set<std::string> before;
    ASSERT_TRUE(waitUntil([&] { return !(before = tapSinks()).empty(); }, 5s));

    sd_bus* logind = nullptr;
    ASSERT_GE(sd_bus_new(&logind), 0);
    ASSERT_GE(sd_bus_set_address(logind, address.c_str()), 0);
    ASSERT_GE(sd_bus_set_bus_client(logind, 1), 0);
    ASSERT_GE(sd_bus_start(logind), 0);
    ASSERT_GE(sd_bus_request_name(logind, "org.freedesktop.login1", 0), 0);
    for (int sleeping : {1, 0})
        ASSERT_GE(sd_bus_emit_signal(logind, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                     "PrepareForSleep", "b", sleeping),
                  0);
    sd_bus_flush(logind);
    EXPECT_TRUE(logged("rebuilt engaged taps after wake", 5s)) << home.logText();
    std::set<std::string> after;
    EXPECT_TRUE(waitUntil([&] { return !(after = tapSinks()).empty() && after != before; }, 10s))
        << "the tap was not rebuilt after the wake";
    sd_bus_flush_close_unref(logind);

    // A desktop event sound starting while the service runs enters the trail as an alert.
    ::setenv("TONAVI_TONE_ROLE", "Event", 1);
    play("org.tonavi.Beep", "Beep", "2000");
    ::unsetenv("TONAVI_TONE_ROLE");
    EXPECT_TRUE(waitUntil([&] { return ctlOutput({"status", "--json"}).find("alert:macos") != std::string::npos; }, 10s))
        << ctlOutput({"recent"});

    ctl({"smart", "follow-me", "on"});
    const std::string smart = ctlOutput({"smart"});
    EXPECT_NE(smart.find("no application in front on this session: no X display (DISPLAY is unset)"),
              std::string::npos)
        << smart;
}
