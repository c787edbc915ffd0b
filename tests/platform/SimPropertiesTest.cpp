// Property reads, writes and their statuses on the preset machine, as the device manager and
// process discovery see them. Statuses, sizes, the default input and refusals common to every backend
// are the contract suite's; here, the preset's own objects and the rules only the simulation keeps:
// injected failures (the next N calls of an operation fail with a chosen status, as a struggling audio
// daemon would behave) and a default output that settles slowly. Slowed reads are the runtime's tests.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "SimTestSupport.hpp"

namespace tonavi {
namespace {

using namespace tonavi::test;
using namespace std::chrono_literals;

class SimPropertiesTest : public ::testing::Test {
  protected:
    SimMachine machine{SimWorld::preset()};
    AudioObjectID idOf(const std::string& uid) { return machine.world()->deviceByUID(uid)->id; }
    template <class T> std::optional<T> get(AudioObjectID id, AudioObjectPropertyAddress address) {
        return read<T>(machine, id, address);
    }
    const AudioObjectPropertyAddress defaultOutput = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
};

TEST_F(SimPropertiesTest, SpeakersHaveStereoVolumeElementsButNoMainElement) {
    const auto id = idOf(speakersUID);
    const auto volume = [](std::uint32_t e) { return outputAddress(kAudioDevicePropertyVolumeScalar, e); };
    const auto main = outputAddress(kAudioHardwareServiceDeviceProperty_VirtualMainVolume);
    for (std::uint32_t element : {0u, 1u, 2u, 3u})
        EXPECT_EQ(machine.hasProperty(id, volume(element)), element == 1 || element == 2) << element;
    EXPECT_EQ(machine.set(id, volume(1), 0.2f), noErr);
    EXPECT_EQ(machine.set(id, volume(2), 0.6f), noErr);
    EXPECT_NEAR(*get<float>(id, main), 0.4f, 1e-6); // the mean of the two channels
    // Out of range is clamped; writing the main volume moves both channels.
    EXPECT_EQ(machine.set(id, volume(1), 1.5f), noErr);
    EXPECT_EQ(get<float>(id, volume(1)), 1.0f);
    EXPECT_EQ(machine.set(id, main, 0.25f), noErr);
    EXPECT_EQ(get<float>(id, volume(2)), 0.25f);
    // The AirPlay speaker has no mute control at all.
    EXPECT_FALSE(
        machine.hasProperty(idOf("AirPlay:Living-Room-Speaker"), outputAddress(kAudioDevicePropertyMute)));
}

TEST_F(SimPropertiesTest, RatesAndBufferSizesFollowTheDevicesLimitsAndEarbudsKeepTheirQuantum) {
    const auto id = idOf(usbUID);
    const auto frames = globalAddress(kAudioDevicePropertyBufferFrameSize);
    const auto rate = globalAddress(kAudioDevicePropertyNominalSampleRate);
    EXPECT_EQ(get<AudioValueRange>(id, globalAddress(kAudioDevicePropertyBufferFrameSizeRange)),
              (AudioValueRange{32, 4096}));
    EXPECT_EQ(machine.set(id, frames, std::uint32_t{128}), noErr);
    EXPECT_EQ(machine.set(id, frames, std::uint32_t{16}), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(get<std::uint32_t>(id, frames), 128u);
    EXPECT_EQ(machine.set(id, rate, 96000.0), noErr);
    EXPECT_EQ(machine.set(id, rate, 22050.0), kAudioDeviceUnsupportedFormatError);
    EXPECT_EQ(get<double>(id, rate), 96000.0);
    // Earbuds are Bluetooth, related to their microphone, and keep their quantum: the size is not settable.
    const auto buds = idOf(budsUID);
    EXPECT_EQ(get<std::uint32_t>(buds, globalAddress(kAudioDevicePropertyTransportType)),
              fourCharCode("blue"));
    const auto related =
        get<std::vector<AudioObjectID>>(buds, globalAddress(kAudioDevicePropertyRelatedDevices));
    EXPECT_NE(std::find(related->begin(), related->end(), idOf("AC-DE-48-00-11-22:input")), related->end());
    bool settable = true;
    ASSERT_EQ(machine.isPropertySettable(buds, frames, settable), noErr);
    EXPECT_FALSE(settable);
    EXPECT_EQ(machine.set(buds, frames, std::uint32_t{1024}), kAudioHardwareIllegalOperationError);
    // A device can refuse a write it otherwise supports.
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.deviceByUID(usbUID)->readOnly = {"nsrt"}, ""; }),
              "");
    EXPECT_EQ(machine.set(id, rate, 48000.0), kAudioHardwareIllegalOperationError);
}

TEST_F(SimPropertiesTest, ListenersHearTheirPropertyOnTheirQueueAndProcessesAndDefaultsFollowDevices) {
    DispatchQueue queue("test.properties");
    RecordingListener alive(queue), left(queue), devices(queue);
    const auto leftVolume = outputAddress(kAudioDevicePropertyVolumeScalar, 1);
    const auto speakers = idOf(speakersUID), buds = idOf(budsUID);
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.setDefault(SimDefaultRole::output, budsUID); }), "");
    // Process objects follow the default output; a helper plays nothing.
    const auto processDevices = outputAddress(kAudioProcessPropertyDevices);
    EXPECT_EQ(get<std::vector<AudioObjectID>>(processOf(machine, "com.apple.Music"), processDevices),
              std::vector<AudioObjectID>{buds});
    EXPECT_EQ(get<std::vector<AudioObjectID>>(processOf(machine, "com.apple.WebKit.GPU"), processDevices),
              std::vector<AudioObjectID>{});
    for (auto [object, address, listener] :
         {std::tuple{buds, globalAddress(kAudioDevicePropertyDeviceIsAlive), &alive},
          {speakers, leftVolume, &left},
          {kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDevices), &devices}})
        ASSERT_EQ(machine.addPropertyListener(object, address, queue, listener->block), noErr);
    EXPECT_EQ(machine.addPropertyListener(4242, leftVolume, queue, left.block), kAudioHardwareBadObjectError);

    ASSERT_EQ(machine.set(speakers, outputAddress(kAudioDevicePropertyVolumeScalar, 2), 0.1f), noErr);
    ASSERT_EQ(machine.set(speakers, leftVolume, 0.1f), noErr);
    ASSERT_EQ(machine.set(speakers, leftVolume, 0.1f), noErr); // no change, no call
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.unplug(budsUID); }), "");
    queue.sync([] {});
    EXPECT_EQ(left.heard(), std::vector<AudioObjectPropertyAddress>{leftVolume});
    EXPECT_EQ(alive.calls(), 1);
    EXPECT_EQ(devices.calls(), 1);
    EXPECT_EQ(left.offQueue() + alive.offQueue() + devices.offQueue(), 0);
    // The unplugged default's object is dead and the default moves; plugged back, it is a new object.
    EXPECT_EQ(get<AudioObjectID>(kAudioObjectSystemObject, defaultOutput), speakers);
    std::string name;
    EXPECT_EQ(machine.get(buds, globalAddress(kAudioObjectPropertyName), name), kAudioHardwareBadObjectError);
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.replug(budsUID); }), "");
    EXPECT_NE(idOf(budsUID), buds);
    EXPECT_EQ(machine.mutate([&](SimWorld& w) { return w.unplug("no-such-device"); }),
              "no device no-such-device");
}

// Which call meets which fault is the service's tests' (tap creation, device writes, dropped writes); here,
// the count, the selector and the refusals.
TEST(SimFaultsTest, TheNextCallsOfAnOperationFailOnTheirSelectorAndBadRequestsAreRefused) {
    SimMachine machine(SimWorld::preset());
    const auto output = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
    const auto devices = globalAddress(kAudioHardwarePropertyDevices);
    AudioObjectID got = 0;
    ASSERT_EQ(machine.failNext(SimOperation::getProperty, 2, kAudioHardwareBadObjectError, output.mSelector),
              "");
    EXPECT_EQ(read<std::vector<AudioObjectID>>(machine, kAudioObjectSystemObject, devices)->size(), 6u);
    for (OSStatus status : {kAudioHardwareBadObjectError, kAudioHardwareBadObjectError, noErr})
        EXPECT_EQ(machine.get(kAudioObjectSystemObject, output, got), status);
    EXPECT_EQ(got, machine.world()->deviceByUID(speakersUID)->id);
    EXPECT_TRUE(machine.world()->faults.empty());

    const auto generation = machine.world()->generation;
    EXPECT_EQ(machine.failNext(SimOperation::createTap, -1, kAudioHardwareIllegalOperationError),
              "a fault count is not negative");
    EXPECT_EQ(machine.failNext(SimOperation::createTap, 3, noErr),
              "a fault needs a non-zero status (only a write can be dropped silently)");
    EXPECT_EQ(machine.setReadDelay(-5ms), "a read delay is between 0 and 60000 ms");
    EXPECT_EQ(machine.world()->generation, generation);
}

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
