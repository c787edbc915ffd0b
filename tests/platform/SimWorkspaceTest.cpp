// The simulated workspace: running applications, the frontmost one and its activation events, the
// window list behind the front-window fallback, responsible processes, sleep and wake; and the
// choice of backend from the environment.

#include <gtest/gtest.h>

#include <cstdlib>
#include <unistd.h>

#include "SimTestSupport.hpp"
#include "base/Log.hpp"
#include "platform/PlatformBackend.hpp"
#include "platform/sim/SimWorkspace.hpp"

namespace tonavi {
namespace {

class SimWorkspaceTest : public ::testing::Test {
  protected:
    std::shared_ptr<SimMachine> machine = std::make_shared<SimMachine>(SimWorld::preset());
    SimWorkspace workspace{machine};
};

TEST_F(SimWorkspaceTest, ApplicationsPoliciesAndResponsibleProcesses) {
    EXPECT_EQ(workspace.runningApplications().size(), 4u);
    const auto agent = workspace.runningApplications("com.example.SyncAgent");
    ASSERT_EQ(agent.size(), 1u);
    EXPECT_EQ(agent[0].activationPolicy, ActivationPolicy::prohibited);
    EXPECT_TRUE(workspace.runningApplications("com.example.Missing").empty());
    ASSERT_TRUE(workspace.runningApplication(4103).has_value());
    EXPECT_EQ(workspace.runningApplication(4103)->bundleIdentifier, "com.apple.Music");
    EXPECT_FALSE(workspace.runningApplication(4102).has_value()); // a helper is no application

    EXPECT_EQ(workspace.responsiblePID(4102), 4101); // the browser answers for its helper
    EXPECT_EQ(workspace.responsiblePID(4103), 4103);
    EXPECT_EQ(workspace.responsiblePID(::getpid()), ::getpid()); // a real process answers for itself
    EXPECT_EQ(workspace.responsiblePID(0), -1);

    // Quitting the browser takes its helper's process object with it.
    ASSERT_EQ(machine->mutate([](SimWorld& w) { return w.quit("com.apple.Safari"); }), "");
    for (const auto& p : machine->world()->processes)
        EXPECT_NE(p.pid, 4102);
    EXPECT_FALSE(workspace.frontmostApplication().has_value());
}

TEST_F(SimWorkspaceTest, ActivationIsDeliveredOnTheObserversQueue) {
    ASSERT_TRUE(workspace.frontmostApplication().has_value());
    EXPECT_EQ(workspace.frontmostApplication()->bundleIdentifier, "com.apple.Safari");

    DispatchQueue queue("test.activation");
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> activated;
    bool onQueue = true;
    const auto token = workspace.addActivationObserver(queue, [&](const RunningApplication& app) {
        std::lock_guard<std::mutex> guard(mutex);
        activated.push_back(app.bundleIdentifier);
        onQueue = onQueue && queue.isCurrent();
        changed.notify_all();
    });
    ASSERT_EQ(machine->mutate([](SimWorld& w) { return w.activate("com.apple.Music"); }), "");
    // A background agent cannot come to the front.
    EXPECT_EQ(machine->mutate([](SimWorld& w) { return w.activate("com.example.SyncAgent"); }),
              "application com.example.SyncAgent cannot become frontmost");
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(10), [&] { return !activated.empty(); }));
        EXPECT_EQ(activated, std::vector<std::string>{"com.apple.Music"});
        EXPECT_TRUE(onQueue);
    }
    // Music's window is now the first normal-layer window, behind the menu bar.
    const auto windows = workspace.onScreenWindows();
    ASSERT_TRUE(windows.has_value());
    ASSERT_GE(windows->size(), 2u);
    EXPECT_EQ((*windows)[0].layer, 25);
    EXPECT_EQ((*windows)[1].ownerPID, 4103);
    EXPECT_EQ((*windows)[1].layer, 0);

    workspace.removeObserver(token);
    ASSERT_EQ(machine->mutate([](SimWorld& w) { return w.activate("com.apple.Safari"); }), "");
    queue.sync([] {});
    std::lock_guard<std::mutex> guard(mutex);
    EXPECT_EQ(activated.size(), 1u);

    ASSERT_EQ(machine->mutate([](SimWorld& w) {
        w.windowListAvailable = false;
        return std::string();
    }),
              "");
    EXPECT_FALSE(workspace.onScreenWindows().has_value());
}

TEST_F(SimWorkspaceTest, SleepAndWakeReachTheirObserversOnce) {
    int slept = 0, woke = 0;
    workspace.addWillSleepObserver([&] { ++slept; });
    workspace.addDidWakeObserver([&] { ++woke; });
    auto setAsleep = [&](bool asleep) {
        return machine->mutate([asleep](SimWorld& w) {
            w.asleep = asleep;
            return std::string();
        });
    };
    // The handlers run on the thread that made the change, like a notification with no queue.
    ASSERT_EQ(setAsleep(true), "");
    EXPECT_EQ(slept, 1);
    EXPECT_EQ(woke, 0);
    ASSERT_EQ(setAsleep(true), "");
    EXPECT_EQ(slept, 1);
    ASSERT_EQ(setAsleep(false), "");
    EXPECT_EQ(woke, 1);
}

TEST(PlatformBackendTest, WithoutAServerTheSimulatedMachineIsChosenOnceAndChildrenInheritIt) {
    test::TempFolder folder;
    Log::setFilePathForTesting(folder.file("test.log"));
    const std::string world = folder.file("machine/world.json");
    ::setenv(PlatformBackend::worldVariable, world.c_str(), 1);

    // No audio server answers in an empty runtime folder, so the default is the simulated machine.
    ::setenv("XDG_RUNTIME_DIR", folder.file("").c_str(), 1);
    ::setenv("PIPEWIRE_RUNTIME_DIR", folder.file("").c_str(), 1);
    ::unsetenv(PlatformBackend::environmentVariable);
    std::string error;
    auto* backend = PlatformBackend::current(&error);
    ASSERT_NE(backend, nullptr) << error;
    EXPECT_EQ(backend->name(), "sim");
    EXPECT_STREQ(std::getenv(PlatformBackend::environmentVariable), "sim");
    // A first run creates the preset machine in the world file.
    std::vector<AudioObjectID> devices;
    EXPECT_EQ(
        backend->audio().get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDevices), devices),
        noErr);
    EXPECT_EQ(devices.size(), 6u);
    EXPECT_EQ(backend->workspace().frontmostApplication()->bundleIdentifier, "com.apple.Safari");
    // Once chosen, it stays.
    ::setenv(PlatformBackend::environmentVariable, "pipewire", 1);
    EXPECT_EQ(PlatformBackend::current(), backend);
    PlatformBackend::install(nullptr);
    ::unsetenv(PlatformBackend::environmentVariable);
    ::unsetenv(PlatformBackend::worldVariable);
}

} // namespace
} // namespace tonavi
