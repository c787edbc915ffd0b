// What only the PipeWire backend does: the default backend where a server answers, the workspace
// from PipeWire clients, and losing the server and finding it again.

#include <gtest/gtest.h>

#include "ContractRig.hpp"
#include "base/Log.hpp"
#include "platform/PlatformBackend.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"
#include "platform/pipewire/PipeWireWorkspace.hpp"

namespace tonavi::test {
namespace {

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
    }
    PrivatePipeWireServer* server = nullptr;
};

TEST_F(PipeWireBackendTest, PipeWireIsTheDefaultWhereAServerAnswersAndChildrenInheritIt) {
    TempFolder folder;
    Log::setFilePathForTesting(folder.file("test.log"));
    const std::string runtime = std::getenv("XDG_RUNTIME_DIR");
    ::unsetenv(PlatformBackend::environmentVariable);
    EXPECT_EQ(PlatformBackend::requestedName(), "pipewire");
    std::string error;
    auto* backend = PlatformBackend::current(&error);
    ASSERT_NE(backend, nullptr) << error;
    EXPECT_EQ(backend->name(), "pipewire");
    EXPECT_STREQ(std::getenv(PlatformBackend::environmentVariable), "pipewire");
    EXPECT_EQ(devicesOf(backend->audio()).size(), 3u); // speakers, headphones, microphone
    PlatformBackend::install(nullptr);

    // A runtime folder where nothing answers: the simulated machine, unless pipewire is asked for.
    for (const char* variable : {"XDG_RUNTIME_DIR", "PIPEWIRE_RUNTIME_DIR"})
        ::setenv(variable, folder.file("").c_str(), 1);
    ::unsetenv(PlatformBackend::environmentVariable);
    EXPECT_EQ(PlatformBackend::requestedName(), "sim");
    for (auto [name, message] :
         {std::pair{"pipewire", "no PipeWire server answers"},
          {"coreaudio", "unknown audio backend \"coreaudio\" (expected sim or pipewire)"}}) {
        ::setenv(PlatformBackend::environmentVariable, name, 1);
        EXPECT_EQ(PlatformBackend::current(&error), nullptr);
        EXPECT_NE(error.find(message), std::string::npos) << error;
    }
    for (const char* variable : {"XDG_RUNTIME_DIR", "PIPEWIRE_RUNTIME_DIR"})
        ::setenv(variable, runtime.c_str(), 1);
    ::setenv(PlatformBackend::environmentVariable, "sim", 1);
}

TEST_F(PipeWireBackendTest, RunningApplicationsAreTheProcessesWithClients) {
    PipeWireRig rig(*server);
    ASSERT_TRUE(rig.connected());
    const App app = rig.startApp("org.tonavi.Listed", 300, AppKind::toneClient);
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
    rig.stopApp(app);
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

} // namespace
} // namespace tonavi::test
