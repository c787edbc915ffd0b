// A default-output switch to a device that settles slowly is accepted at once but shows only after
// a number of reads, and fires the listeners when it lands.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "platform/sim/SimMachine.hpp"
#include "tests/platform/SimTestSupport.hpp"

namespace tonavi {
namespace {

constexpr const char* buds = "AC-DE-48-00-11-22:output";

SimWorld slowBudsWorld(std::uint32_t reads) {
    auto world = SimWorld::preset();
    world.deviceByUID(buds)->settleReads = reads;
    return world;
}

std::string defaultOutputUID(SimMachine& machine) {
    AudioObjectID id = 0;
    machine.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice), id);
    const auto* d = machine.world()->device(id);
    return d ? d->uid : std::string();
}

TEST(SimSettleTest, ASwitchToASlowDeviceLandsAfterItsReadsAndIsHeard) {
    SimMachine machine(slowBudsWorld(3));
    DispatchQueue queue("sim-settle-test");
    test::RecordingListener listener(queue);
    const auto address = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
    ASSERT_EQ(machine.addPropertyListener(kAudioObjectSystemObject, address, queue, listener.block), noErr);

    const auto budsID = machine.world()->deviceByUID(buds)->id;
    ASSERT_EQ(machine.set(kAudioObjectSystemObject, address, budsID), noErr);
    EXPECT_EQ(defaultOutputUID(machine), "BuiltInSpeakerDevice");
    EXPECT_EQ(defaultOutputUID(machine), "BuiltInSpeakerDevice");
    EXPECT_EQ(defaultOutputUID(machine), buds);
    EXPECT_TRUE(listener.waitForCalls(1));
    EXPECT_FALSE(machine.world()->pendingDefaultOutput);

    // A newer write supersedes a pending one; a pending device that goes away never lands.
    ASSERT_EQ(machine.set(kAudioObjectSystemObject, address, machine.world()->deviceByUID("BuiltInSpeakerDevice")->id),
              noErr);
    ASSERT_EQ(machine.set(kAudioObjectSystemObject, address, machine.world()->deviceByUID(buds)->id), noErr);
    ASSERT_EQ(machine.mutate([](SimWorld& w) { return w.unplug(buds); }), "");
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(defaultOutputUID(machine), "BuiltInSpeakerDevice");
}

TEST(SimSettleTest, SettlingSurvivesTheWorldFile) {
    auto world = slowBudsWorld(7);
    world.pendingDefaultOutput = SimWorld::PendingDefault{buds, 2};
    const auto json = simWorldToJSON(world);
    EXPECT_EQ(json.at("pendingDefaultOutput"), (nlohmann::json{{"readsLeft", 2}, {"uid", buds}}));
    std::string error;
    const auto back = simWorldFromJSON(json, error);
    ASSERT_TRUE(back) << error;
    EXPECT_EQ(back->deviceByUID(buds)->settleReads, 7u);
    EXPECT_EQ(back->pendingDefaultOutput->readsLeft, 2u);
    EXPECT_FALSE(simWorldToJSON(SimWorld::preset()).contains("pendingDefaultOutput"));
}

} // namespace
} // namespace tonavi
