// Injected failures and stalls: the next N calls of an operation fail with a chosen status, and
// property reads can be slowed, as a struggling audio daemon would behave.

#include <gtest/gtest.h>

#include "platform/sim/SimMachine.hpp"

namespace tonavi {
namespace {

using namespace std::chrono_literals;

TEST(SimFaultsTest, NextCallsOfAnOperationFailWithTheChosenStatus) {
    SimMachine machine(SimWorld::preset());
    const auto music = machine.world()->processes[2].id;
    ASSERT_EQ(machine.failNext(SimOperation::createTap, 2, kAudioHardwareIllegalOperationError), "");

    AudioObjectID tap = 0;
    const auto description = TapDescription::stereoMixdown({music});
    EXPECT_EQ(machine.createProcessTap(description, tap), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(machine.createProcessTap(description, tap), kAudioHardwareIllegalOperationError);
    EXPECT_TRUE(machine.world()->taps.empty());
    EXPECT_EQ(machine.createProcessTap(description, tap), noErr);
    EXPECT_TRUE(machine.world()->faults.empty());

    // A fault on one selector leaves the others alone.
    ASSERT_EQ(machine.failNext(SimOperation::getProperty, 1, kAudioHardwareBadObjectError,
                               kAudioHardwarePropertyDefaultOutputDevice),
              "");
    std::vector<AudioObjectID> devices;
    std::uint32_t output = 0;
    EXPECT_EQ(machine.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDevices), devices),
              noErr);
    EXPECT_EQ(machine.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice),
                          output),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(output, 0u); // a failed read leaves the value alone
    EXPECT_EQ(machine.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice),
                          output),
              noErr);

    // Starting IO and creating aggregates can fail too; the next try works.
    const auto speakers = machine.world()->devices[0].id;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(
        machine.createIOProcIDWithBlock(
            speakers, nullptr, [](const AudioBufferList&, AudioBufferList&, const AudioTimeStamp&) {}, proc),
        noErr);
    ASSERT_EQ(machine.failNext(SimOperation::deviceStart, 1, kAudioHardwareNotRunningError), "");
    EXPECT_EQ(machine.deviceStart(speakers, proc), kAudioHardwareNotRunningError);
    EXPECT_EQ(machine.world()->devices[0].runningIOProcs, 0u);
    EXPECT_EQ(machine.deviceStart(speakers, proc), noErr);
    EXPECT_EQ(machine.world()->devices[0].runningIOProcs, 1u);
    EXPECT_EQ(machine.deviceStop(speakers, proc), noErr);
}

TEST(SimFaultsTest, ADroppedWriteReportsSuccessAndChangesNothing) {
    SimMachine machine(SimWorld::preset());
    const auto address = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
    const AudioObjectID speakers = machine.world()->deviceByUID("BuiltInSpeakerDevice")->id;
    const AudioObjectID usb =
        machine.world()->deviceByUID("AppleUSBAudioEngine:Acme:USB Headphones:1400000:1")->id;
    ASSERT_EQ(
        machine.failNext(SimOperation::setProperty, 1, noErr, kAudioHardwarePropertyDefaultOutputDevice), "");
    std::uint32_t output = 0;
    EXPECT_EQ(machine.set(kAudioObjectSystemObject, address, usb), noErr);
    ASSERT_EQ(machine.get(kAudioObjectSystemObject, address, output), noErr);
    EXPECT_EQ(output, speakers);
    // Only that one write was lost.
    EXPECT_EQ(machine.set(kAudioObjectSystemObject, address, usb), noErr);
    ASSERT_EQ(machine.get(kAudioObjectSystemObject, address, output), noErr);
    EXPECT_EQ(output, usb);
}

TEST(SimFaultsTest, BadFaultRequestsAreRefusedAndChangeNothing) {
    SimMachine machine(SimWorld::preset());
    const auto generation = machine.world()->generation;
    EXPECT_EQ(machine.failNext(SimOperation::createTap, -1, kAudioHardwareIllegalOperationError),
              "a fault count is not negative");
    EXPECT_EQ(machine.failNext(SimOperation::createTap, 3, noErr),
              "a fault needs a non-zero status (only a write can be dropped silently)");
    EXPECT_EQ(machine.setReadDelay(-5ms), "a read delay is between 0 and 60000 ms");
    EXPECT_EQ(machine.world()->generation, generation);
    EXPECT_TRUE(machine.world()->faults.empty());
}

TEST(SimFaultsTest, SlowedReadsStallOnlyTheChosenProperty) {
    SimMachine machine(SimWorld::preset());
    ASSERT_EQ(machine.setReadDelay(60ms, kAudioHardwarePropertyDefaultOutputDevice), "");
    std::uint32_t output = 0;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(machine.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice),
                          output),
              noErr);
    EXPECT_GE(std::chrono::steady_clock::now() - before, 60ms);
    EXPECT_EQ(machine.world()->readDelaySelector, kAudioHardwarePropertyDefaultOutputDevice);
    // Turned off again, the stall is gone from the world.
    ASSERT_EQ(machine.setReadDelay(0ms), "");
    EXPECT_EQ(machine.world()->readDelayMilliseconds, 0u);
}

} // namespace
} // namespace tonavi
