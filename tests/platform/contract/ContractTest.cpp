// The platform boundary's contract, run on every backend: the simulated machine and a private
// PipeWire server. Property reads and their statuses, listeners on their queue, defaults, device
// volume and mute, process objects of playing applications, a tap that silences its application's
// own path and delivers its audio into an IO proc, and the application's return when the tap's
// owner dies.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "ContractRig.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"

namespace tonavi::test {
namespace {

using namespace std::chrono_literals;

class ContractTest : public ::testing::TestWithParam<const char*> {
  protected:
    void SetUp() override {
        if (std::string(GetParam()) == "sim") {
            rig = std::make_unique<SimRig>();
            return;
        }
        std::string why;
        auto* server = PrivatePipeWireServer::shared(&why);
        if (!server && PrivatePipeWireServer::programsMissing())
            GTEST_SKIP() << "no private PipeWire server: " << why;
        ASSERT_NE(server, nullptr) << "the private PipeWire server did not start: " << why;
        auto pw = std::make_unique<PipeWireRig>(*server);
        ASSERT_TRUE(pw->connected());
        rig = std::move(pw);
    }
    AudioHardware& audio() { return rig->audio(); }
    // A property's value; a failed read fails the test and answers T{}.
    template <class T> T value(AudioObjectID object, const AudioObjectPropertyAddress& address) {
        T out{};
        EXPECT_EQ(audio().get(object, address, out), noErr) << fourCharString(address.mSelector);
        return out;
    }
    template <class T> T value(AudioObjectID object, AudioObjectPropertySelector selector) {
        return value<T>(object, globalAddress(selector));
    }
    std::vector<std::uint32_t> channels(AudioObjectID device, AudioObjectPropertyScope scope) {
        return value<AudioStreamConfiguration>(device,
                                               scopedAddress(kAudioDevicePropertyStreamConfiguration, scope))
            .channelsPerBuffer;
    }
    AudioObjectID defaultOutput() {
        return value<AudioObjectID>(kAudioObjectSystemObject, defaultOutputAddress);
    }
    const AudioObjectPropertyAddress defaultOutputAddress =
        globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
    std::unique_ptr<ContractRig> rig;
    DispatchQueue queue{"contract.listener"};
};

TEST_P(ContractTest, DevicesAnswerTheirPropertiesWithCoreAudioStatusesAndTellListenersOfDefaultChanges) {
    const AudioObjectID first = rig->deviceID(rig->firstOutput()),
                        second = rig->deviceID(rig->secondOutput());
    ASSERT_TRUE(first != kAudioObjectUnknown && second != kAudioObjectUnknown && first != second);
    EXPECT_EQ(defaultOutput(), first);
    for (AudioObjectID device : {first, second}) {
        SCOPED_TRACE(device);
        EXPECT_NE(value<std::string>(device, kAudioObjectPropertyName), "");
        EXPECT_NE(value<std::uint32_t>(device, kAudioDevicePropertyTransportType),
                  kAudioDeviceTransportTypeUnknown);
        EXPECT_EQ(value<std::uint32_t>(device, kAudioDevicePropertyDeviceIsAlive), 1u);
        const auto outputs = channels(device, kAudioObjectPropertyScopeOutput);
        EXPECT_TRUE(outputs.size() == 1 && outputs[0] >= 2) << outputs.size();
        EXPECT_GE(value<double>(device, kAudioDevicePropertyNominalSampleRate), 44100.0);
        const auto frames = value<std::uint32_t>(device, kAudioDevicePropertyBufferFrameSize);
        const auto range = value<AudioValueRange>(device, kAudioDevicePropertyBufferFrameSizeRange);
        EXPECT_TRUE(frames > 0 && range.mMinimum <= frames && frames <= range.mMaximum) << frames;
    }

    // The input device records on one stream and plays nothing; it is the default input, and cannot be
    // the default output.
    const AudioObjectID input = rig->deviceID(rig->input());
    EXPECT_EQ(channels(input, kAudioObjectPropertyScopeInput).size(), 1u);
    EXPECT_TRUE(channels(input, kAudioObjectPropertyScopeOutput).empty());
    EXPECT_EQ(value<AudioObjectID>(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultInputDevice),
              input);
    EXPECT_NE(audio().set(kAudioObjectSystemObject, defaultOutputAddress, input), noErr);

    // The statuses callers rely on, the same on every backend.
    const auto system = kAudioObjectSystemObject;
    const auto uid = globalAddress(kAudioDevicePropertyDeviceUID),
               devices = globalAddress(kAudioHardwarePropertyDevices);
    const std::tuple<const char*, AudioObjectID, AudioObjectPropertyAddress, OSStatus> cases[] = {
        {"unknown object", 999999, uid, kAudioHardwareBadObjectError},
        {"unknown selector", first, globalAddress(fourCharCode("zzzz")), kAudioHardwareUnknownPropertyError},
        {"volume of no element", first, outputAddress(kAudioDevicePropertyVolumeScalar, 9),
         kAudioHardwareUnknownPropertyError},
        {"system list on an element", system, scopedAddress(devices.mSelector, devices.mScope, 3),
         kAudioHardwareUnknownPropertyError},
    };
    for (const auto& [what, object, address, status] : cases) {
        AudioPropertyValue ignored;
        EXPECT_EQ(audio().getPropertyData(object, address, ignored), status) << what;
        EXPECT_FALSE(audio().hasProperty(object, address)) << what;
    }
    float wrongType = 0;
    EXPECT_EQ(audio().get(first, uid, wrongType), kAudioHardwareBadPropertySizeError);
    std::uint32_t size = 0;
    EXPECT_EQ(audio().getPropertyDataSize(system, devices, size), noErr);
    EXPECT_EQ(size, value<std::vector<AudioObjectID>>(system, devices).size() * sizeof(AudioObjectID));
    bool settable = true;
    EXPECT_EQ(audio().isPropertySettable(first, uid, settable), noErr);
    EXPECT_FALSE(settable);
    EXPECT_EQ(audio().set(first, uid, std::string("x")), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(audio().set(system, devices, std::vector<AudioObjectID>{}),
              kAudioHardwareIllegalOperationError);
    ASSERT_EQ(audio().isPropertySettable(system, defaultOutputAddress, settable), noErr);
    EXPECT_TRUE(settable);

    // A change of the default output reaches listeners on their queue.
    RecordingListener listener(queue);
    ASSERT_EQ(audio().addPropertyListener(system, defaultOutputAddress, queue, listener.block), noErr);
    ASSERT_EQ(audio().set(system, defaultOutputAddress, second), noErr);
    EXPECT_EQ(defaultOutput(), second);
    ASSERT_TRUE(listener.waitForCalls(1));
    EXPECT_EQ(listener.offQueue(), 0);
    EXPECT_EQ(listener.heard().front(), defaultOutputAddress);

    // Refusals leave the default alone.
    EXPECT_EQ(audio().set(system, defaultOutputAddress, AudioObjectID{999999}), kAudioHardwareBadDeviceError);
    EXPECT_EQ(audio().set(system, defaultOutputAddress, 1.0), kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(defaultOutput(), second);

    ASSERT_EQ(audio().set(system, defaultOutputAddress, first), noErr);
    ASSERT_TRUE(listener.waitForCalls(2));
    ASSERT_EQ(audio().removePropertyListener(system, defaultOutputAddress, queue, listener.block), noErr);
    EXPECT_EQ(audio().removePropertyListener(system, defaultOutputAddress, queue, listener.block),
              kAudio_ParamError);
    ASSERT_EQ(audio().set(system, defaultOutputAddress, second), noErr);
    ASSERT_EQ(audio().set(system, defaultOutputAddress, first), noErr);
    queue.sync([] {});
    EXPECT_EQ(listener.calls(), 2);
}

TEST_P(ContractTest, DeviceVolumeAndMuteAreWrittenAndReadBack) {
    const AudioObjectID device = rig->deviceID(rig->firstOutput());
    const auto main = outputAddress(kAudioHardwareServiceDeviceProperty_VirtualMainVolume);
    const auto mute = outputAddress(kAudioDevicePropertyMute);
    RecordingListener listener(queue);
    ASSERT_EQ(audio().addPropertyListener(device, main, queue, listener.block), noErr);

    // Each change is awaited before the next write, so a backend that compares snapshots cannot fold
    // two changes into one (or a change and its undoing into none) on a busy machine.
    float previous = value<float>(device, main);
    int changes = 0;
    for (float level : {0.25f, 0.8f, 1.0f}) {
        ASSERT_EQ(audio().set(device, main, level), noErr);
        EXPECT_NEAR(value<float>(device, main), level, 1e-3);
        EXPECT_NEAR(value<float>(device, outputAddress(kAudioDevicePropertyVolumeScalar, 1)), level, 1e-3);
        if (std::fabs(level - std::exchange(previous, level)) > 1e-3) {
            ASSERT_TRUE(listener.waitForCalls(++changes)) << "no change reported for " << level;
        }
    }
    EXPECT_EQ(audio().set(device, main, std::nanf("")), kAudio_ParamError);

    // A change made elsewhere reaches the listener and the next read, on its queue.
    ASSERT_TRUE(rig->setVolumeFromOutside(rig->firstOutput(), 0.5f));
    EXPECT_TRUE(listener.waitForCalls(changes + 1));
    EXPECT_EQ(listener.offQueue(), 0);
    EXPECT_NEAR(value<float>(device, main), 0.5f, 1e-3);
    ASSERT_EQ(audio().set(device, main, 1.0f), noErr);

    for (std::uint32_t muted : {1u, 0u}) {
        ASSERT_EQ(audio().set(device, mute, muted), noErr);
        EXPECT_EQ(value<std::uint32_t>(device, mute), muted);
    }
    audio().removePropertyListener(device, main, queue, listener.block);
    queue.sync([] {}); // a delivery already under way ends before the listener goes
}

TEST_P(ContractTest, PlayingApplicationsAreProcessObjects) {
    // paplay is pacat, which names no application: its binary answers.
    for (auto [bundleID, kind] :
         {std::pair{"org.tonavi.TestTone", AppKind::toneClient}, {"pacat", AppKind::pulseClient}}) {
        SCOPED_TRACE(bundleID);
        RecordingListener listener(queue);
        const auto list = globalAddress(kAudioHardwarePropertyProcessObjectList);
        ASSERT_EQ(audio().addPropertyListener(kAudioObjectSystemObject, list, queue, listener.block), noErr);
        const App app = rig->startApp(bundleID, 523, kind);
        const AudioObjectID process = rig->processObject(app.pid);
        ASSERT_NE(process, kAudioObjectUnknown);
        EXPECT_TRUE(listener.waitForCalls(1));
        EXPECT_EQ(value<std::string>(process, kAudioProcessPropertyBundleID), bundleID);
        EXPECT_EQ(value<std::uint32_t>(process, kAudioProcessPropertyIsRunningOutput), 1u);
        EXPECT_EQ(value<std::uint32_t>(process, kAudioProcessPropertyIsRunningInput), 0u);
        EXPECT_TRUE(eventually([&] {
            std::vector<AudioObjectID> devices;
            audio().get(process, outputAddress(kAudioProcessPropertyDevices), devices);
            return devices == std::vector<AudioObjectID>{defaultOutput()};
        }));
        EXPECT_TRUE(eventually([&] { return rig->heard(rig->firstOutput(), app); }));
        rig->stopApp(app);
        EXPECT_TRUE(eventually([&] { return rig->processObject(app.pid) == kAudioObjectUnknown; }));
        audio().removePropertyListener(kAudioObjectSystemObject, list, queue, listener.block);
        queue.sync([] {});
    }
}

TEST_P(ContractTest, TapSilencesTheDirectPathAndFeedsTheIOProc) {
    const App app = rig->startApp("org.tonavi.Tapped", 660, AppKind::toneClient);
    const App other = rig->startApp("org.tonavi.Untapped", 880, AppKind::toneClient);
    const std::string output = rig->firstOutput();
    ASSERT_TRUE(eventually([&] { return rig->heard(output, app) && rig->heard(output, other); }));

    auto description = TapDescription::stereoMixdown({rig->processObject(app.pid)});
    description.name = "Tonavi org.tonavi.Tapped";
    description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
    AudioObjectID tap = 0;
    const AudioObjectID device = tapAggregate(audio(), description, {output}, &tap);
    ASSERT_NE(device, 0u);
    EXPECT_EQ(value<std::string>(tap, kAudioTapPropertyUID), description.uuid);
    EXPECT_EQ(value<std::uint32_t>(device, kAudioDevicePropertyTransportType),
              kAudioDeviceTransportTypeAggregate);
    const auto inputs = channels(device, kAudioObjectPropertyScopeInput);
    ASSERT_FALSE(inputs.empty());
    EXPECT_EQ(inputs.back(), 2u);

    // Only the tap's stream is read, as the tap provider asks: every other input switched off. With the
    // tap's stream switched off too, the block gets no data at all, and silence on the direct path shows.
    const auto usageAddress = inputAddress(kAudioDevicePropertyIOProcStreamUsage);
    for (const bool tapOn : {true, false}) {
        SCOPED_TRACE(tapOn);
        // The cycles, those with tap data and those whose tap was loud, counted without allocating; the
        // block plays the tap on at unity, so the device still plays the tapped application.
        std::atomic<int> cycles{0}, dataCycles{0}, loudCycles{0};
        const auto block = [&](const AudioBufferList& in, AudioBufferList& out, const AudioTimeStamp& time) {
            cycles.fetch_add(1);
            const AudioBuffer* tap = in.mBuffers.empty() ? nullptr : &in.mBuffers.back();
            if (!tap || !tap->mData ||
                (dataCycles.fetch_add(1), !(time.mFlags & kAudioTimeStampSampleTimeValid)))
                return;
            const auto* samples = static_cast<const float*>(tap->mData);
            const auto count = tap->mDataByteSize / sizeof(float);
            loudCycles.fetch_add(
                std::any_of(samples, samples + count, [](float v) { return std::fabs(v) > 0.1f; }));
            if (!out.mBuffers.empty() && out.mBuffers[0].mData)
                std::memcpy(out.mBuffers[0].mData, samples,
                            std::min(out.mBuffers[0].mDataByteSize, tap->mDataByteSize));
        };
        AudioDeviceIOProcID proc = 0;
        ASSERT_EQ(audio().createIOProcIDWithBlock(device, &queue, block, proc), noErr);
        AudioHardwareIOProcStreamUsage usage{proc, {}};
        ASSERT_EQ(audio().get(device, usageAddress, usage), noErr);
        EXPECT_EQ(usage.mStreamIsOn, std::vector<std::uint32_t>(inputs.size(), 1));
        usage.mStreamIsOn.push_back(1);
        EXPECT_EQ(audio().set(device, usageAddress, usage), kAudioHardwareBadPropertySizeError);
        usage.mStreamIsOn.assign(inputs.size(), 0);
        usage.mStreamIsOn.back() = tapOn ? 1 : 0;
        EXPECT_EQ(audio().set(device, usageAddress, usage), noErr);
        ASSERT_EQ(audio().deviceStart(device, proc), noErr);
        if (tapOn) {
            EXPECT_TRUE(eventually([&] { return loudCycles.load() >= 20; }));
        } else {
            EXPECT_TRUE(eventually([&] { return cycles.load() >= 20 && !rig->heard(output, app); }));
            EXPECT_EQ(dataCycles.load(), 0);
        }
        EXPECT_TRUE(rig->heard(output, other)); // the untapped application is unaffected
        ASSERT_EQ(audio().deviceStop(device, proc), noErr);
        ASSERT_EQ(audio().destroyIOProcID(device, proc), noErr);
    }
    EXPECT_EQ(audio().destroyAggregateDevice(device), noErr);
    EXPECT_EQ(audio().destroyProcessTap(tap), noErr);
    EXPECT_EQ(audio().destroyProcessTap(tap), kAudioHardwareBadObjectError);
    EXPECT_TRUE(eventually([&] { return rig->heard(output, app); }));
    rig->stopApp(app);
    rig->stopApp(other);
}

TEST_P(ContractTest, AppComesBackWhenTheTapOwnerDies) {
    const App app = rig->startApp("org.tonavi.Orphaned", 740, AppKind::toneClient);
    const std::string output = rig->firstOutput();
    const auto devicesAddress = globalAddress(kAudioHardwarePropertyDevices);
    const auto devices = value<std::vector<AudioObjectID>>(kAudioObjectSystemObject, devicesAddress);
    ASSERT_TRUE(eventually([&] { return rig->heard(output, app); }));
    rig->exportEnvironment();
    FILE* holder = ::popen("exec '" TONAVI_TAP_HOLDER "' org.tonavi.Orphaned", "r");
    ASSERT_NE(holder, nullptr);
    int pid = 0;
    ASSERT_EQ(std::fscanf(holder, "ready %d", &pid), 1);
    EXPECT_TRUE(eventually([&] { return !rig->heard(output, app); }));
    // The holder's aggregate is private: not ours to see.
    EXPECT_EQ(value<std::vector<AudioObjectID>>(kAudioObjectSystemObject, devicesAddress), devices);

    // Killed hard, as a crash would: its taps die with it.
    ::kill(pid, SIGKILL);
    ::pclose(holder);
    EXPECT_TRUE(eventually([&] { return rig->heard(output, app); }));
    // Nothing is left pointing at the dead tap's sink: a process that saw it vanish cleared the target.
    if (auto* pw = dynamic_cast<PipeWireRig*>(rig.get())) {
        EXPECT_TRUE(eventually([&]() -> bool {
            return pw->pipewire().connection().read([](const PipeWireGraph& g) {
                return std::none_of(g.nodeMetadata.begin(), g.nodeMetadata.end(), [](const auto& entry) {
                    return entry.second.count("target.object") > 0;
                });
            });
        }));
    }
    rig->stopApp(app);
}

INSTANTIATE_TEST_SUITE_P(Backends, ContractTest, ::testing::Values("sim", "pipewire"),
                         [](const auto& info) { return std::string(info.param); });

} // namespace
} // namespace tonavi::test
