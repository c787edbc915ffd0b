// The simulated workspace: running applications, the frontmost one and its activation events, the
// window list behind the front-window fallback and responsible processes (sleep and wake are the
// runtime's tests); and the choice of backend from the environment.

#include <gtest/gtest.h>

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
    const auto agent = workspace.runningApplications("com.example.SyncAgent");
    EXPECT_TRUE(agent.size() == 1 && agent[0].activationPolicy == ActivationPolicy::prohibited);
    EXPECT_EQ(workspace.runningApplication(4103).value_or(RunningApplication{}).bundleIdentifier,
              "com.apple.Music");
    EXPECT_FALSE(workspace.runningApplication(4102).has_value()); // a helper is no application
    // The browser answers for its helper; a real process answers for itself.
    for (auto [pid, responsible] : {std::pair{4102, 4101}, {4103, 4103}, {::getpid(), ::getpid()}, {0, -1}})
        EXPECT_EQ(workspace.responsiblePID(pid), responsible) << pid;

    // Quitting the browser takes its helper's process object with it.
    ASSERT_EQ(machine->mutate([](SimWorld& w) { return w.quit("com.apple.Safari"); }), "");
    EXPECT_TRUE(test::processOf(*machine, "com.apple.WebKit.GPU") == 0 && !workspace.frontmostApplication());
}

TEST_F(SimWorkspaceTest, ActivationIsDeliveredOnTheObserversQueueAndMovesTheWindows) {
    EXPECT_EQ(workspace.frontmostApplication().value_or(RunningApplication{}).bundleIdentifier,
              "com.apple.Safari");
    DispatchQueue queue("test.activation");
    std::vector<std::string> activated; // only touched on the queue
    bool onQueue = true;
    const auto token = workspace.addActivationObserver(queue, [&](const RunningApplication& app) {
        activated.push_back(app.bundleIdentifier);
        onQueue = onQueue && queue.isCurrent();
    });
    ASSERT_EQ(machine->mutate([](SimWorld& w) { return w.activate("com.apple.Music"); }), "");
    // A background agent cannot come to the front.
    EXPECT_EQ(machine->mutate([](SimWorld& w) { return w.activate("com.example.SyncAgent"); }),
              "application com.example.SyncAgent cannot become frontmost");
    EXPECT_TRUE(test::eventually([&] { return !queue.syncResult([&] { return activated.empty(); }); }));
    workspace.removeObserver(token);
    ASSERT_EQ(machine->mutate([](SimWorld& w) { return w.activate("com.apple.Safari"); }), "");
    EXPECT_EQ(queue.syncResult([&] { return activated; }), std::vector<std::string>{"com.apple.Music"});
    EXPECT_TRUE(onQueue);

    // Music's window came to be the first normal-layer window, behind the menu bar.
    ASSERT_EQ(machine->mutate([](SimWorld& w) { return w.activate("com.apple.Music"); }), "");
    const auto windows = workspace.onScreenWindows().value_or(std::vector<WindowInfo>{});
    ASSERT_GE(windows.size(), 2u);
    EXPECT_EQ(std::tuple(windows[0].layer, windows[1].layer, windows[1].ownerPID), std::tuple(25, 0, 4103));
    ASSERT_EQ(machine->mutate([](SimWorld& w) { return w.windowListAvailable = false, std::string(); }), "");
    EXPECT_FALSE(workspace.onScreenWindows().has_value());
}

TEST(PlatformBackendTest, WithoutAServerTheSimulatedMachineIsChosenOnceAndChildrenInheritIt) {
    test::TempFolder folder;
    Log::setFilePathForTesting(folder.file("test.log"));
    ::setenv(PlatformBackend::worldVariable, folder.file("machine/world.json").c_str(), 1);
    // No audio server answers in an empty runtime folder: pipewire is refused, the simulated machine the
    // default.
    ::setenv("XDG_RUNTIME_DIR", folder.file("").c_str(), 1);
    ::setenv("PIPEWIRE_RUNTIME_DIR", folder.file("").c_str(), 1);
    std::string error;
    for (auto [name, message] :
         {std::pair{"pipewire", "no PipeWire server answers"},
          {"coreaudio", "unknown audio backend \"coreaudio\" (expected sim or pipewire)"}}) {
        ::setenv(PlatformBackend::environmentVariable, name, 1);
        EXPECT_EQ(PlatformBackend::current(&error), nullptr);
        EXPECT_NE(error.find(message), std::string::npos) << error;
    }
    ::unsetenv(PlatformBackend::environmentVariable);
    EXPECT_EQ(PlatformBackend::requestedName(), "sim");
    auto* backend = PlatformBackend::current(&error);
    ASSERT_NE(backend, nullptr) << error;
    EXPECT_EQ(backend->name() + "|" + std::getenv(PlatformBackend::environmentVariable), "sim|sim");
    // A first run creates the preset machine in the world file.
    EXPECT_EQ(backend->workspace().frontmostApplication().value_or(RunningApplication{}).bundleIdentifier,
              "com.apple.Safari");
    // Once chosen, it stays.
    ::setenv(PlatformBackend::environmentVariable, "pipewire", 1);
    EXPECT_EQ(PlatformBackend::current(), backend);
    PlatformBackend::install(nullptr);
    for (const char* variable : {PlatformBackend::environmentVariable, PlatformBackend::worldVariable})
        ::unsetenv(variable);
}

} // namespace
} // namespace tonavi
