// The service as a real process: single instance, stale files, termination, the worker flag, the client.

#include "core/wire/TonaviChannel.hpp"
#include "tests/integration/ChildProcess.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <fstream>

using namespace tonavi;
using namespace tonavi::testing;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {
bool answersPing(const std::string& socket) {
    try {
        return TonaviChannel::send(socket, TonaviRequest::ping(), 2).ok;
    } catch (const std::exception&) {
        return false;
    }
}

ChildProcess startService(const PrivateHome& home, std::map<std::string, std::string> extra = {}) {
    auto env = home.env();
    for (auto& [k, v] : extra) env[k] = v;
    ChildProcess service = ChildProcess::spawn({binPath("tonavi-service")}, env);
    EXPECT_TRUE(waitUntil([&] { return answersPing(home.socketPath()); }, 20s)) << "service did not start";
    return service;
}
}  // namespace

TEST(ServiceProcess, SecondCopyExitsZeroAndTheFirstKeepsServingThenSigtermStopsCleanly) {
    PrivateHome home;
    ChildProcess first = startService(home);
    struct stat before {};
    ASSERT_EQ(::stat(home.socketPath().c_str(), &before), 0);

    auto [status, out] = run({binPath("tonavi-service")}, home.env());
    EXPECT_EQ(status, 0);
    struct stat after {};
    ASSERT_EQ(::stat(home.socketPath().c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino) << "the second copy must not touch the first one's socket";
    EXPECT_TRUE(answersPing(home.socketPath()));

    first.signal(SIGTERM);
    EXPECT_EQ(first.wait(20s), std::optional<int>(0));
    EXPECT_FALSE(fs::exists(home.socketPath()));
    std::string log = home.logText();
    EXPECT_NE(log.find("Tonavi service development starting"), std::string::npos);
    EXPECT_NE(log.find("Tonavi service ready"), std::string::npos);
    EXPECT_NE(log.find("Tonavi service: another instance already owns the runtime; exiting"), std::string::npos);
    EXPECT_NE(log.find("Tonavi service shutting down"), std::string::npos);
    EXPECT_TRUE(fs::exists(home.supportDir() + "/service.lock")) << "the lock file is never deleted";
}

TEST(ServiceProcess, KilledServiceLeavesStaleFilesThatDoNotBlockTheNextStart) {
    PrivateHome home;
    ChildProcess first = startService(home, {{"TONAVI_APP_VERSION", "4.5.6"}});
    EXPECT_EQ(TonaviChannel::send(home.socketPath(), TonaviRequest::ping(), 5).message, "tonavi 4.5.6");
    first.signal(SIGKILL);
    first.wait(20s);
    ASSERT_TRUE(fs::exists(home.socketPath())) << "a killed service leaves its socket file";
    EXPECT_FALSE(answersPing(home.socketPath()));

    ChildProcess second = startService(home);
    EXPECT_EQ(TonaviChannel::send(home.socketPath(), TonaviRequest::ping(), 5).message, "tonavi development");
    second.signal(SIGTERM);
    EXPECT_EQ(second.wait(20s), std::optional<int>(0));
}

TEST(ServiceProcess, WorkerFlagNeverTakesTheLockOrOpensTheSocket) {
    PrivateHome home;
    auto [usage, usageOut] = run({binPath("tonavi-service"), "--tonavi-tap-worker"}, home.env());
    EXPECT_EQ(usage, 64);
    // Without a first state on its stdin a worker gives up with 65.
    auto [noState, out] = run({"/bin/sh", "-c",
                               "exec '" + binPath("tonavi-service") + "' --tonavi-tap-worker com.apple.Safari </dev/null"},
                              home.env());
    EXPECT_EQ(noState, 65);
    EXPECT_NE(out.find("missing initial render state"), std::string::npos) << out;
    EXPECT_FALSE(fs::exists(home.supportDir() + "/service.lock"));
    EXPECT_FALSE(fs::exists(home.socketPath()));
}

TEST(ServiceProcess, SocketPathTooLongExitsWithStatusOne) {
    PrivateHome home;
    // Pad the home so that the socket path is 104 bytes.
    std::string suffix = "/.local/share/Tonavi/control.sock";
    std::string longHome = home.home + "/" + std::string(104 - suffix.size() - home.home.size() - 1, 'h');
    fs::create_directories(longHome);
    auto env = home.env();
    env["HOME"] = longHome;
    auto [status, out] = run({binPath("tonavi-service")}, env);
    EXPECT_EQ(status, 1);
    std::ifstream in(longHome + "/.local/state/Tonavi/Tonavi-service.log");
    std::string log(std::istreambuf_iterator<char>(in), {});
    EXPECT_NE(log.find("tonavi: control socket path too long (104 bytes); not starting"), std::string::npos);
    EXPECT_NE(log.find("Tonavi control server failed to start: "), std::string::npos);
}

TEST(Tonavictl, ExitStatusTellsOkFailureAndUnreachable) {
    PrivateHome home;
    auto [down, downOut] = run({binPath("tonavictl"), "ping"}, home.env());
    EXPECT_EQ(down, 2);
    EXPECT_NE(downOut.find("cannot connect: service not running ("), std::string::npos) << downOut;

    ChildProcess service = startService(home);
    auto [up, upOut] = run({binPath("tonavictl"), "ping"}, home.env());
    EXPECT_EQ(up, 0);
    EXPECT_EQ(upOut, "tonavi development\n");
    auto [sent, sentOut] = run({binPath("tonavictl"), "send", "{\"ping\":{}}"}, home.env());
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(sentOut, "{\"message\":\"tonavi development\",\"ok\":true}\n");
    // The service closes an undecodable request without a reply: no reply is not a success.
    auto [bad, badOut] = run({binPath("tonavictl"), "send", "{\"ping\":{},\"status\":{}}"}, home.env());
    EXPECT_EQ(bad, 2);
    EXPECT_NE(badOut.find("io error: "), std::string::npos) << badOut;
    service.signal(SIGTERM);
    EXPECT_EQ(service.wait(20s), std::optional<int>(0));
}
