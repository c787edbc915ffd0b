// A default-output switch to a device that settles slowly is accepted at once but shows only after
// a number of reads, and fires the listeners when it lands.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/sim/SimMachine.hpp"
#include "tests/platform/SimTestSupport.hpp"

namespace tonavi {
namespace {

TEST(SimSettleTest, ASwitchToASlowDeviceLandsAfterItsReadsAndIsHeard) {
    constexpr const char* buds = "AC-DE-48-00-11-22:output";
    auto world = SimWorld::preset();
    world.deviceByUID(buds)->settleReads = 3;
    SimMachine machine(world);
    DispatchQueue queue("sim-settle-test");
    test::RecordingListener listener(queue);
    const auto address = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
    ASSERT_EQ(machine.addPropertyListener(kAudioObjectSystemObject, address, queue, listener.block), noErr);
    auto current = [&] {
        AudioObjectID id = 0;
        machine.get(kAudioObjectSystemObject, address, id);
        return machine.world()->device(id)->uid;
    };
    auto write = [&](const std::string& uid) {
        return machine.set(kAudioObjectSystemObject, address, machine.world()->deviceByUID(uid)->id);
    };

    ASSERT_EQ(write(buds), noErr);
    EXPECT_EQ(current(), "BuiltInSpeakerDevice");
    EXPECT_EQ(current(), "BuiltInSpeakerDevice");
    EXPECT_EQ(current(), buds);
    EXPECT_TRUE(listener.waitForCalls(1));

    // A newer write supersedes a pending one; a pending device that goes away never lands.
    ASSERT_EQ(write("BuiltInSpeakerDevice"), noErr);
    ASSERT_EQ(write(buds), noErr);
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.unplug(buds); }), "");
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(current(), "BuiltInSpeakerDevice");
    EXPECT_FALSE(simWorldToJSON(*machine.world()).contains("pendingDefaultOutput"));
}

} // namespace
} // namespace tonavi
