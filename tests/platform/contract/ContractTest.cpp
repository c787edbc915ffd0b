// The platform boundary's contract, run on every backend: the simulated machine and a private
// PipeWire server. Property reads and their statuses, listeners on their queue, defaults, device
// volume and mute, process objects of playing applications, a tap that silences its application's
// own path and delivers its audio into an IO proc, and the application's return when the tap's
// owner dies.
//
// What only the PipeWire backend does: the default backend where a server answers, the workspace
// from PipeWire clients, and losing the server and finding it again; output groups (an aggregate of
// devices without taps is a combined sink that plays on every member, can be the default output, goes
// when destroyed and dies with the process that made it); and a tap replaced by a newer one of the same
// application made by another connection (another process, as when the service moves an application
// to a new worker): the stream goes to the newest tap at once and stays there while both live and after
// the old one goes.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "ContractRig.hpp"
#include "base/Log.hpp"
#include "platform/PlatformBackend.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"
#include "platform/pipewire/PipeWireWorkspace.hpp"

namespace tonavi::test {
namespace {

using namespace std::chrono_literals;

// A rig on the shared private server: a skip where its programs are missing, a failure where it does
// not start.
void connectPipeWire(PrivatePipeWireServer*& server, std::unique_ptr<PipeWireRig>& rig) {
    std::string why;
    server = PrivatePipeWireServer::shared(&why);
    if (!server && PrivatePipeWireServer::programsMissing())
        GTEST_SKIP() << "no private PipeWire server: " << why;
    ASSERT_NE(server, nullptr) << "the private PipeWire server did not start: " << why;
    rig = std::make_unique<PipeWireRig>(*server);
    ASSERT_TRUE(rig->connected());
}

class ContractTest : public ::testing::TestWithParam<const char*> {
  protected:
    void SetUp() override {
        std::unique_ptr<PipeWireRig> pipewire;
        if (std::string(GetParam()) == "pipewire")
            connectPipeWire(server, pipewire);
        rig = pipewire ? std::unique_ptr<ContractRig>(std::move(pipewire)) : std::make_unique<SimRig>();
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
    PrivatePipeWireServer* server = nullptr;
    std::unique_ptr<ContractRig> rig; // the applications a test starts end with it
    DispatchQueue queue{"contract.listener"};
};

TEST_P(ContractTest, DevicesAnswerTheirPropertiesWithCoreAudioStatusesAndTellListenersOfDefaultChanges) {
    const AudioObjectID first = rig->deviceID(rig->firstOutput()),
                        second = rig->deviceID(rig->secondOutput());
    ASSERT_TRUE(first != kAudioObjectUnknown && second != kAudioObjectUnknown && first != second);
    EXPECT_EQ(defaultOutput(), first);
    for (AudioObjectID device : {first, second}) {
        const auto outputs = channels(device, kAudioObjectPropertyScopeOutput);
        const auto frames = value<std::uint32_t>(device, kAudioDevicePropertyBufferFrameSize);
        const auto range = value<AudioValueRange>(device, kAudioDevicePropertyBufferFrameSizeRange);
        EXPECT_TRUE(!value<std::string>(device, kAudioObjectPropertyName).empty() &&
                    value<std::uint32_t>(device, kAudioDevicePropertyTransportType) !=
                        kAudioDeviceTransportTypeUnknown &&
                    value<std::uint32_t>(device, kAudioDevicePropertyDeviceIsAlive) == 1u &&
                    outputs.size() == 1 && outputs[0] >= 2 && frames > 0 && range.mMinimum <= frames &&
                    frames <= range.mMaximum &&
                    value<double>(device, kAudioDevicePropertyNominalSampleRate) >= 44100.0)
            << device;
    }

    // The input device records on one stream and plays nothing; it is the default input, and cannot be
    // the default output.
    const AudioObjectID input = rig->deviceID(rig->input());
    EXPECT_EQ(std::pair(channels(input, kAudioObjectPropertyScopeInput).size(),
                        channels(input, kAudioObjectPropertyScopeOutput).size()),
              std::pair(std::size_t{1}, std::size_t{0}));
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
    EXPECT_EQ((std::pair{audio().isPropertySettable(first, uid, settable), settable}),
              std::pair(noErr, false));
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
    EXPECT_EQ(std::pair(listener.offQueue(), listener.heard().front()), std::pair(0, defaultOutputAddress));

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
    EXPECT_TRUE(listener.waitForCalls(changes + 1) && listener.offQueue() == 0);
    EXPECT_NEAR(value<float>(device, main), 0.5f, 1e-3);
    ASSERT_EQ(audio().set(device, main, 1.0f), noErr);

    for (std::uint32_t muted : {1u, 0u})
        EXPECT_TRUE(audio().set(device, mute, muted) == noErr && value<std::uint32_t>(device, mute) == muted);
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
        EXPECT_EQ(std::tuple(value<std::string>(process, kAudioProcessPropertyBundleID),
                             value<std::uint32_t>(process, kAudioProcessPropertyIsRunningOutput),
                             value<std::uint32_t>(process, kAudioProcessPropertyIsRunningInput)),
                  std::tuple(std::string(bundleID), 1u, 0u));
        // It plays on the default output, and is heard there.
        EXPECT_TRUE(eventually([&] {
            return read<std::vector<AudioObjectID>>(audio(), process,
                                                    outputAddress(kAudioProcessPropertyDevices)) ==
                       std::vector{defaultOutput()} &&
                   rig->heard(rig->firstOutput(), app);
        }));
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
    EXPECT_EQ(std::pair(value<std::string>(tap, kAudioTapPropertyUID),
                        value<std::uint32_t>(device, kAudioDevicePropertyTransportType)),
              std::pair(description.uuid, kAudioDeviceTransportTypeAggregate));
    const auto inputs = channels(device, kAudioObjectPropertyScopeInput);
    ASSERT_EQ(inputs.empty() ? 0u : inputs.back(), 2u);

    // Only the tap's stream is read, as the tap provider asks: every other input switched off. With the
    // tap's stream switched off too, the block gets no data at all, and silence on the direct path shows.
    const auto usageAddress =
        scopedAddress(kAudioDevicePropertyIOProcStreamUsage, kAudioObjectPropertyScopeInput);
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
    EXPECT_EQ((std::tuple{audio().destroyAggregateDevice(device), audio().destroyProcessTap(tap),
                          audio().destroyProcessTap(tap)}),
              std::tuple(noErr, noErr, kAudioHardwareBadObjectError));
    EXPECT_TRUE(eventually([&] { return rig->heard(output, app); }));
}

TEST_P(ContractTest, AppComesBackWhenTheTapOwnerDies) {
    const App app = rig->startApp("org.tonavi.Orphaned", 740, AppKind::toneClient);
    const std::string output = rig->firstOutput();
    const auto devicesAddress = globalAddress(kAudioHardwarePropertyDevices);
    const auto devices = value<std::vector<AudioObjectID>>(kAudioObjectSystemObject, devicesAddress);
    ASSERT_TRUE(eventually([&] { return rig->heard(output, app); }));
    rig->exportEnvironment();
    FILE* holder = ::popen("exec '" TONAVI_TAP_HOLDER "' org.tonavi.Orphaned", "r");
    int pid = 0;
    ASSERT_TRUE(holder && std::fscanf(holder, "ready %d", &pid) == 1);
    EXPECT_TRUE(eventually([&] { return !rig->heard(output, app); }));
    // The holder's aggregate is private: not ours to see.
    EXPECT_EQ(value<std::vector<AudioObjectID>>(kAudioObjectSystemObject, devicesAddress), devices);

    // Killed hard, as a crash would: its taps die with it.
    ::kill(pid, SIGKILL);
    ::pclose(holder);
    // No stream target left behind by the dead holder is the service's end-to-end test on PipeWire.
    EXPECT_TRUE(eventually([&] { return rig->heard(output, app); }));
}

INSTANTIATE_TEST_SUITE_P(Backends, ContractTest, ::testing::Values("sim", "pipewire"),
                         [](const auto& info) { return std::string(info.param); });

std::vector<AudioObjectID> devicesOf(AudioHardware& audio) {
    return read<std::vector<AudioObjectID>>(audio, kAudioObjectSystemObject,
                                            globalAddress(kAudioHardwarePropertyDevices))
        .value_or(std::vector<AudioObjectID>{});
}

class PipeWireBackendTest : public ::testing::Test {
  protected:
    void SetUp() override { connectPipeWire(server, rig); }
    PrivatePipeWireServer* server = nullptr;
    std::unique_ptr<PipeWireRig> rig; // applications, measures and a connection of this process
};
using PipeWireOutputGroupTest = PipeWireBackendTest;
using PipeWireTapHandoverTest = PipeWireBackendTest;
using PipeWireTapLatencyTest = PipeWireBackendTest;

TEST_F(PipeWireBackendTest, PipeWireIsTheDefaultWhereAServerAnswersAndChildrenInheritIt) {
    TempFolder folder;
    Log::setFilePathForTesting(folder.file("test.log"));
    ::unsetenv(PlatformBackend::environmentVariable);
    EXPECT_EQ(PlatformBackend::requestedName(), "pipewire");
    std::string error;
    auto* backend = PlatformBackend::current(&error);
    ASSERT_NE(backend, nullptr) << error;
    EXPECT_EQ(backend->name() + "|" + std::getenv(PlatformBackend::environmentVariable), "pipewire|pipewire");
    EXPECT_EQ(devicesOf(backend->audio()).size(), 3u); // speakers, headphones, microphone
    PlatformBackend::install(nullptr);
    ::setenv(PlatformBackend::environmentVariable, "sim", 1);
}

TEST_F(PipeWireBackendTest, RunningApplicationsAreTheProcessesWithClients) {
    const App app = rig->startApp("org.tonavi.Listed", 300, AppKind::toneClient);
    auto connection = std::make_shared<PipeWireConnection>();
    std::string error;
    ASSERT_TRUE(connection->start(error)) << error;
    PipeWireWorkspace workspace(connection);

    const auto found = workspace.runningApplication(app.pid).value_or(RunningApplication{});
    EXPECT_EQ(found.bundleIdentifier + " " + found.localizedName, "org.tonavi.Listed org.tonavi.Listed");
    // This process's connections are the service's own: no application, no process object.
    EXPECT_FALSE(workspace.runningApplication(::getpid()));
    EXPECT_EQ(rig->processObject(::getpid()), kAudioObjectUnknown);
    EXPECT_EQ(workspace.runningApplications("org.tonavi.Listed").size(), 1u);
    // Started by this test binary, a different program: it answers for itself.
    EXPECT_EQ(std::pair(workspace.responsiblePID(app.pid), workspace.responsiblePID(0x3fffffff)),
              std::pair(app.pid, -1));
}

// Restarts the shared server; it is whole again when the test ends, whatever runs next.
TEST_F(PipeWireBackendTest, LosingTheServerRemovesItsDevicesAndReconnectingBringsThemBackWithNewIDs) {
    std::string error;
    auto audio = PipeWireAudioHardware::connect(error);
    ASSERT_NE(audio, nullptr) << error;
    DispatchQueue queue("pipewire.test.listener");
    RecordingListener listener(queue);
    const auto address = globalAddress(kAudioHardwarePropertyDevices);
    ASSERT_EQ(audio->addPropertyListener(kAudioObjectSystemObject, address, queue, listener.block), noErr);
    const auto before = devicesOf(*audio);
    ASSERT_EQ(before.size(), 3u);

    server->stopAudio();
    EXPECT_TRUE(eventually([&] { return devicesOf(*audio).empty(); }) && listener.waitForCalls(1));
    std::uint32_t alive = 1;
    EXPECT_EQ(audio->get(before[0], globalAddress(kAudioDevicePropertyDeviceIsAlive), alive),
              kAudioHardwareBadObjectError);

    ASSERT_TRUE(server->startAudio(error)) << error;
    EXPECT_TRUE(eventually([&] { return devicesOf(*audio).size() == 3; }, std::chrono::milliseconds(15000)));
    for (AudioObjectID id : devicesOf(*audio))
        EXPECT_EQ(std::count(before.begin(), before.end(), id), 0) << "IDs are never reused";
    EXPECT_TRUE(listener.waitForCalls(2) && listener.offQueue() == 0);
    audio->removePropertyListener(kAudioObjectSystemObject, address, queue, listener.block);
    queue.sync([] {});
}

constexpr const char* groupUID = "org.tonavi.test.group";

TEST_F(PipeWireOutputGroupTest, AGroupPlaysOnEveryMemberAndLeavesNothingBehind) {
    PipeWireRig& rig = *this->rig;
    auto& audio = rig.audio();
    const auto defaultOutput = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
    AudioObjectID group = 0, again = 0;
    EXPECT_EQ(audio.createAggregateDevice(groupOf(groupUID, {"speakers", "nowhere"}), group),
              kAudioHardwareBadDeviceError);
    ASSERT_EQ(audio.createAggregateDevice(groupOf(groupUID, {"speakers", "headphones"}), group), noErr);
    EXPECT_EQ(audio.createAggregateDevice(groupOf(groupUID, {"speakers", "headphones"}), again),
              kAudioHardwareIllegalOperationError)
        << "one device per UID";
    EXPECT_EQ(rig.deviceID(groupUID), group);

    // As the default output, an application's sound reaches both members.
    const auto before = read<AudioObjectID>(audio, kAudioObjectSystemObject, defaultOutput);
    ASSERT_EQ(audio.set(kAudioObjectSystemObject, defaultOutput, group), noErr);
    const App app = rig.startApp("org.tonavi.Grouped", 660, AppKind::toneClient);
    EXPECT_TRUE(eventually([&] { return rig.heard("speakers", app) && rig.heard("headphones", app); }));
    EXPECT_EQ(audio.set(kAudioObjectSystemObject, defaultOutput, before.value_or(0)), noErr);
    ASSERT_EQ(audio.destroyAggregateDevice(group), noErr);
    EXPECT_EQ(std::pair(rig.deviceID(groupUID), audio.destroyAggregateDevice(group)),
              std::pair(kAudioObjectUnknown, kAudioHardwareBadObjectError));
    EXPECT_EQ(audio.destroyAggregateDevice(rig.deviceID("speakers")), kAudioHardwareIllegalOperationError)
        << "a device this process did not make is not its to destroy";
    rig.stopApp(app);

    // Made by a process that is then killed: the sink goes with it. The holder picks its backend from
    // the environment, which the test binary sets to the simulator.
    const std::string command = std::string("TONAVI_AUDIO_BACKEND=pipewire exec '") + TONAVI_TAP_HOLDER +
                                "' --group " + groupUID + " speakers headphones";
    FILE* out = ::popen(command.c_str(), "r");
    int holder = 0;
    ASSERT_TRUE(out && std::fscanf(out, "ready %d", &holder) == 1);
    const auto hasSink = [&](bool present) {
        return rig.pipewire().connection().waitUntil(
            [&](const PipeWireGraph& g) { return (g.nodeByName(groupUID) != nullptr) == present; }, 3000ms);
    };
    EXPECT_TRUE(hasSink(true));
    ::kill(holder, SIGKILL);
    ::pclose(out);
    EXPECT_TRUE(hasSink(false)) << "the group outlived its maker";
}

TEST_F(PipeWireTapHandoverTest, TheNewestTapOfAnApplicationKeepsItsStream) {
    PipeWireRig& rig = *this->rig;
    PipeWireRig successor(*server); // another connection: the worker that replaces the first
    ASSERT_TRUE(successor.connected());
    PipeWireConnection observer;
    std::string why;
    ASSERT_TRUE(observer.start(why)) << why;

    const App app = rig.startApp("org.tonavi.Handover", 660, AppKind::toneClient);
    TappedPath old{rig.pipewire()}, next{successor.pipewire()};
    ASSERT_TRUE(old.start(rig.processObject(app.pid), "speakers"));
    ASSERT_TRUE(observer.waitUntil([&](const PipeWireGraph& g) { return old.routed(g, app.pid); }, 5000ms));
    ASSERT_TRUE(next.start(successor.processObject(app.pid), "headphones"));
    ASSERT_TRUE(observer.waitUntil([&](const PipeWireGraph& g) { return next.routed(g, app.pid); }, 5000ms));
    // While both live, the old tap does not take the stream back.
    const auto leaves = [&](std::chrono::milliseconds within) {
        return observer.waitUntil([&](const PipeWireGraph& g) { return !next.routed(g, app.pid); }, within);
    };
    EXPECT_FALSE(leaves(1000ms));
    old.stop();
    ASSERT_TRUE(observer.roundTrip());
    EXPECT_FALSE(leaves(500ms)) << "the old tap's release moved the stream away from its successor";
    EXPECT_TRUE(eventually([&] { return rig.heard("headphones", app) && !rig.heard("speakers", app); }));
    next.stop();
}

// A tapped application is heard in the same graph cycle as it would be on its direct path: its clicks
// keep their distance to those of an untapped one, whatever the quantum.
TEST_F(PipeWireTapLatencyTest, ATappedApplicationAddsNoLatency) {
    PipeWireRig& rig = *this->rig;
    PipeWireConnection observer; // the rig's own connection is busy with the tap while routing it
    std::string why;
    ASSERT_TRUE(observer.start(why)) << why;
    const App direct = rig.startClicks("org.tonavi.ClicksLeft", 0);
    const App tapped = rig.startClicks("org.tonavi.ClicksRight", 1);
    for (int quantum : {256, 1024}) {
        SCOPED_TRACE(quantum);
        const std::string force = "pw-metadata -n settings 0 clock.force-quantum " + std::to_string(quantum);
        ASSERT_EQ(std::system((force + " >/dev/null").c_str()), 0);
        std::optional<int> before;
        ASSERT_TRUE(eventually([&] { return (before = rig.clickLag("speakers")).has_value(); }));
        TappedPath path{rig.pipewire()};
        ASSERT_TRUE(path.start(rig.processObject(tapped.pid), "speakers"));
        // Measured once the stream plays through the tap, not while it is still on its direct path.
        ASSERT_TRUE(observer.waitUntil([&](const PipeWireGraph& g) { return path.routed(g, tapped.pid); }, 5000ms));
        ASSERT_TRUE(eventually([&] { return rig.pipewire().ioStatistics(path.device, path.proc)->cycles > 50; }));
        std::optional<int> after;
        EXPECT_TRUE(eventually([&] { return (after = rig.clickLag("speakers")).has_value(); }));
        path.stop();
        ASSERT_TRUE(after);
        const int added = PipeWireRig::wrapClickLag(*after - *before);
        EXPECT_EQ(added, 0) << "frames added by the tap";
        std::printf("tap latency at quantum %d: %d frames added\n", quantum, added);
    }
    std::system("pw-metadata -n settings 0 clock.force-quantum 0 >/dev/null");
    rig.stopApp(direct);
    rig.stopApp(tapped);
}

} // namespace
} // namespace tonavi::test
