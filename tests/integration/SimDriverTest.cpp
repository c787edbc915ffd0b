// tonavictl sim as a user drives it: each command is a separate process editing one world file.

#include "tests/integration/ChildProcess.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using namespace tonavi::testing;

namespace {

const std::string usb = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
const std::string buds = "AC-DE-48-00-11-22:output";

struct SimFile {
    PrivateHome home{"sim"};
    std::pair<int, std::string> operator()(std::vector<std::string> args) const {
        auto env = home.env();
        env["TONAVI_SIM_WORLD"] = home.home + "/world.json";
        args.insert(args.begin(), "sim");
        return ctl(env, args);
    }
    nlohmann::json device(const std::string& uid) const {
        const auto world = nlohmann::json::parse((*this)({"show", "--json"}).second);
        for (const auto& d : world["devices"])
            if (d.value("uid", "") == uid)
                return d;
        return {};
    }
};

TEST(SimDriver, CommandsChangeTheSharedWorldAndRefusalsLeaveItAlone) {
    SimFile sim;
    ASSERT_EQ(sim({"init"}).first, 0);
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

    // Bluetooth facts and slow settling, as a user sets them by hand; refusals change nothing.
    EXPECT_EQ(sim.device(buds)["bluetooth"],
              (nlohmann::json{{"battery", 80}, {"codec", "AAC"}, {"rssi", -62}}));
    EXPECT_EQ(sim({"bluetooth", buds, "--battery", "35", "--rssi", "-81"}).first, 0);
    EXPECT_EQ(sim({"settle", buds, "12"}).first, 0);
    const auto changed = sim.device(buds);
    EXPECT_EQ(changed["bluetooth"], (nlohmann::json{{"battery", 35}, {"codec", "AAC"}, {"rssi", -81}}));
    EXPECT_EQ(changed["settleReads"], 12);
    EXPECT_EQ(sim({"bluetooth", "BuiltInSpeakerDevice", "--battery", "10"}).first, 1);
    EXPECT_EQ(sim({"bluetooth", buds, "--battery", "101"}).first, 64);
    EXPECT_EQ(sim({"settle", "nowhere", "3"}).first, 1);
    EXPECT_EQ(sim({"settle", buds, "-1"}).first, 64);
    EXPECT_EQ(sim.device(buds), changed);
}

} // namespace
