// tonavictl sim as a user drives it: each command is a separate process editing one world file.

#include "tests/integration/ChildProcess.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using namespace tonavi::testing;

TEST(SimDriver, CommandsChangeTheSharedWorldAndRefusalsLeaveItAlone) {
    PrivateHome home{"sim"};
    Env env = home.env();
    env["TONAVI_SIM_WORLD"] = home.home + "/world.json";
    const auto sim = [&](std::vector<std::string> args) {
        args.insert(args.begin(), "sim");
        return ctl(env, args);
    };
    // The name of the device with the UID, or "" when there is none.
    const auto deviceName = [&](const std::string& uid) {
        auto [status, out] = sim({"show", "--json"});
        EXPECT_EQ(status, 0) << out;
        const auto world = nlohmann::json::parse(out);
        for (const auto& d : world["devices"])
            if (d.value("uid", "") == uid)
                return d.value("name", "?");
        return std::string();
    };
    ASSERT_EQ(sim({"init"}).first, 0);
    const std::string usb = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
    EXPECT_EQ(deviceName(usb), "USB Headphones");
    EXPECT_EQ(deviceName("AirPlay:Living-Room-Speaker"), "Living Room");
    EXPECT_EQ(sim({"rename", usb, "Desk Phones"}).first, 0);
    EXPECT_EQ(deviceName(usb), "Desk Phones");

    const std::string before = sim({"show", "--json"}).second;
    auto [missing, missingOut] = sim({"unplug", "no-such-device"});
    EXPECT_EQ(missing, 1);
    EXPECT_NE(missingOut.find("no device no-such-device"), std::string::npos) << missingOut;
    EXPECT_EQ(sim({"show", "--json"}).second, before) << "a refused command must not change the world";
    EXPECT_EQ(sim({"bogus"}).first, 64);

    auto [text, shown] = sim({"show"});
    EXPECT_EQ(text, 0);
    EXPECT_NE(shown.find("com.apple.Music  playing 440 Hz"), std::string::npos) << shown;
    EXPECT_EQ(sim({"stop", "com.apple.Music"}).first, 0);
    EXPECT_EQ(sim({"show"}).second.find("com.apple.Music  playing"), std::string::npos);
}
