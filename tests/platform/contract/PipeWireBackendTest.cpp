// What only the PipeWire backend does: the default backend where a server answers, the workspace
// from PipeWire clients, and losing the server and finding it again; output groups (an aggregate of
// devices without taps is a combined sink that plays on every member, can be the default output, goes
// when destroyed and dies with the process that made it); and a tap replaced by a newer one of the same
// application made by another connection (another process, as when the service moves an application
// to a new worker): the stream goes to the newest tap at once and stays there while both live and after
// the old one goes.

#include <gtest/gtest.h>

#include <cstring>

#include "ContractRig.hpp"
#include "base/Log.hpp"
#include "platform/PlatformBackend.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"
#include "platform/pipewire/PipeWireWorkspace.hpp"

namespace tonavi::test {
namespace {

using namespace std::chrono_literals;

std::vector<AudioObjectID> devicesOf(AudioHardware& audio) {
    return read<std::vector<AudioObjectID>>(audio, kAudioObjectSystemObject,
                                            globalAddress(kAudioHardwarePropertyDevices))
        .value_or(std::vector<AudioObjectID>{});
}

class PipeWireBackendTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string why;
        server = PrivatePipeWireServer::shared(&why);
        if (!server && PrivatePipeWireServer::programsMissing())
            GTEST_SKIP() << "no private PipeWire server: " << why;
        ASSERT_NE(server, nullptr) << "the private PipeWire server did not start: " << why;
        rig = std::make_unique<PipeWireRig>(*server);
        ASSERT_TRUE(rig->connected());
    }
    PrivatePipeWireServer* server = nullptr;
    std::unique_ptr<PipeWireRig> rig; // applications, measures and a connection of this process
};
using PipeWireOutputGroupTest = PipeWireBackendTest;
using PipeWireTapHandoverTest = PipeWireBackendTest;

TEST_F(PipeWireBackendTest, PipeWireIsTheDefaultWhereAServerAnswersAndChildrenInheritIt) {
    TempFolder folder;
    Log::setFilePathForTesting(folder.file("test.log"));
    ::unsetenv(PlatformBackend::environmentVariable);
    EXPECT_EQ(PlatformBackend::requestedName(), "pipewire");
    std::string error;
    auto* backend = PlatformBackend::current(&error);
    ASSERT_NE(backend, nullptr) << error;
    EXPECT_EQ(backend->name(), "pipewire");
    EXPECT_STREQ(std::getenv(PlatformBackend::environmentVariable), "pipewire");
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

    const auto found = workspace.runningApplication(app.pid);
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->bundleIdentifier + " " + found->localizedName, "org.tonavi.Listed org.tonavi.Listed");
    EXPECT_EQ(workspace.runningApplications("org.tonavi.Listed").size(), 1u);
    // Started by this test binary, a different program: it answers for itself.
    EXPECT_EQ(workspace.responsiblePID(app.pid), app.pid);
    EXPECT_EQ(workspace.responsiblePID(0x3fffffff), -1);
    EXPECT_FALSE(workspace.frontmostApplication().has_value());
    EXPECT_FALSE(workspace.onScreenWindows().has_value());
    rig->stopApp(app);
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
    EXPECT_TRUE(eventually([&] { return devicesOf(*audio).empty(); }));
    EXPECT_TRUE(listener.waitForCalls(1));
    std::uint32_t alive = 1;
    EXPECT_EQ(audio->get(before[0], globalAddress(kAudioDevicePropertyDeviceIsAlive), alive),
              kAudioHardwareBadObjectError);

    ASSERT_TRUE(server->startAudio(error)) << error;
    EXPECT_TRUE(eventually([&] { return devicesOf(*audio).size() == 3; }, std::chrono::milliseconds(15000)));
    for (AudioObjectID id : devicesOf(*audio))
        EXPECT_EQ(std::count(before.begin(), before.end(), id), 0) << "IDs are never reused";
    EXPECT_TRUE(listener.waitForCalls(2));
    EXPECT_EQ(listener.offQueue(), 0);
    audio->removePropertyListener(kAudioObjectSystemObject, address, queue, listener.block);
    queue.sync([] {});
}

constexpr const char* groupUID = "org.tonavi.test.group";

AggregateDeviceDescription groupOf(std::vector<std::string> members) {
    AggregateDeviceDescription group{.uid = groupUID, .name = "Test group", .mainSubDevice = members.front()};
    for (std::size_t i = 0; i < members.size(); ++i)
        group.subDevices.push_back({members[i], i > 0});
    return group;
}

TEST_F(PipeWireOutputGroupTest, AGroupPlaysOnEveryMemberAndLeavesNothingBehind) {
    PipeWireRig& rig = *this->rig;
    auto& audio = rig.audio();
    const auto defaultOutput = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
    AudioObjectID group = 0, again = 0;
    EXPECT_EQ(audio.createAggregateDevice(groupOf({"speakers", "nowhere"}), group),
              kAudioHardwareBadDeviceError);
    ASSERT_EQ(audio.createAggregateDevice(groupOf({"speakers", "headphones"}), group), noErr);
    EXPECT_EQ(audio.createAggregateDevice(groupOf({"speakers", "headphones"}), again),
              kAudioHardwareIllegalOperationError)
        << "one device per UID";
    EXPECT_EQ(rig.deviceID(groupUID), group);
    EXPECT_EQ(read<std::uint32_t>(audio, group, globalAddress(kAudioDevicePropertyTransportType)),
              kAudioDeviceTransportTypeAggregate);

    // As the default output, an application's sound reaches both members.
    const auto before = read<AudioObjectID>(audio, kAudioObjectSystemObject, defaultOutput);
    ASSERT_EQ(audio.set(kAudioObjectSystemObject, defaultOutput, group), noErr);
    const App app = rig.startApp("org.tonavi.Grouped", 660, AppKind::toneClient);
    EXPECT_TRUE(eventually([&] { return rig.heard("speakers", app) && rig.heard("headphones", app); }));
    EXPECT_EQ(audio.set(kAudioObjectSystemObject, defaultOutput, before.value_or(0)), noErr);
    ASSERT_EQ(audio.destroyAggregateDevice(group), noErr);
    EXPECT_EQ(rig.deviceID(groupUID), kAudioObjectUnknown);
    EXPECT_EQ(audio.destroyAggregateDevice(group), kAudioHardwareBadObjectError);
    EXPECT_EQ(audio.destroyAggregateDevice(rig.deviceID("speakers")), kAudioHardwareIllegalOperationError)
        << "a device this process did not make is not its to destroy";
    rig.stopApp(app);

    // Made by a process that is then killed: the sink goes with it. The holder picks its backend from
    // the environment, which the test binary sets to the simulator.
    FILE* out = ::popen((std::string("TONAVI_AUDIO_BACKEND=pipewire exec '") + TONAVI_TAP_HOLDER +
                         "' --group " + groupUID + " speakers headphones")
                            .c_str(),
                        "r");
    ASSERT_NE(out, nullptr);
    int holder = 0;
    ASSERT_EQ(std::fscanf(out, "ready %d", &holder), 1);
    const auto hasSink = [&](bool present) {
        return rig.pipewire().connection().waitUntil(
            [&](const PipeWireGraph& g) { return (g.nodeByName(groupUID) != nullptr) == present; }, 3000ms);
    };
    EXPECT_TRUE(hasSink(true));
    ::kill(holder, SIGKILL);
    ::pclose(out);
    EXPECT_TRUE(hasSink(false)) << "the group outlived its maker";
}

// A tap of a process with an IO proc passing the tap on to `output`, on one connection.
struct TappedPath {
    PipeWireAudioHardware& audio;
    AudioObjectID tap = 0, device = 0;
    AudioDeviceIOProcID proc = 0;

    bool start(AudioObjectID process, const std::string& output) {
        auto description = TapDescription::stereoMixdown({process});
        description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
        device = tapAggregate(audio, description, {output}, &tap);
        proc = startIO(
            audio, device, [](const AudioBufferList& in, AudioBufferList& out, const AudioTimeStamp&) {
                if (!in.mBuffers.empty() && in.mBuffers.back().mData)
                    std::memcpy(out.mBuffers[0].mData, in.mBuffers.back().mData,
                                std::min(in.mBuffers.back().mDataByteSize, out.mBuffers[0].mDataByteSize));
            });
        return device && proc;
    }
    void stop() {
        audio.deviceStop(device, proc);
        audio.destroyIOProcID(device, proc);
        audio.destroyAggregateDevice(device);
        audio.destroyProcessTap(tap);
    }
    // Whether the application's stream targets this tap's sink.
    bool routed(const PipeWireGraph& g, pid_t pid) const {
        const auto* sink = g.nodeByName(audio.tapNodeName(tap));
        for (const auto& [global, n] : g.nodes)
            if (auto meta = g.nodeMetadata.find(global);
                n.pid == pid && n.mediaClass() == "Stream/Output/Audio" && meta != g.nodeMetadata.end())
                if (auto t = meta->second.find("target.object"); t != meta->second.end())
                    return sink && t->second == sink->prop("object.serial");
        return false;
    }
};

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

} // namespace
} // namespace tonavi::test
