// tonavictl sim as a user drives it: each command is a separate process editing one world file.

#include "tests/integration/ChildProcess.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using namespace tonavi::testing;

namespace {
struct SimWorld {
    PrivateHome home{"sim"};
    std::map<std::string, std::string> env() const {
        auto e = home.env();
        e["TONAVI_SIM_WORLD"] = home.home + "/world.json";
        return e;
    }
    std::pair<int, std::string> ctl(std::vector<std::string> args) const {
        args.insert(args.begin(), binPath("tonavictl"));
        args.insert(args.begin() + 1, "sim");
        return run(args, env());
    }
    nlohmann::json world() const {
        auto [status, out] = ctl({"show", "--json"});
        EXPECT_EQ(status, 0) << out;
        return nlohmann::json::parse(out);
    }
    static const nlohmann::json* device(const nlohmann::json& w, const std::string& uid) {
        for (const auto& d : w["devices"]) {
            if (d.value("uid", "") == uid) return &d;
        }
        return nullptr;
    }
};
}  // namespace

TEST(SimDriver, CommandsChangeTheSharedWorldAndRefusalsLeaveItAlone) {
    SimWorld sim;
    ASSERT_EQ(sim.ctl({"init"}).first, 0);
    nlohmann::json w = sim.world();
    const std::string usb = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
    ASSERT_NE(SimWorld::device(w, usb), nullptr);
    EXPECT_NE(SimWorld::device(w, "BuiltInSpeakerDevice"), nullptr);
    EXPECT_NE(SimWorld::device(w, "AirPlay:Living-Room-Speaker"), nullptr);

    EXPECT_EQ(sim.ctl({"rename", usb, "Desk Phones"}).first, 0);
    EXPECT_EQ(SimWorld::device(sim.world(), usb)->value("name", ""), "Desk Phones");

    nlohmann::json before = sim.world();
    auto [missing, missingOut] = sim.ctl({"unplug", "no-such-device"});
    EXPECT_EQ(missing, 1);
    EXPECT_NE(missingOut.find("no device no-such-device"), std::string::npos) << missingOut;
    EXPECT_EQ(sim.world(), before) << "a refused command must not change the world";
    EXPECT_EQ(sim.ctl({"bogus"}).first, 64);

    auto [text, shown] = sim.ctl({"show"});
    EXPECT_EQ(text, 0);
    EXPECT_NE(shown.find("Desk Phones"), std::string::npos);
    EXPECT_NE(shown.find("com.apple.Music  playing 440 Hz"), std::string::npos) << shown;
    EXPECT_EQ(sim.ctl({"stop", "com.apple.Music"}).first, 0);
    EXPECT_EQ(sim.ctl({"show"}).second.find("com.apple.Music  playing"), std::string::npos);
}
