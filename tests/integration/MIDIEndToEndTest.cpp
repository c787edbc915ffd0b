// A controller on the simulated machine drives the real service: `tonavictl sim midi` sends a Control
// Change through the world file, the service's mapper hears it and the app's volume moves; a button
// mapped to stage mode toggles it once per press.

#include "tests/integration/ChildProcess.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>

using namespace tonavi::testing;
using namespace std::chrono_literals;

namespace {

nlohmann::json status(const PrivateHome& home) {
    return nlohmann::json::parse(ctl(home.env(), {"status", "--json"}).second).at("status");
}

double musicVolume(const PrivateHome& home) {
    const nlohmann::json now = status(home); // the loop's range must outlive it
    for (const auto& app : now.at("apps"))
        if (app.at("id") == "com.apple.Music")
            return app.at("volume").get<double>();
    return -1;
}

} // namespace

TEST(MIDIEndToEnd, AControlChangeFromTheSimulatedControllerMovesAnAppAndAButtonTogglesStageOnce) {
    PrivateHome home;
    ChildProcess service = startService(home);
    EXPECT_TRUE(waitUntil([&] { return home.logText().find("tonavi: MIDI mapper listening (1 sources)") !=
                                       std::string::npos; },
                          5s))
        << home.logText();
    EXPECT_EQ(ctl(home.env(), {"midi"}), std::make_pair(0, std::string("  (no MIDI mappings)\n")));

    // A row for Music, so that its name is known.
    ASSERT_EQ(ctl(home.env(), {"send", R"({"setAppMuted":{"bundleID":"com.apple.Music","muted":false}})"}).first, 0);
    const auto [mapped, mappedOut] = ctl(home.env(), {"midi", "map", "1", "7", "volume", "Music"});
    ASSERT_EQ(mapped, 0) << mappedOut;
    EXPECT_NE(mappedOut.find("channel 1 cc 7: volume com.apple.Music (id "), std::string::npos) << mappedOut;
    ASSERT_EQ(ctl(home.env(), {"midi", "map", "any", "64", "stage"}).first, 0);
    const std::string table = ctl(home.env(), {"midi"}).second;
    EXPECT_NE(table.find("volume com.apple.Music"), std::string::npos) << table;
    EXPECT_NE(table.find("stage"), std::string::npos) << table;

    ASSERT_EQ(ctl(home.env(), {"sim", "midi", "nanoKONTROL", "cc", "1", "7", "64"}).first, 0);
    EXPECT_TRUE(waitUntil([&] { return std::abs(musicVolume(home) - 64 / 127.0) < 1e-9; }, 5s)) << musicVolume(home);

    // Three messages of one press, then a release: stage mode goes on once and stays on.
    for (const char* value : {"127", "120", "127", "0"})
        ASSERT_EQ(ctl(home.env(), {"sim", "midi", "nanoKONTROL", "cc", "5", "64", value}).first, 0);
    // Messages are handled in the order sent: once a later fader move shows, the press is all done.
    ASSERT_EQ(ctl(home.env(), {"sim", "midi", "nanoKONTROL", "cc", "1", "7", "100"}).first, 0);
    EXPECT_TRUE(waitUntil([&] { return std::abs(musicVolume(home) - 100 / 127.0) < 1e-9; }, 5s)) << musicVolume(home);
    EXPECT_TRUE(status(home).value("stageMode", false));

    // A source that is not there is refused, and the world is unchanged.
    const auto [refused, refusedOut] = ctl(home.env(), {"sim", "midi", "Keys", "cc", "1", "7", "1"});
    EXPECT_EQ(refused, 1);
    EXPECT_NE(refusedOut.find("no MIDI source \"Keys\""), std::string::npos) << refusedOut;

    const auto id = nlohmann::json::parse(ctl(home.env(), {"midi", "--json"}).second).at(0).at("id").get<std::string>();
    EXPECT_EQ(ctl(home.env(), {"midi", "unmap", id}).first, 0);
    EXPECT_EQ(nlohmann::json::parse(ctl(home.env(), {"midi", "--json"}).second).size(), 1u);

    // midi learn maps whichever control moves next; the controller keeps sending until it is heard.
    ChildProcess learn = ChildProcess::spawn({binPath("tonavictl"), "midi", "learn", "mute", "Music"}, home.env());
    EXPECT_TRUE(waitUntil([&] {
        ctl(home.env(), {"sim", "midi", "nanoKONTROL", "cc", "3", "21", "0"});
        return learn.wait(0ms).has_value();
    }, 10s));
    const std::string learnOut = learn.readAll();
    EXPECT_NE(learnOut.find("channel 3 cc 21: mute com.apple.Music (id "), std::string::npos) << learnOut;
    EXPECT_EQ(nlohmann::json::parse(ctl(home.env(), {"midi", "--json"}).second).size(), 2u);
    EXPECT_EQ(service.stop(), std::optional<int>(0));
}
