// Property reads, writes and their statuses on the preset machine, as the device manager and
// process discovery see them.

#include <gtest/gtest.h>

#include "SimTestSupport.hpp"
#include "platform/sim/SimMachine.hpp"

namespace tonavi {
namespace {

class SimPropertiesTest : public ::testing::Test {
  protected:
    SimMachine machine{SimWorld::preset()};

    AudioObjectID idOf(const std::string& uid) { return machine.world()->deviceByUID(uid)->id; }
    AudioObjectID processOf(const std::string& bundleID) { return test::processOf(machine, bundleID); }
    AudioObjectID defaultOutput() {
        std::uint32_t id = 0;
        EXPECT_EQ(machine.get(kAudioObjectSystemObject,
                              globalAddress(kAudioHardwarePropertyDefaultOutputDevice), id),
                  noErr);
        return id;
    }

    const std::string speakers = "BuiltInSpeakerDevice";
    const std::string usb = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
    const std::string buds = "AC-DE-48-00-11-22:output";
};

// Statuses, sizes, the default input and refusals are the contract suite's; here, the preset's own objects.
TEST_F(SimPropertiesTest, SystemObjectListsThePresetsDevicesProcessesAndDefault) {
    std::vector<AudioObjectID> devices, processes;
    ASSERT_EQ(machine.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDevices), devices),
              noErr);
    EXPECT_EQ(devices.size(), 6u);
    ASSERT_EQ(machine.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyProcessObjectList),
                          processes),
              noErr);
    EXPECT_EQ(processes.size(), 5u);
    EXPECT_EQ(defaultOutput(), idOf(speakers));
}

TEST_F(SimPropertiesTest, DeviceIdentityStreamsAndTransport) {
    const auto id = idOf(buds);
    std::string uid, name;
    std::uint32_t transport = 0;
    EXPECT_EQ(machine.get(id, globalAddress(kAudioDevicePropertyDeviceUID), uid), noErr);
    EXPECT_EQ(machine.get(id, globalAddress(kAudioObjectPropertyName), name), noErr);
    EXPECT_EQ(machine.get(id, globalAddress(kAudioDevicePropertyTransportType), transport), noErr);
    EXPECT_EQ(uid, buds);
    EXPECT_EQ(name, "Earbuds");
    EXPECT_EQ(transport, fourCharCode("blue"));

    AudioStreamConfiguration out, in;
    EXPECT_EQ(
        machine.get(
            id, scopedAddress(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeOutput), out),
        noErr);
    EXPECT_EQ(
        machine.get(
            id, scopedAddress(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeInput), in),
        noErr);
    EXPECT_EQ(out.channelsPerBuffer, std::vector<std::uint32_t>{2});
    EXPECT_TRUE(in.channelsPerBuffer.empty());

    // The earbuds' microphone is a related device.
    std::vector<AudioObjectID> related;
    EXPECT_EQ(machine.get(id, globalAddress(kAudioDevicePropertyRelatedDevices), related), noErr);
    EXPECT_NE(std::find(related.begin(), related.end(), idOf("AC-DE-48-00-11-22:input")), related.end());
}

TEST_F(SimPropertiesTest, SpeakersHaveStereoVolumeElementsButNoMainElement) {
    const auto id = idOf(speakers);
    auto volume = [&](std::uint32_t element) {
        return scopedAddress(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, element);
    };
    EXPECT_FALSE(machine.hasProperty(id, volume(0)));
    EXPECT_TRUE(machine.hasProperty(id, volume(1)));
    EXPECT_TRUE(machine.hasProperty(id, volume(2)));
    EXPECT_FALSE(machine.hasProperty(id, volume(3)));

    EXPECT_EQ(machine.set(id, volume(1), 0.2f), noErr);
    EXPECT_EQ(machine.set(id, volume(2), 0.6f), noErr);
    float main = 0;
    const auto virtualMain =
        scopedAddress(kAudioHardwareServiceDeviceProperty_VirtualMainVolume, kAudioObjectPropertyScopeOutput);
    ASSERT_EQ(machine.get(id, virtualMain, main), noErr);
    EXPECT_NEAR(main, 0.4f, 1e-6); // the mean of the two channels

    // Out of range is clamped; writing the main volume moves both channels.
    EXPECT_EQ(machine.set(id, volume(1), 1.5f), noErr);
    float left = 0;
    ASSERT_EQ(machine.get(id, volume(1), left), noErr);
    EXPECT_EQ(left, 1.0f);
    EXPECT_EQ(machine.set(id, virtualMain, 0.25f), noErr);
    float right = 0;
    ASSERT_EQ(machine.get(id, volume(2), right), noErr);
    EXPECT_EQ(right, 0.25f);

    const auto mute = scopedAddress(kAudioDevicePropertyMute, kAudioObjectPropertyScopeOutput);
    // The AirPlay speaker has no mute control at all.
    EXPECT_FALSE(machine.hasProperty(idOf("AirPlay:Living-Room-Speaker"), mute));
}

TEST_F(SimPropertiesTest, RatesAndBufferSizesFollowTheDevicesLimits) {
    const auto id = idOf(usb);
    const auto frames = globalAddress(kAudioDevicePropertyBufferFrameSize);
    AudioValueRange range;
    ASSERT_EQ(machine.get(id, globalAddress(kAudioDevicePropertyBufferFrameSizeRange), range), noErr);
    EXPECT_EQ(range, (AudioValueRange{32, 4096}));
    EXPECT_EQ(machine.set(id, frames, std::uint32_t{128}), noErr);
    EXPECT_EQ(machine.set(id, frames, std::uint32_t{16}), kAudioHardwareIllegalOperationError);
    std::uint32_t size = 0;
    ASSERT_EQ(machine.get(id, frames, size), noErr);
    EXPECT_EQ(size, 128u);

    // Bluetooth keeps its quantum: the size is not settable there.
    bool settable = true;
    ASSERT_EQ(machine.isPropertySettable(idOf(buds), frames, settable), noErr);
    EXPECT_FALSE(settable);
    EXPECT_EQ(machine.set(idOf(buds), frames, std::uint32_t{1024}), kAudioHardwareIllegalOperationError);

    const auto rate = globalAddress(kAudioDevicePropertyNominalSampleRate);
    EXPECT_EQ(machine.set(id, rate, 96000.0), noErr);
    EXPECT_EQ(machine.set(id, rate, 22050.0), kAudioDeviceUnsupportedFormatError);
    double now = 0;
    ASSERT_EQ(machine.get(id, rate, now), noErr);
    EXPECT_EQ(now, 96000.0);

    // A device can refuse a write it otherwise supports.
    ASSERT_EQ(machine.mutate([&](SimWorld& w) {
        w.deviceByUID(usb)->readOnly = {"nsrt"};
        return std::string();
    }),
              "");
    EXPECT_EQ(machine.set(id, rate, 48000.0), kAudioHardwareIllegalOperationError);
}

TEST_F(SimPropertiesTest, ProcessObjectsReportIdentityActivityAndDevices) {
    const auto music = processOf("com.apple.Music");
    const auto helper = processOf("com.apple.WebKit.GPU");
    std::int32_t pid = 0;
    std::string bundle;
    std::uint32_t running = 0;
    ASSERT_EQ(machine.get(helper, globalAddress(kAudioProcessPropertyPID), pid), noErr);
    ASSERT_EQ(machine.get(helper, globalAddress(kAudioProcessPropertyBundleID), bundle), noErr);
    EXPECT_EQ(pid, 4102);
    EXPECT_EQ(bundle, "com.apple.WebKit.GPU");
    ASSERT_EQ(machine.get(music, globalAddress(kAudioProcessPropertyIsRunningOutput), running), noErr);
    EXPECT_EQ(running, 1u);

    std::vector<AudioObjectID> devices;
    const auto outputDevices = scopedAddress(kAudioProcessPropertyDevices, kAudioObjectPropertyScopeOutput);
    ASSERT_EQ(machine.get(music, outputDevices, devices), noErr);
    EXPECT_EQ(devices, std::vector<AudioObjectID>{idOf(speakers)});
    // Music follows the default output; a process that plays nothing uses no device.
    ASSERT_EQ(machine.set(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice),
                          idOf(usb)),
              noErr);
    ASSERT_EQ(machine.get(music, outputDevices, devices), noErr);
    EXPECT_EQ(devices, std::vector<AudioObjectID>{idOf(usb)});
    ASSERT_EQ(machine.get(helper, outputDevices, devices), noErr);
    EXPECT_TRUE(devices.empty());

    bool settable = true;
    ASSERT_EQ(machine.isPropertySettable(music, globalAddress(kAudioProcessPropertyPID), settable), noErr);
    EXPECT_FALSE(settable);
}

TEST_F(SimPropertiesTest, UnpluggingMovesDefaultsAndKillsTheObject) {
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.setDefault(SimDefaultRole::output, buds); }), "");
    const auto old = idOf(buds);
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.unplug(buds); }), "");
    EXPECT_EQ(defaultOutput(), idOf(speakers));
    std::string name;
    EXPECT_EQ(machine.get(old, globalAddress(kAudioObjectPropertyName), name), kAudioHardwareBadObjectError);
    // Plugged back, it is a new object with the same UID.
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.replug(buds); }), "");
    EXPECT_NE(idOf(buds), old);
    EXPECT_EQ(machine.mutate([&](SimWorld& w) { return w.unplug("no-such-device"); }),
              "no device no-such-device");
}

TEST_F(SimPropertiesTest, ListenersHearExactlyTheirPropertyOnTheirQueue) {
    DispatchQueue queue("test.properties");
    test::RecordingListener alive(queue), left(queue), devices(queue);
    const auto budsID = idOf(buds);
    const auto speakersID = idOf(speakers);
    const auto leftVolume =
        scopedAddress(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, 1);
    const auto rightVolume =
        scopedAddress(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, 2);
    ASSERT_EQ(machine.addPropertyListener(budsID, globalAddress(kAudioDevicePropertyDeviceIsAlive), queue,
                                          alive.block),
              noErr);
    ASSERT_EQ(machine.addPropertyListener(speakersID, leftVolume, queue, left.block), noErr);
    ASSERT_EQ(machine.addPropertyListener(kAudioObjectSystemObject,
                                          globalAddress(kAudioHardwarePropertyDevices), queue, devices.block),
              noErr);
    EXPECT_EQ(machine.addPropertyListener(4242, leftVolume, queue, left.block), kAudioHardwareBadObjectError);

    ASSERT_EQ(machine.set(speakersID, rightVolume, 0.1f), noErr);
    ASSERT_EQ(machine.set(speakersID, leftVolume, 0.1f), noErr);
    ASSERT_EQ(machine.set(speakersID, leftVolume, 0.1f), noErr); // no change, no call
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.unplug(buds); }), "");
    queue.sync([] {});
    EXPECT_EQ(left.calls(), 1);
    EXPECT_EQ(left.heard(), std::vector<AudioObjectPropertyAddress>{leftVolume});
    EXPECT_EQ(alive.calls(), 1);
    EXPECT_EQ(devices.calls(), 1);
    EXPECT_EQ(left.offQueue() + alive.offQueue() + devices.offQueue(), 0);
}

} // namespace
} // namespace tonavi
