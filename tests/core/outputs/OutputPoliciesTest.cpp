#include "core/outputs/AudioEndpointResolver.hpp"
#include "core/outputs/AutomaticOutputPolicy.hpp"
#include "core/outputs/BluetoothEndpointIdentity.hpp"
#include "core/outputs/BluetoothFacts.hpp"
#include "core/outputs/BluetoothReadThrottle.hpp"
#include "core/outputs/OutputGroupIdentity.hpp"
#include "core/outputs/OutputGroupValidationError.hpp"
#include "core/outputs/OutputSelectionOrder.hpp"
#include "core/outputs/OutputTopologyTracker.hpp"
#include "core/outputs/PreferredOutputPolicy.hpp"

#include <gtest/gtest.h>
#include <tuple>

namespace tonavi {
namespace {

using T = DeviceLiveStatus::Transport;
using Candidate = AutomaticOutputCandidate;

const Candidate speakers{"builtin-speakers", "MacBook Pro Speakers", T::builtin, true, false};
const Candidate headphonePort{"builtin-port", "External Headphones", T::builtin, true, false};
const Candidate airpods{"bt-airpods", "AirPods Pro", T::bluetooth, true, false};
const Candidate buds{"bt-buds", "Earbuds", T::bluetooth, true, false};
const Candidate dac{"usb-dac", "USB DAC", T::usb, true, false};
const Candidate interface { "usb-interface", "Studio Interface", T::usb, true, false };
const Candidate jbl{"usb-jbl", "jBl Quantum", T::usb, true, false};
const Candidate loopback{"virtual-loop", "Loopback", T::virtual_, true, false};
const Candidate group{"aggregate-group", "Group", T::aggregate, true, false};
const Candidate hiddenBuds{"bt-hidden", "Hidden Buds", T::bluetooth, true, true};

TEST(AutomaticOutputPolicy, PicksByTheRulesOfAppearance) {
    struct Case {
        const char* why;
        std::set<std::string> appeared;
        std::optional<Candidate> current;
        std::vector<std::string> preferred;
        std::optional<std::string> expected;
    };
    const std::vector<Candidate> all{speakers,  headphonePort, airpods,  buds,  dac,
                                     interface, jbl,           loopback, group, hiddenBuds};
    const std::vector<Case> cases{
        {"airpods appear over speakers", {airpods.uid}, speakers, {}, airpods.uid},
        {"a dac never moves someone on airpods", {dac.uid}, airpods, {}, std::nullopt},
        {"unless it is preferred", {dac.uid}, interface, {dac.uid}, dac.uid},
        {"a dac never takes over from a usb interface", {dac.uid}, interface, {}, std::nullopt},
        {"nor from wired headphones on the built-in port", {dac.uid}, headphonePort, {}, std::nullopt},
        {"two personal devices: lower uid", {airpods.uid, buds.uid}, speakers, {}, airpods.uid},
        {"a preference overrides the uid order", {airpods.uid, buds.uid}, speakers, {buds.uid}, buds.uid},
        {"virtual never wins, even preferred", {loopback.uid}, speakers, {loopback.uid}, std::nullopt},
        {"hidden never wins", {hiddenBuds.uid}, speakers, {}, std::nullopt},
        {"no current output: a speaker takes over", {dac.uid}, std::nullopt, {}, dac.uid},
        {"a usb JBL counts as personal", {jbl.uid}, interface, {}, jbl.uid}};
    for (const auto& c : cases)
        EXPECT_EQ(AutomaticOutputPolicy::pick(c.appeared, c.current, all, c.preferred), c.expected) << c.why;
}

TEST(AutomaticOutputPolicy, ClassifiesNamesByWordsAndTokens) {
    namespace A = AutomaticOutputPolicy;
    EXPECT_FALSE(A::isRoomAudio("Mytvbox", T::usb)); // a token, not a substring
    EXPECT_TRUE(A::isRoomAudio("LG HDMI-Monitor", T::other));
    EXPECT_TRUE(A::isPersonalAudio("BOSE QC45", T::usb));
    EXPECT_TRUE(A::isProtectedName("Studio Headset"));
    EXPECT_FALSE(A::isProtectedName("JBL Flip"));
}

TEST(PreferredOutputPolicy, SessionChoiceStandsWhilePresentThenTheOrderDecides) {
    const std::set<std::string> available{"a", "b", "c"};
    EXPECT_EQ(PreferredOutputPolicy::pick(std::string("b"), available, {"c", "a"}), std::nullopt);
    EXPECT_EQ(PreferredOutputPolicy::pick(std::string("gone"), available, {"x", "c", "a"}), "c");
    EXPECT_EQ(PreferredOutputPolicy::pick(std::nullopt, available, {"x"}), std::nullopt);
}

TEST(OutputTopologyTracker, FirstCallIsABaselineThenReportsEveryDifference) {
    OutputTopologyTracker tracker;
    const std::map<std::string, OutputRouteSignature> first{
        {"spk", {10, 48000, 2, true}}, {"usb", {11, 44100, 2, true}}, {"bt", {12, 48000, 2, true}}};
    EXPECT_TRUE(tracker.update(first).empty());
    auto second = first;
    second.erase("bt");                    // vanished
    second["usb"].sampleRate = 96000;      // reformatted
    second["dock"] = {13, 48000, 6, true}; // appeared
    EXPECT_EQ(tracker.update(second), (std::set<std::string>{"bt", "dock", "usb"}));
    EXPECT_TRUE(tracker.update(second).empty());
}

TEST(BluetoothEndpointIdentity, StripsOneEndpointSuffix) {
    EXPECT_TRUE(BluetoothEndpointIdentity::sameDevice("X:input", "X:output"));
    EXPECT_FALSE(BluetoothEndpointIdentity::sameDevice("X:input:input", "X"));
    EXPECT_TRUE(BluetoothEndpointIdentity::sameDevice("bluez_input.AA_BB.0", "bluez_output.AA_BB.1"));
    EXPECT_FALSE(BluetoothEndpointIdentity::sameDevice("bluez_input.AA_BB.0", "bluez_output.AA_CC.1"));
}

DeviceLiveStatus device(std::string id, std::string name, std::string nickname, bool out) {
    DeviceLiveStatus d;
    std::tie(d.id, d.name, d.nickname, d.isOutput, d.isInput) = std::tuple(id, name, nickname, out, !out);
    return d;
}

TEST(AudioEndpointResolver, PassesAreStrictInOrder) {
    const std::vector<DeviceLiveStatus> devices{
        device("usb-1", "USB Headphones", "", true), device("spk", "Speakers", "desk", true),
        device("mic", "Microphone", "", false), device("Speakers", "Other", "", true)};
    const std::vector<std::tuple<const char*, AudioEndpointRole, std::optional<std::string>>> cases{
        {"Speakers", AudioEndpointRole::output, "Speakers"}, // exact ID on the last beats a name on the first
        {"speakers", AudioEndpointRole::output, "spk"},
        {"DESK", AudioEndpointRole::output, "spk"},
        {"head", AudioEndpointRole::output, "usb-1"},
        {"mic", AudioEndpointRole::output, std::nullopt},
        {"micro", AudioEndpointRole::any, "mic"}};
    for (const auto& [text, role, expected] : cases)
        EXPECT_EQ(AudioEndpointResolver::resolve(text, devices, role), expected) << text;
}

TEST(OutputSelectionOrder, AcceptsOnlyNewerGenerationsPerClient) {
    const std::tuple<const char*, std::uint64_t, bool> cases[] = {
        {"", 5, false}, {"a", 0, false}, {"a", 3, true}, {"a", 3, false}, {"b", 1, true}, {"a", 4, true}};
    OutputSelectionOrder order;
    for (const auto& [client, generation, accepted] : cases)
        EXPECT_EQ(order.accept(client, generation), accepted) << client << " " << generation;
    EXPECT_EQ(order.clients, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(order.generations.at("a"), 4u);
}

TEST(OutputSelectionOrder, TheClientAfterTheLimitEvictsTheFirstKnownNotTheLeastRecent) {
    OutputSelectionOrder order;
    for (int i = 0; i < 128; ++i)
        ASSERT_TRUE(order.accept("client" + std::to_string(i), 10));
    ASSERT_TRUE(order.accept("client0", 11)); // recent use does not protect the oldest
    ASSERT_TRUE(order.accept("newcomer", 1));
    EXPECT_EQ(order.clients.front(), "client1");
    // Forgotten, so its next call counts as new whatever its generation.
    EXPECT_TRUE(order.accept("client0", 1));
    EXPECT_FALSE(order.generations.contains("client1"));
}

using Kind = OutputGroupValidationError::Kind;

OutputGroup outputGroup(std::string id, std::string name, std::vector<std::string> members) {
    OutputGroup g;
    g.id = std::move(id);
    g.name = std::move(name);
    for (auto& m : members)
        g.members.push_back({m, 1.0, false});
    return g;
}

TEST(OutputGroupIdentity, AggregateUIDIsTheFNV1aHashOfTheID) {
    EXPECT_EQ(OutputGroupIdentity::aggregateDeviceUID(""),
              "com.brelmoor.tonavi.output-group.CBF29CE484222325");
    EXPECT_EQ(OutputGroupIdentity::aggregateDeviceUID("a"),
              "com.brelmoor.tonavi.output-group.AF63DC4C8601EC8C");
    EXPECT_EQ(OutputGroupIdentity::aggregateDeviceUID(outputGroup("g1", "One", {})),
              OutputGroupIdentity::aggregateDeviceUID(outputGroup("g1", "Renamed", {})));
}

TEST(OutputGroupIdentity, ValidationNamesTheFirstFailedRule) {
    const std::string self = OutputGroupIdentity::aggregateDeviceUID("g");
    const std::string recursive = "output groups cannot contain another Tonavi output group";
    const std::vector<std::tuple<OutputGroup, std::optional<Kind>, std::string>> cases{
        {outputGroup("g", " \n\t", {"a", "b"}), Kind::emptyName, "output group needs a name"},
        {outputGroup("g", "Desk", {"a"}), Kind::tooFewMembers, "output group needs at least two output devices"},
        {outputGroup("g", "Desk", {"a", ""}), Kind::emptyMemberUID, "output group contains a device with no UID"},
        {outputGroup("g", "Desk", {"a", "b", "a"}), Kind::duplicateMemberUID,
         "an output device can appear only once in a group"},
        {outputGroup("g", "Desk", {"a", self}), Kind::recursiveGroup, recursive},
        {outputGroup("g", "Desk", {"a", "com.brelmoor.tonavi.output-group.NOSUCH"}), Kind::recursiveGroup, recursive},
        {outputGroup("g", "Desk", {"a", "b"}), std::nullopt, ""}};
    for (const auto& [group, expected, text] : cases) {
        std::optional<Kind> failed;
        try {
            EXPECT_EQ(OutputGroupIdentity::validatedMemberUIDs(group), (std::vector<std::string>{"a", "b"}));
        } catch (const OutputGroupValidationError& e) {
            failed = e.kind();
            EXPECT_EQ(e.what(), text);
        }
        EXPECT_EQ(failed, expected) << group.name;
    }
}

using BluetoothFacts::battery;

TEST(BluetoothFacts, SignalQualityEdges) {
    const std::vector<std::pair<std::optional<std::int64_t>, std::optional<std::string>>> cases = {
        {-59, "strong"}, {-60, "fair"}, {-74, "fair"}, {-75, "weak"}, {std::nullopt, std::nullopt}};
    for (const auto& [rssi, quality] : cases)
        EXPECT_EQ(BluetoothFacts::quality(rssi), quality) << rssi.value_or(0);
}

TEST(BluetoothFacts, BatteryLevelsAsTheSystemWritesThem) {
    EXPECT_EQ(BluetoothFacts::percent("75%"), 75);
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
