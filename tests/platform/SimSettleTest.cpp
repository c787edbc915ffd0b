// A default-output switch to a device that settles slowly is accepted at once but shows only after
// a number of reads, and fires the listeners when it lands.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/sim/SimMachine.hpp"
#include "tests/platform/SimTestSupport.hpp"

namespace tonavi {
namespace {

using namespace tonavi::test;

TEST(SimSettleTest, ASwitchToASlowDeviceLandsAfterItsReadsAndIsHeard) {
    auto world = SimWorld::preset();
    world.deviceByUID(budsUID)->settleReads = 3;
    SimMachine machine(world);
    DispatchQueue queue("sim-settle-test");
    RecordingListener listener(queue);
    const auto address = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
    ASSERT_EQ(machine.addPropertyListener(kAudioObjectSystemObject, address, queue, listener.block), noErr);
    const auto current = [&] {
        return machine.world()->device(*read<AudioObjectID>(machine, 1, address))->uid;
    };
    const auto write = [&](const std::string& uid) {
        return machine.set(kAudioObjectSystemObject, address, machine.world()->deviceByUID(uid)->id);
    };
    ASSERT_EQ(write(budsUID), noErr);
    // A braced list reads in order.
    EXPECT_EQ((std::vector<std::string>{current(), current(), current()}),
              (std::vector<std::string>{speakersUID, speakersUID, budsUID}));
    EXPECT_TRUE(listener.waitForCalls(1));

    // A newer write supersedes a pending one; a pending device that goes away never lands.
    ASSERT_EQ(write(speakersUID), noErr);
    ASSERT_EQ(write(budsUID), noErr);
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.unplug(budsUID); }), "");
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(current(), speakersUID);
    EXPECT_FALSE(simWorldToJSON(*machine.world()).contains("pendingDefaultOutput"));
}

} // namespace
} // namespace tonavi
