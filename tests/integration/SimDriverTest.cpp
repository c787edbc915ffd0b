// tonavictl sim as a user drives it: each command is a separate process editing one world file.

#include "tests/integration/ChildProcess.hpp"

#include <gtest/gtest.h>

using namespace tonavi::testing;

TEST(SimDriver, CommandsChangeTheSharedWorldAndRefusalsLeaveItAlone) {
    PrivateHome home{"sim"};
    Env env = home.env();
    env["TONAVI_SIM_WORLD"] = home.home + "/world.json";
    const auto sim = [&](std::vector<std::string> args) {
        args.insert(args.begin(), "sim");
        return ctl(env, args);
    };
    ASSERT_EQ(sim({"init"}).first, 0);
    const std::string usb = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
    EXPECT_EQ(sim({"rename", usb, "Desk Phones"}).first, 0);
    const std::string before = sim({"show", "--json"}).second;
    EXPECT_NE(before.find(R"("name": "Desk Phones")"), std::string::npos) << before;
    auto [missing, missingOut] = sim({"unplug", "no-such-device"});
    EXPECT_EQ(missing, 1);
    EXPECT_NE(missingOut.find("no device no-such-device"), std::string::npos) << missingOut;
    EXPECT_EQ(sim({"show", "--json"}).second, before) << "a refused command must not change the world";
    EXPECT_EQ(sim({"bogus"}).first, 64);

    EXPECT_NE(sim({"show"}).second.find("com.apple.Music  playing 440 Hz"), std::string::npos);
    EXPECT_EQ(sim({"stop", "com.apple.Music"}).first, 0);
    EXPECT_EQ(sim({"show"}).second.find("com.apple.Music  playing"), std::string::npos);
}
