// The service when the audio server goes away and comes back: the applications reconnect to the
// new server and the service taps them again, so their settings apply there as before.

#include "core/wire/TonaviChannel.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"
#include "tests/integration/ChildProcess.hpp"

#include "PrivatePipeWireServer.hpp"
#include "ToneLevel.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

using namespace tonavi;
using namespace tonavi::testing;
using namespace tonavi::test;
using namespace std::chrono_literals;

namespace {

constexpr double low = 880, high = 4000;

// The two tones' levels (dBFS) in 0.3 s of a sink's monitor.
std::pair<double, double> levels(const std::string& sink) {
    const std::string command = "timeout 3 parec --latency-msec=20 --device=" + sink +
                                ".monitor --raw --format=float32le --rate=48000 --channels=1 2>/dev/null";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe)
        return {-120, -120};
    std::vector<float> samples(48000 / 2);
    const std::size_t got = std::fread(samples.data(), sizeof(float), samples.size(), pipe);
    ::pclose(pipe);
    const std::size_t skip = 48000 / 5; // the monitor's first buffers may be silence
    if (got <= skip)
        return {-120, -120};
    return {levelAt(samples.data() + skip, got - skip, low, 48000),
            levelAt(samples.data() + skip, got - skip, high, 48000)};
}

TEST(PipeWireServiceRecoveryTest, AfterTheServerReturnsTheApplicationIsTappedAgain) {
    std::string why;
    auto* server = PrivatePipeWireServer::shared(&why);
    if (!server && PrivatePipeWireServer::programsMissing())
        GTEST_SKIP() << "no private PipeWire server: " << why;
    ASSERT_NE(server, nullptr) << why;
    PrivateHome home{"pipewire-recovery"};
    std::filesystem::create_directories(home.supportDir());
    std::ofstream(home.supportDir() + "/state.json")
        << R"({"apps":[{"id":"org.tonavi.Low","displayName":"Low","volume":0.5},)"
        << R"({"id":"org.tonavi.High","displayName":"High"}]})";
    std::vector<pid_t> tones;
    auto play = [&] {
        tones.push_back(server->spawn({TONAVI_TONE_CLIENT, "org.tonavi.Low", "Low", "880", "0.25"}, "tone-low"));
        tones.push_back(server->spawn({TONAVI_TONE_CLIENT, "org.tonavi.High", "High", "4000", "0.25"}, "tone-high"));
    };
    // Low at half volume is 12 dB under High, which plays as loud as Low does on its own path. Both
    // follow the default output, which the service may move when every device comes back at once
    // (a returning personal device takes over), so either sink may be playing them.
    auto lowered = [] {
        for (const char* sink : {"speakers", "headphones"}) {
            const auto [l, h] = levels(sink);
            if (h > -30 && std::abs(l - h + 12.04) < 1.0)
                return true;
        }
        return false;
    };
    play();
    auto env = home.env();
    env["TONAVI_AUDIO_BACKEND"] = "pipewire";
    ChildProcess service = ChildProcess::spawn({binPath("tonavi-service")}, env);
    ASSERT_TRUE(waitUntil(
        [&] {
            try {
                return TonaviChannel::send(home.socketPath(), TonaviRequest::ping(), 2).ok;
            } catch (const std::exception&) {
                return false;
            }
        },
        20s));
    EXPECT_TRUE(waitUntil(lowered, 10s)) << "Low was never tapped";

    // The applications lose the server with it and are started again on the new one.
    server->stopAudio();
    for (pid_t pid : tones)
        PrivatePipeWireServer::terminate(pid);
    tones.clear();
    ASSERT_TRUE(server->startAudio(why)) << why;
    play();
    EXPECT_TRUE(waitUntil(lowered, 20s)) << "Low was not tapped again on the new server";
    EXPECT_TRUE(service.wait(0ms) == std::nullopt) << "the service did not survive the server";

    if (::testing::Test::HasFailure())
        std::cout << home.logText() << run({binPath("tonavictl"), "status"}, env).second; // what the service saw
    service.signal(SIGTERM);
    service.wait(20s);
    for (pid_t pid : tones)
        PrivatePipeWireServer::terminate(pid);
    // The server is shared with the tests that follow: the speakers are the default again.
    EXPECT_EQ(std::system("pactl set-default-sink speakers"), 0);
    PipeWireConnection graph;
    ASSERT_TRUE(graph.start(why)) << why;
    EXPECT_TRUE(graph.waitUntil(
        [](const PipeWireGraph& g) { return g.defaultNodeName("default.audio.sink") == "speakers"; }, 3000ms));
}

} // namespace
