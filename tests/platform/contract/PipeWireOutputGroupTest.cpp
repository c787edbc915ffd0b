// Output groups on PipeWire: an aggregate of devices without taps is a combined sink that plays on
// every member, can be the default output, goes when destroyed and dies with the process that
// made it.

#include <gtest/gtest.h>

#include "ContractRig.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"

namespace tonavi::test {
namespace {

constexpr const char* groupUID = "org.tonavi.test.group";

AggregateDeviceDescription groupOf(std::vector<std::string> members) {
    AggregateDeviceDescription group;
    group.uid = groupUID;
    group.name = "Test group";
    group.mainSubDevice = members.front();
    for (std::size_t i = 0; i < members.size(); ++i)
        group.subDevices.push_back({members[i], i > 0});
    return group;
}

bool hasSink(PipeWireConnection& graph, bool present) {
    return graph.waitUntil([&](const PipeWireGraph& g) { return (g.nodeByName(groupUID) != nullptr) == present; },
                           std::chrono::milliseconds(3000));
}

TEST(PipeWireOutputGroupTest, AGroupPlaysOnEveryMemberAndLeavesNothingBehind) {
    std::string why;
    auto* server = PrivatePipeWireServer::shared(&why);
    if (!server && PrivatePipeWireServer::programsMissing())
        GTEST_SKIP() << "no private PipeWire server: " << why;
    ASSERT_NE(server, nullptr) << why;
    PipeWireRig rig(*server);
    ASSERT_TRUE(rig.connected());
    auto& audio = rig.audio();

    AudioObjectID group = 0;
    EXPECT_EQ(audio.createAggregateDevice(groupOf({"speakers", "nowhere"}), group), kAudioHardwareBadDeviceError);
    ASSERT_EQ(audio.createAggregateDevice(groupOf({"speakers", "headphones"}), group), noErr);
    AudioObjectID again = 0;
    EXPECT_EQ(audio.createAggregateDevice(groupOf({"speakers", "headphones"}), again),
              kAudioHardwareIllegalOperationError)
        << "one device per UID";
    EXPECT_EQ(rig.deviceID(groupUID), group);
    std::uint32_t transport = 0;
    EXPECT_EQ(audio.get(group, globalAddress(kAudioDevicePropertyTransportType), transport), noErr);
    EXPECT_EQ(transport, kAudioDeviceTransportTypeAggregate);

    // As the default output, an application's sound reaches both members.
    AudioObjectID before = 0;
    audio.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice), before);
    ASSERT_EQ(audio.set(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice), group),
              noErr);
    const App app = rig.startApp("org.tonavi.Grouped", 660, AppKind::toneClient);
    EXPECT_TRUE(eventually([&] { return rig.heard("speakers", app) && rig.heard("headphones", app); }));

    EXPECT_EQ(audio.set(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice), before),
              noErr);
    ASSERT_EQ(audio.destroyAggregateDevice(group), noErr);
    EXPECT_EQ(rig.deviceID(groupUID), kAudioObjectUnknown);
    EXPECT_EQ(audio.destroyAggregateDevice(group), kAudioHardwareBadObjectError);
    EXPECT_EQ(audio.destroyAggregateDevice(rig.deviceID("speakers")), kAudioHardwareIllegalOperationError)
        << "a device this process did not make is not its to destroy";
    rig.stopApp(app);

    // Made by a process that is then killed: the sink goes with it.
    // The holder picks its backend from the environment, which the test binary sets to the simulator.
    const std::string command = std::string("TONAVI_AUDIO_BACKEND=pipewire exec '") + TONAVI_TAP_HOLDER +
                                "' --group " + groupUID + " speakers headphones";
    FILE* out = ::popen(command.c_str(), "r");
    ASSERT_NE(out, nullptr);
    int holder = 0;
    ASSERT_EQ(std::fscanf(out, "ready %d", &holder), 1);
    PipeWireConnection& graph = rig.pipewire().connection();
    EXPECT_TRUE(hasSink(graph, true));
    ::kill(holder, SIGKILL);
    ::pclose(out);
    EXPECT_TRUE(hasSink(graph, false)) << "the group outlived its maker";
}

} // namespace
} // namespace tonavi::test
