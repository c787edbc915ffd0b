// The service as a real process: single instance, stale files, termination, the worker flag, and
// tonavictl against it.

#include "core/import/SoundSourceImporter.hpp"
#include "core/wire/TonaviChannel.hpp"
#include "tests/core/import/SoundSourcePlist.hpp"
#include "tests/integration/ChildProcess.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

using namespace tonavi;
using namespace tonavi::testing;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

// A second copy exits 0 and the first keeps serving; SIGTERM stops it cleanly.
TEST(ServiceProcess, SingleInstanceCleanStopAndStaleFiles) {
    PrivateHome home;
    ChildProcess first = startService(home);
    struct stat before {
    }, after{};
    ASSERT_EQ(::stat(home.socketPath().c_str(), &before), 0);
    EXPECT_EQ(run({binPath("tonavi-service")}, home.env()).first, 0);
    ASSERT_EQ(::stat(home.socketPath().c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino) << "the second copy must not touch the first one's socket";
    EXPECT_TRUE(answersPing(home.socketPath()));

    EXPECT_EQ(first.stop(), std::optional<int>(0));
    EXPECT_FALSE(fs::exists(home.socketPath()));
    const std::string log = home.logText();
    for (const char* line : {"Tonavi service development starting", "Tonavi service ready",
                             "Tonavi service: another instance already owns the runtime; exiting",
                             "Tonavi service shutting down"})
        EXPECT_NE(log.find(line), std::string::npos) << line;
    EXPECT_TRUE(fs::exists(home.supportDir() + "/service.lock")) << "the lock file is never deleted";

    // A killed service leaves stale files that do not block the next start.
    ChildProcess killed = startService(home, {{"TONAVI_APP_VERSION", "4.5.6"}});
    EXPECT_EQ(TonaviChannel::send(home.socketPath(), TonaviRequest::ping(), 5).message, "tonavi 4.5.6");
    killed.signal(SIGKILL);
    killed.wait(20s);
    ASSERT_TRUE(fs::exists(home.socketPath())) << "a killed service leaves its socket file";
    EXPECT_FALSE(answersPing(home.socketPath()));
    ChildProcess next = startService(home);
    EXPECT_EQ(next.stop(), std::optional<int>(0));
}

// The worker flag never takes the lock or opens the socket; a socket path that is too long stops
// the service with status 1.
TEST(ServiceProcess, WorkersAndUnusableSocketPathsNeverServe) {
    PrivateHome home;
    EXPECT_EQ(run({binPath("tonavi-service"), "--tonavi-tap-worker"}, home.env()).first, 64);
    // Without a first state on its stdin a worker gives up with 65.
    auto [noState, out] =
        run({"/bin/sh", "-c",
             "exec '" + binPath("tonavi-service") + "' --tonavi-tap-worker com.apple.Safari </dev/null"},
            home.env());
    EXPECT_EQ(noState, 65);
    EXPECT_NE(out.find("missing initial render state"), std::string::npos) << out;
    EXPECT_FALSE(fs::exists(home.supportDir() + "/service.lock"));
    EXPECT_FALSE(fs::exists(home.socketPath()));

    // Pad the home so that the socket path is 104 bytes.
    const std::string suffix = "/.local/share/Tonavi/control.sock";
    const std::string longHome =
        home.home + "/" + std::string(104 - suffix.size() - home.home.size() - 1, 'h');
    fs::create_directories(longHome);
    auto env = home.env();
    env["HOME"] = longHome;
    EXPECT_EQ(run({binPath("tonavi-service")}, env).first, 1);
    const std::string log = readFile(longHome + "/.local/state/Tonavi/Tonavi-service.log");
    EXPECT_NE(log.find("tonavi: control socket path too long (104 bytes); not starting"), std::string::npos);
    EXPECT_NE(log.find("Tonavi control server failed to start: "), std::string::npos);
}

// Exit statuses tell success, refusal and an unreachable service; a change made by name shows in
// the next status; names that match nothing are refused before anything is sent.
TEST(Tonavictl, ExitStatusesAndChangesByName) {
    PrivateHome home;
    auto [down, downOut] = ctl(home.env(), {"ping"});
    EXPECT_EQ(down, 2);
    EXPECT_NE(downOut.find("cannot connect: service not running ("), std::string::npos) << downOut;

    ChildProcess service = startService(home);
    EXPECT_EQ(ctl(home.env(), {"ping"}), std::make_pair(0, std::string("tonavi development\n")));
    EXPECT_EQ(ctl(home.env(), {"send", R"({"ping":{}})"}),
              std::make_pair(0, std::string("{\"message\":\"tonavi development\",\"ok\":true}\n")));
    // The service closes an undecodable request without a reply: no reply is not a success.
    auto [bad, badOut] = ctl(home.env(), {"send", R"({"ping":{},"status":{}})"});
    EXPECT_EQ(bad, 2);
    EXPECT_NE(badOut.find("io error: "), std::string::npos) << badOut;

    // A row for the app, so that its name is known; the service names com.apple.Music "Music".
    ASSERT_EQ(
        ctl(home.env(), {"send", R"({"setAppMuted":{"bundleID":"com.apple.Music","muted":false}})"}).first,
        0);
    EXPECT_EQ(ctl(home.env(), {"volume", "music", "30%"}).first, 0);
    const std::string table = ctl(home.env(), {"status"}).second;
    const auto at = table.find("\n  Music "); // the row of the table that starts with the name
    const std::string row = at == std::string::npos ? "" : table.substr(at, table.find('\n', at + 1) - at);
    EXPECT_TRUE(row.find("com.apple.Music") != std::string::npos && row.find(" 30% ") != std::string::npos)
        << table;
    EXPECT_DOUBLE_EQ(appVolume(home.env(), "com.apple.Music"), 0.3) << table;

    auto [unknown, unknownOut] = ctl(home.env(), {"mute", "Musik"});
    EXPECT_EQ(unknown, 1);
    EXPECT_NE(unknownOut.find("did you mean: Music (com.apple.Music)?"), std::string::npos) << unknownOut;
    auto [usage, usageOut] = ctl(home.env(), {"volume", "Music", "loud"});
    EXPECT_EQ(usage, 64);
    EXPECT_NE(usageOut.find("is not a number"), std::string::npos) << usageOut;
    EXPECT_EQ(service.stop(), std::optional<int>(0));
}

// A SoundSource mixer where a Mac keeps it, under the home folder: nothing changes until the user says
// yes, then the service takes it as its configuration.
TEST(Tonavictl, ImportBringsASoundSourceMixerInOnlyWhenAskedTo) {
    PrivateHome home;
    ChildProcess service = startService(home);
    const auto path = fs::path(home.home) / SoundSourceImporter::defaultSourcesURL;
    fs::create_directories(path.parent_path());
    const auto data = test::bytes(
        test::dict({{"modelItems", test::array({test::appSource("com.example.Player", "Player",
                                                                {{"volumeProperties", test::dict({{"volume", test::real(0.25)}})}},
                                                                {test::plugin("Reverb", 1)})})}}),
        true);
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(data.data()), data.size());
    const std::string report = "SoundSource: 1 applications, 0 effects to import\nskipped:\n"
                               "  Player: Reverb needs a fresh plugin preset\n";
    // Nobody answers the question (stdin is the null device): nothing is sent.
    const auto [declined, declinedOut] = ctl(home.env(), {"import"});
    EXPECT_TRUE(declined == 1 && declinedOut == report + "Replace the current setup with this one? [y/N] "
                                                         "tonavictl: not imported: the current setup is kept\n")
        << declinedOut;
    const auto [imported, importedOut] = ctl(home.env(), {"import", "--yes"});
    EXPECT_EQ(imported, 0);
    EXPECT_TRUE(importedOut.starts_with(report + "Imported ") && importedOut.ends_with(" app settings safely.\n"))
        << importedOut;
    EXPECT_EQ(appVolume(home.env(), "com.example.Player"), 0.25) << ctl(home.env(), {"status"}).second;
    EXPECT_EQ(ctl(home.env(), {"import", "--sources", home.home + "/absent"}),
              std::make_pair(1, std::string("tonavictl: No SoundSource mixer was found on this Mac.\n")));
    EXPECT_EQ(service.stop(), std::optional<int>(0));
}
