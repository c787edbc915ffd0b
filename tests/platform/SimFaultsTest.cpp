// Injected failures and stalls: the next N calls of an operation fail with a chosen status, and
// property reads can be slowed, as a struggling audio daemon would behave.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "SimTestSupport.hpp"
#include "platform/sim/SimMachine.hpp"

namespace tonavi {
namespace {

using namespace std::chrono_literals;

TEST(SimFaultsTest, NextCallsOfAnOperationFailWithTheChosenStatusOrAreDroppedAndChangeNothing) {
    SimMachine machine(SimWorld::preset());
    const auto description = TapDescription::stereoMixdown({test::processOf(machine, "com.apple.Music")});
    const auto speakers = machine.world()->devices[0].id;
    const auto usb = machine.world()->deviceByUID(test::usbUID)->id;
    const auto output = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
    AudioObjectID tap = 0, read = 0;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(machine.createIOProcIDWithBlock(
                  speakers, nullptr, [](const auto&, auto&, const auto&) {}, proc),
              noErr);
    // Each operation, its fault, and the call that meets it; the next call works.
    struct Case {
        SimOperation operation;
        OSStatus status;
        AudioObjectPropertySelector selector;
        std::function<OSStatus()> call;
    };
    const Case cases[] = {
        {SimOperation::createTap, kAudioHardwareIllegalOperationError, 0,
         [&] { return machine.createProcessTap(description, tap); }},
        {SimOperation::getProperty, kAudioHardwareBadObjectError, kAudioHardwarePropertyDefaultOutputDevice,
         [&] { return machine.get(kAudioObjectSystemObject, output, read); }},
        {SimOperation::deviceStart, kAudioHardwareNotRunningError, 0,
         [&] { return machine.deviceStart(speakers, proc); }},
        {SimOperation::setProperty, noErr, kAudioHardwarePropertyDefaultOutputDevice,
         [&] { return machine.set(kAudioObjectSystemObject, output, usb); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.operation));
        read = 0;
        const auto before = simWorldToJSON(*machine.world());
        ASSERT_EQ(machine.failNext(c.operation, 2, c.status, c.selector), "");
        EXPECT_EQ(c.call(), c.status);
        EXPECT_EQ(c.call(), c.status);
        EXPECT_EQ(read, 0u); // a failed read leaves the value alone
        auto after = simWorldToJSON(*machine.world());
        after["generation"] = before["generation"];
        EXPECT_EQ(after, before) << "a failed or dropped call changed the world";
        EXPECT_EQ(c.call(), noErr);
        EXPECT_TRUE(machine.world()->faults.empty());
    }
    EXPECT_EQ(machine.world()->taps.size(), 1u);
    EXPECT_EQ(machine.world()->devices[0].runningIOProcs, 1u);
    EXPECT_EQ(test::read<AudioObjectID>(machine, kAudioObjectSystemObject, output), usb);
    // A fault on one selector leaves the others alone.
    ASSERT_EQ(machine.failNext(SimOperation::getProperty, 1, kAudioHardwareBadObjectError,
                               kAudioDevicePropertyMute),
              "");
    EXPECT_EQ(machine.get(kAudioObjectSystemObject, output, read), noErr);

    // Bad requests are refused and change nothing.
    const auto generation = machine.world()->generation;
    EXPECT_EQ(machine.failNext(SimOperation::createTap, -1, kAudioHardwareIllegalOperationError),
              "a fault count is not negative");
    EXPECT_EQ(machine.failNext(SimOperation::createTap, 3, noErr),
              "a fault needs a non-zero status (only a write can be dropped silently)");
    EXPECT_EQ(machine.setReadDelay(-5ms), "a read delay is between 0 and 60000 ms");
    EXPECT_EQ(machine.world()->generation, generation);
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
