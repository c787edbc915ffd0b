// The platform boundary's contract, run on every backend: the simulated machine and a private
// PipeWire server. Property reads and their statuses, listeners on their queue, defaults, device
// volume and mute, process objects of playing applications, a tap that silences its application's
// own path and delivers its audio into an IO proc, and the application's return when the tap's
// owner dies.

#include <cmath>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <iostream>
#include <spawn.h>

#include "ContractRig.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"

extern char** environ;

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
    AudioObjectID defaultOutput() {
        AudioObjectID id = 0;
        audio().get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice), id);
        return id;
    }
    std::unique_ptr<ContractRig> rig;
    DispatchQueue queue{"contract.listener"};
};

TEST_P(ContractTest, DevicesAnswerTheirPropertiesWithCoreAudioStatuses) {
    const AudioObjectID first = rig->deviceID(rig->firstOutput());
    const AudioObjectID second = rig->deviceID(rig->secondOutput());
    ASSERT_NE(first, kAudioObjectUnknown);
    ASSERT_NE(second, kAudioObjectUnknown);
    EXPECT_NE(first, second);
    EXPECT_EQ(defaultOutput(), first);

    for (AudioObjectID device : {first, second}) {
        SCOPED_TRACE(device);
        std::string name;
        EXPECT_EQ(audio().get(device, globalAddress(kAudioObjectPropertyName), name), noErr);
        EXPECT_FALSE(name.empty());
        std::uint32_t transport = 0, alive = 0, frames = 0;
        EXPECT_EQ(audio().get(device, globalAddress(kAudioDevicePropertyTransportType), transport), noErr);
        EXPECT_NE(transport, kAudioDeviceTransportTypeUnknown);
        EXPECT_EQ(audio().get(device, globalAddress(kAudioDevicePropertyDeviceIsAlive), alive), noErr);
        EXPECT_EQ(alive, 1u);
        AudioStreamConfiguration outputs;
        EXPECT_EQ(audio().get(
                      device,
                      scopedAddress(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeOutput),
                      outputs),
                  noErr);
        ASSERT_EQ(outputs.channelsPerBuffer.size(), 1u);
        EXPECT_GE(outputs.channelsPerBuffer[0], 2u);
        double rate = 0;
        EXPECT_EQ(audio().get(device, globalAddress(kAudioDevicePropertyNominalSampleRate), rate), noErr);
        EXPECT_GE(rate, 44100.0);
        AudioValueRange range;
        EXPECT_EQ(audio().get(device, globalAddress(kAudioDevicePropertyBufferFrameSize), frames), noErr);
        EXPECT_EQ(audio().get(device, globalAddress(kAudioDevicePropertyBufferFrameSizeRange), range), noErr);
        EXPECT_LE(range.mMinimum, frames);
        EXPECT_GE(range.mMaximum, frames);
    }

    // The input device records on one stream and plays nothing; it is the default input.
    const AudioObjectID input = rig->deviceID(rig->input());
    AudioStreamConfiguration inputs, outputs;
    const auto streams = [&](AudioObjectPropertyScope scope, AudioStreamConfiguration& config) {
        return audio().get(input, scopedAddress(kAudioDevicePropertyStreamConfiguration, scope), config);
    };
    EXPECT_EQ(streams(kAudioObjectPropertyScopeInput, inputs), noErr);
    EXPECT_EQ(streams(kAudioObjectPropertyScopeOutput, outputs), noErr);
    EXPECT_EQ(inputs.channelsPerBuffer.size(), 1u);
    EXPECT_TRUE(outputs.channelsPerBuffer.empty());
    AudioObjectID defaultInput = 0;
    EXPECT_EQ(audio().get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultInputDevice),
                          defaultInput),
              noErr);
    EXPECT_EQ(defaultInput, input);
    // An input cannot be the default output.
    EXPECT_NE(audio().set(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice),
                          input),
              noErr);

    // The statuses callers rely on, the same on every backend.
    struct Case {
        const char* what;
        AudioObjectID object;
        AudioObjectPropertyAddress address;
        OSStatus status;
    };
    const Case cases[] = {
        {"unknown object", 999999, globalAddress(kAudioDevicePropertyDeviceUID),
         kAudioHardwareBadObjectError},
        {"unknown selector", first, globalAddress(fourCharCode("zzzz")), kAudioHardwareUnknownPropertyError},
        {"volume of no element", first,
         scopedAddress(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, 9),
         kAudioHardwareUnknownPropertyError},
        {"system list on an element", kAudioObjectSystemObject,
         scopedAddress(kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal, 3),
         kAudioHardwareUnknownPropertyError},
    };
    for (const auto& c : cases) {
        AudioPropertyValue value;
        EXPECT_EQ(audio().getPropertyData(c.object, c.address, value), c.status) << c.what;
        EXPECT_FALSE(audio().hasProperty(c.object, c.address)) << c.what;
    }
    float wrongType = 0;
    EXPECT_EQ(audio().get(first, globalAddress(kAudioDevicePropertyDeviceUID), wrongType),
              kAudioHardwareBadPropertySizeError);
    std::vector<AudioObjectID> devices;
    std::uint32_t size = 0;
    ASSERT_EQ(audio().get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDevices), devices),
              noErr);
    EXPECT_EQ(audio().getPropertyDataSize(kAudioObjectSystemObject,
                                          globalAddress(kAudioHardwarePropertyDevices), size),
              noErr);
    EXPECT_EQ(size, devices.size() * sizeof(AudioObjectID));
    bool settable = false;
    EXPECT_EQ(audio().isPropertySettable(first, globalAddress(kAudioDevicePropertyDeviceUID), settable),
              noErr);
    EXPECT_FALSE(settable);
    EXPECT_EQ(audio().set(first, globalAddress(kAudioDevicePropertyDeviceUID), std::string("x")),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(audio().set(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDevices),
                          std::vector<AudioObjectID>{}),
              kAudioHardwareIllegalOperationError);
    ASSERT_EQ(audio().isPropertySettable(kAudioObjectSystemObject,
                                         globalAddress(kAudioHardwarePropertyDefaultOutputDevice), settable),
              noErr);
    EXPECT_TRUE(settable);
}

TEST_P(ContractTest, DefaultOutputChangesReachListenersOnTheirQueue) {
    const AudioObjectID first = rig->deviceID(rig->firstOutput());
    const AudioObjectID second = rig->deviceID(rig->secondOutput());
    const auto address = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
    RecordingListener listener(queue);
    ASSERT_EQ(audio().addPropertyListener(kAudioObjectSystemObject, address, queue, listener.block), noErr);

    ASSERT_EQ(audio().set(kAudioObjectSystemObject, address, second), noErr);
    EXPECT_EQ(defaultOutput(), second);
    ASSERT_TRUE(listener.waitForCalls(1));
    EXPECT_EQ(listener.offQueue(), 0);
    EXPECT_EQ(listener.heard().front(), address);

    // Refusals leave the default alone.
    EXPECT_EQ(audio().set(kAudioObjectSystemObject, address, AudioObjectID{999999}),
              kAudioHardwareBadDeviceError);
    EXPECT_EQ(audio().set(kAudioObjectSystemObject, address, 1.0), kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(defaultOutput(), second);

    ASSERT_EQ(audio().set(kAudioObjectSystemObject, address, first), noErr);
    ASSERT_TRUE(listener.waitForCalls(2));
    ASSERT_EQ(audio().removePropertyListener(kAudioObjectSystemObject, address, queue, listener.block),
              noErr);
    EXPECT_EQ(audio().removePropertyListener(kAudioObjectSystemObject, address, queue, listener.block),
              kAudio_ParamError);
    ASSERT_EQ(audio().set(kAudioObjectSystemObject, address, second), noErr);
    ASSERT_EQ(audio().set(kAudioObjectSystemObject, address, first), noErr);
    queue.sync([] {});
    EXPECT_EQ(listener.calls(), 2);
}

TEST_P(ContractTest, DeviceVolumeAndMuteAreWrittenAndReadBack) {
    const AudioObjectID device = rig->deviceID(rig->firstOutput());
    const auto main =
        scopedAddress(kAudioHardwareServiceDeviceProperty_VirtualMainVolume, kAudioObjectPropertyScopeOutput);
    const auto left = scopedAddress(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, 1);
    const auto mute = scopedAddress(kAudioDevicePropertyMute, kAudioObjectPropertyScopeOutput);
    RecordingListener listener(queue);
    ASSERT_EQ(audio().addPropertyListener(device, main, queue, listener.block), noErr);

    // Each change is awaited before the next write, so a backend that compares snapshots cannot fold
    // two changes into one (or a change and its undoing into none) on a busy machine.
    float previous = -1;
    ASSERT_EQ(audio().get(device, main, previous), noErr);
    int changes = 0;
    for (float level : {0.25f, 0.8f, 1.0f}) {
        ASSERT_EQ(audio().set(device, main, level), noErr);
        float read = -1, element = -1;
        EXPECT_EQ(audio().get(device, main, read), noErr);
        EXPECT_EQ(audio().get(device, left, element), noErr);
        EXPECT_NEAR(read, level, 1e-3);
        EXPECT_NEAR(element, level, 1e-3);
        if (std::fabs(level - previous) > 1e-3) {
            ASSERT_TRUE(listener.waitForCalls(++changes)) << "no change reported for " << level;
        }
        previous = level;
    }
    EXPECT_EQ(audio().set(device, main, std::nanf("")), kAudio_ParamError);

    // A change made elsewhere reaches the listener and the next read, on its queue.
    const int before = listener.calls();
    ASSERT_TRUE(rig->setVolumeFromOutside(rig->firstOutput(), 0.5f));
    EXPECT_TRUE(listener.waitForCalls(before + 1));
    EXPECT_EQ(listener.offQueue(), 0);
    float outside = 0;
    EXPECT_EQ(audio().get(device, main, outside), noErr);
    EXPECT_NEAR(outside, 0.5f, 1e-3);
    ASSERT_EQ(audio().set(device, main, 1.0f), noErr);

    for (std::uint32_t value : {1u, 0u}) {
        ASSERT_EQ(audio().set(device, mute, value), noErr);
        std::uint32_t read = 7;
        EXPECT_EQ(audio().get(device, mute, read), noErr);
        EXPECT_EQ(read, value);
    }
    audio().removePropertyListener(device, main, queue, listener.block);
    queue.sync([] {}); // a delivery already under way ends before the listener goes
}

TEST_P(ContractTest, PlayingApplicationsAreProcessObjects) {
    struct Case {
        const char* bundleID; // paplay is pacat, which names no application: its binary answers
        AppKind kind;
    };
    const Case cases[] = {{"org.tonavi.TestTone", AppKind::toneClient}, {"pacat", AppKind::pulseClient}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bundleID);
        RecordingListener listener(queue);
        const auto list = globalAddress(kAudioHardwarePropertyProcessObjectList);
        ASSERT_EQ(audio().addPropertyListener(kAudioObjectSystemObject, list, queue, listener.block), noErr);
        const App app = rig->startApp(c.bundleID, 523, c.kind);
        const AudioObjectID process = rig->processObject(app.pid);
        ASSERT_NE(process, kAudioObjectUnknown);
        EXPECT_TRUE(listener.waitForCalls(1));
        std::string bundleID;
        std::uint32_t runningOutput = 0, runningInput = 7;
        EXPECT_EQ(audio().get(process, globalAddress(kAudioProcessPropertyBundleID), bundleID), noErr);
        EXPECT_EQ(bundleID, c.bundleID);
        EXPECT_EQ(audio().get(process, globalAddress(kAudioProcessPropertyIsRunningOutput), runningOutput),
                  noErr);
        EXPECT_EQ(runningOutput, 1u);
        EXPECT_EQ(audio().get(process, globalAddress(kAudioProcessPropertyIsRunningInput), runningInput),
                  noErr);
        EXPECT_EQ(runningInput, 0u);
        EXPECT_TRUE(eventually([&] {
            std::vector<AudioObjectID> devices;
            audio().get(process, scopedAddress(kAudioProcessPropertyDevices, kAudioObjectPropertyScopeOutput),
                        devices);
            return devices == std::vector<AudioObjectID>{defaultOutput()};
        }));
        EXPECT_TRUE(eventually([&] { return rig->heard(rig->firstOutput(), app); }));

        rig->stopApp(app);
        EXPECT_TRUE(eventually([&] { return rig->processObject(app.pid) == kAudioObjectUnknown; }));
        audio().removePropertyListener(kAudioObjectSystemObject, list, queue, listener.block);
        queue.sync([] {});
    }
}

// What an IO block heard: the peak of the tap's input, counted without allocating.
struct IOProbe {
    std::atomic<int> cycles{0};
    std::atomic<int> loudCycles{0};
    AudioDeviceIOBlock block() {
        return [this](const AudioBufferList& input, AudioBufferList& output, const AudioTimeStamp& time) {
            cycles.fetch_add(1);
            if (input.mBuffers.empty() || !(time.mFlags & kAudioTimeStampSampleTimeValid))
                return;
            const AudioBuffer& tap = input.mBuffers.back();
            const auto* samples = static_cast<const float*>(tap.mData);
            float peak = 0;
            for (std::uint32_t i = 0; samples && i < tap.mDataByteSize / sizeof(float); ++i)
                peak = std::max(peak, std::fabs(samples[i]));
            if (peak > 0.1f)
                loudCycles.fetch_add(1);
            // Unity: the tap's audio goes on to the device.
            if (!output.mBuffers.empty() && output.mBuffers[0].mData && samples)
                std::memcpy(output.mBuffers[0].mData, samples,
                            std::min(output.mBuffers[0].mDataByteSize, tap.mDataByteSize));
        };
    }
};

TEST_P(ContractTest, TapSilencesTheDirectPathAndFeedsTheIOProc) {
    const App app = rig->startApp("org.tonavi.Tapped", 660, AppKind::toneClient);
    const App other = rig->startApp("org.tonavi.Untapped", 880, AppKind::toneClient);
    const std::string output = rig->firstOutput();
    ASSERT_TRUE(eventually([&] { return rig->heard(output, app) && rig->heard(output, other); }));

    auto description = TapDescription::stereoMixdown({rig->processObject(app.pid)});
    description.name = "Tonavi org.tonavi.Tapped";
    description.isPrivate = true;
    description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
    AudioObjectID tap = 0;
    ASSERT_EQ(audio().createProcessTap(description, tap), noErr);
    std::string tapUID;
    EXPECT_EQ(audio().get(tap, globalAddress(kAudioTapPropertyUID), tapUID), noErr);
    EXPECT_EQ(tapUID, description.uuid);

    AggregateDeviceDescription aggregate;
    aggregate.uid = "org.tonavi.contract.aggregate";
    aggregate.name = "Contract aggregate";
    aggregate.isPrivate = true;
    aggregate.mainSubDevice = output;
    aggregate.subDevices = {{output, true}};
    aggregate.taps = {{tapUID, true}};
    AudioObjectID device = 0;
    ASSERT_EQ(audio().createAggregateDevice(aggregate, device), noErr);
    std::uint32_t transport = 0;
    EXPECT_EQ(audio().get(device, globalAddress(kAudioDevicePropertyTransportType), transport), noErr);
    EXPECT_EQ(transport, kAudioDeviceTransportTypeAggregate);
    AudioStreamConfiguration inputs;
    EXPECT_EQ(
        audio().get(device,
                    scopedAddress(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeInput),
                    inputs),
        noErr);
    ASSERT_FALSE(inputs.channelsPerBuffer.empty());
    EXPECT_EQ(inputs.channelsPerBuffer.back(), 2u);

    IOProbe probe;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(audio().createIOProcIDWithBlock(device, &queue, probe.block(), proc), noErr);
    // Only the tap's stream is read, as the tap provider asks: every other input switched off.
    const auto usageAddress =
        scopedAddress(kAudioDevicePropertyIOProcStreamUsage, kAudioObjectPropertyScopeInput);
    AudioHardwareIOProcStreamUsage usage{proc, {}};
    ASSERT_EQ(audio().get(device, usageAddress, usage), noErr);
    EXPECT_EQ(usage.mStreamIsOn, std::vector<std::uint32_t>(inputs.channelsPerBuffer.size(), 1));
    usage.mStreamIsOn.push_back(1);
    EXPECT_EQ(audio().set(device, usageAddress, usage), kAudioHardwareBadPropertySizeError);
    usage.mStreamIsOn.assign(inputs.channelsPerBuffer.size(), 0);
    usage.mStreamIsOn.back() = 1;
    EXPECT_EQ(audio().set(device, usageAddress, usage), noErr);
    ASSERT_EQ(audio().deviceStart(device, proc), noErr);
    EXPECT_TRUE(eventually([&] { return probe.loudCycles.load() >= 20; }));
    // The block passes the tap on, so the device still plays the app, now through the IO proc; the
    // untapped app is unaffected. Silence on the direct path shows once the block stops.
    EXPECT_TRUE(rig->heard(output, other));
    ASSERT_EQ(audio().deviceStop(device, proc), noErr);
    ASSERT_EQ(audio().destroyIOProcID(device, proc), noErr);

    IOProbe silent;
    ASSERT_EQ(audio().createIOProcIDWithBlock(
                  device, &queue,
                  [&silent](const AudioBufferList& input, AudioBufferList&, const AudioTimeStamp&) {
                      silent.cycles.fetch_add(1);
                      if (!input.mBuffers.empty() && input.mBuffers.back().mData)
                          silent.loudCycles.fetch_add(1);
                  },
                  proc),
              noErr);
    // With the tap's stream switched off too, the block gets no data at all.
    usage = {proc, std::vector<std::uint32_t>(inputs.channelsPerBuffer.size(), 0)};
    EXPECT_EQ(audio().set(device, usageAddress, usage), noErr);
    ASSERT_EQ(audio().deviceStart(device, proc), noErr);
    EXPECT_TRUE(eventually([&] { return silent.cycles.load() >= 20 && !rig->heard(output, app); }));
    EXPECT_EQ(silent.loudCycles.load(), 0);
    EXPECT_TRUE(rig->heard(output, other));

    ASSERT_EQ(audio().deviceStop(device, proc), noErr);
    EXPECT_EQ(audio().destroyIOProcID(device, proc), noErr);
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
    std::vector<AudioObjectID> devices, devicesWhileHeld;
    audio().get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDevices), devices);
    ASSERT_TRUE(eventually([&] { return rig->heard(output, app); }));
    rig->exportEnvironment();
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    const char* argv[] = {TONAVI_TAP_HOLDER, "org.tonavi.Orphaned", nullptr};
    pid_t holder = -1;
    ASSERT_EQ(::posix_spawn(&holder, argv[0], &actions, nullptr, const_cast<char**>(argv), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    FILE* out = ::fdopen(fds[0], "r");
    char line[64] = {};
    ASSERT_NE(std::fgets(line, sizeof(line), out), nullptr);
    std::fclose(out);
    EXPECT_STREQ(line, "ready\n");
    EXPECT_TRUE(eventually([&] { return !rig->heard(output, app); }));
    // The holder's aggregate is private: not ours to see.
    audio().get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDevices), devicesWhileHeld);
    EXPECT_EQ(devicesWhileHeld, devices);

    // Killed hard, as a crash would: its taps die with it.
    PrivatePipeWireServer::terminate(holder, SIGKILL);
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
