#include "core/outputs/BluetoothFacts.hpp"
#include "core/outputs/BluetoothReadThrottle.hpp"

#include <gtest/gtest.h>

namespace tonavi {
namespace {

using BluetoothFacts::battery;

TEST(BluetoothFacts, SignalQualityEdges) {
    const std::vector<std::pair<std::optional<std::int64_t>, std::optional<std::string>>> cases = {
        {-59, "strong"}, {-60, "fair"}, {-74, "fair"}, {-75, "weak"}, {std::nullopt, std::nullopt}};
    for (const auto& [rssi, quality] : cases)
        EXPECT_EQ(BluetoothFacts::quality(rssi), quality) << rssi.value_or(0);
}

TEST(BluetoothFacts, BatteryLevelsAsTheSystemWritesThem) {
    EXPECT_EQ(BluetoothFacts::percent("75%"), 75);
    EXPECT_EQ(BluetoothFacts::percent("75"), 75);
    for (const char* bad : {"", "%", "abc", "7 5%", "75%%x"})
        EXPECT_EQ(BluetoothFacts::percent(bad), std::nullopt) << bad;

    // Earbuds last as long as their weaker side; one side alone does not count as the device.
    EXPECT_EQ(battery("80%", "60%", "90%", std::nullopt), 60);
    EXPECT_EQ(battery("80%", std::nullopt, std::nullopt, std::nullopt), std::nullopt);
    EXPECT_EQ(battery("80%", "n/a", std::nullopt, "55%"), 55);
    EXPECT_EQ(battery(std::nullopt, std::nullopt, "bad", "40"), 40);
}

TEST(BluetoothFacts, AddressesFromUIDsAndBytes) {
    const std::vector<std::pair<std::string, std::string>> uids = {
        {"AC-DE-48-00-11-22:output", "ac:de:48:00:11:22"},
        {"bluez_output.AC_DE_48_00_11_22.1", "ac:de:48:00:11:22"},
        {"BuiltInSpeakerDevice", "builtinspeakerdevice"}};
    for (const auto& [uid, mac] : uids)
        EXPECT_EQ(BluetoothFacts::macFromUID(uid), mac) << uid;

    EXPECT_EQ(BluetoothFacts::macFromBytes({0xac, 0xde, 0x48, 0x00, 0x11, 0x22}), "ac:de:48:00:11:22");
    EXPECT_EQ(BluetoothFacts::macFromBytes({0xac, 0xde, 0x48, 0x00, 0x11}), std::nullopt);
}

TEST(BluetoothFacts, BlueZObjectsGiveBatteryAndSignalByAddress) {
    const std::string managed = R"({"type":"a{oa{sa{sv}}}","data":[{
        "/org/bluez/hci0": {"org.bluez.Adapter1": {"Address": {"type":"s","data":"00:1A:7D:DA:71:13"}}},
        "/org/bluez/hci0/dev_AC_DE_48_00_11_22": {
            "org.bluez.Device1": {"Address": {"type":"s","data":"AC:DE:48:00:11:22"},
                                  "RSSI": {"type":"n","data":-66}},
            "org.bluez.Battery1": {"Percentage": {"type":"y","data":75}}},
        "/org/bluez/hci0/dev_11_22_33_44_55_66": {
            "org.bluez.Device1": {"Address": {"type":"s","data":"11:22:33:44:55:66"}}},
        "/org/bluez/hci0/dev_broken": {"org.bluez.Device1": {"Name": {"type":"s","data":"no address"}}}
    }]})";
    const std::map<std::string, BluetoothReading> expected = {{"ac:de:48:00:11:22", {75, -66}},
                                                              {"11:22:33:44:55:66", {}}};
    EXPECT_EQ(BluetoothFacts::parseBlueZObjects(managed), expected);
    for (const char* bad : {"", "not json", R"({"data":[]})", R"({"type":"s","data":["x"]})"})
        EXPECT_TRUE(BluetoothFacts::parseBlueZObjects(bad).empty()) << bad;
}

TEST(BluetoothReadThrottle, OneReadEveryThirtySecondsAndNeverTwoAtOnce) {
    BluetoothReadThrottle throttle;
    ASSERT_TRUE(throttle.beginReadIfDue(100.0));
    EXPECT_FALSE(throttle.beginReadIfDue(100.5)); // a read in flight
    EXPECT_FALSE(throttle.beginReadIfDue(200.0)); // however long it takes

    // A failed read still counts, so it is not tried again at once.
    throttle.finishRead(200.0, {});
    EXPECT_FALSE(throttle.beginReadIfDue(229.9));
    ASSERT_TRUE(throttle.beginReadIfDue(230.0));
    throttle.finishRead(231.0, {{"ac:de:48:00:11:22", {40, -80}}});
    EXPECT_EQ(throttle.lookup("ac:de:48:00:11:22"), (BluetoothReading{40, -80}));
    EXPECT_FALSE(throttle.lookup("11:22:33:44:55:66"));
}

} // namespace
} // namespace tonavi
