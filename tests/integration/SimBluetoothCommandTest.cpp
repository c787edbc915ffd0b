// tonavictl sim's Bluetooth facts and slow settling, as a user sets them by hand.

#include "tests/integration/ChildProcess.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using namespace tonavi::testing;

namespace {

struct SimFile {
    PrivateHome home{"sim-bt"};
    std::pair<int, std::string> ctl(std::vector<std::string> args) const {
        auto env = home.env();
        env["TONAVI_SIM_WORLD"] = home.home + "/world.json";
        args.insert(args.begin(), {binPath("tonavictl"), "sim"});
        return run(args, env);
    }
    nlohmann::json device(const std::string& uid) const {
        auto [status, out] = ctl({"show", "--json"});
        EXPECT_EQ(status, 0) << out;
        const auto world = nlohmann::json::parse(out);
        for (const auto& d : world["devices"])
            if (d.value("uid", "") == uid)
                return d;
        return {};
    }
};

TEST(SimBluetoothCommand, SetsRegistryFactsAndSettleReadsOrRefusesWithoutAChange) {
    SimFile sim;
    const std::string buds = "AC-DE-48-00-11-22:output";
    ASSERT_EQ(sim.ctl({"init"}).first, 0);
    EXPECT_EQ(sim.device(buds)["bluetooth"],
              (nlohmann::json{{"battery", 80}, {"codec", "AAC"}, {"rssi", -62}}));

    EXPECT_EQ(sim.ctl({"bluetooth", buds, "--battery", "35", "--rssi", "-81"}).first, 0);
    EXPECT_EQ(sim.ctl({"settle", buds, "12"}).first, 0);
    const auto changed = sim.device(buds);
    EXPECT_EQ(changed["bluetooth"], (nlohmann::json{{"battery", 35}, {"codec", "AAC"}, {"rssi", -81}}));
    EXPECT_EQ(changed["settleReads"], 12);

    EXPECT_EQ(sim.ctl({"bluetooth", "BuiltInSpeakerDevice", "--battery", "10"}).first, 1);
    EXPECT_EQ(sim.ctl({"bluetooth", buds, "--battery", "101"}).first, 64);
    EXPECT_EQ(sim.ctl({"settle", "nowhere", "3"}).first, 1);
    EXPECT_EQ(sim.ctl({"settle", buds, "-1"}).first, 64);
    EXPECT_EQ(sim.device(buds), changed);
}

} // namespace
