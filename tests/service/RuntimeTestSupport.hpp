#pragma once
// A runtime over a private simulated machine, a temporary store, a scriptable tap provider and a
// manual clock. The clock drives the runtime's queues, timers and warm-up waits; the wall clock
// (seconds since 1970) is a plain number the test sets.

#include "base/Log.hpp"
#include "core/config/TonaviConfigStore.hpp"
#include "platform/sim/SimMachine.hpp"
#include "platform/sim/SimWorkspace.hpp"
#include "service/TonaviRuntime.hpp"
#include "tests/core/config/ConfigTestSupport.hpp"
#include "tests/core/engine/FakeTaps.hpp"
#include "tests/platform/support/Eventually.hpp"
#include "tests/service/SimLaptopNames.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <thread>

namespace tonavi::testing {

// The fake engine-side provider, seen through the runtime's provider interface.
class FakeServiceTaps final : public ServiceTapProvider {
  public:
    TapHandlePtr createTap(const std::string& id) override { return taps.createTap(id); }
    void destroyTap(const TapHandlePtr& handle) override { taps.destroyTap(handle); }
    void setHooks(Hooks h) override { hooks = std::move(h); }
    void syncStates() override { ++syncs; }

    // Scripted answers of the live counters, by app; set them while the runtime's queue is idle.
    std::optional<std::string> sourceDevice(std::string_view id) const override { return find(source, id); }
    std::optional<std::string> targetDevice(std::string_view id) const override { return find(target, id); }
    std::optional<double> secondsSinceRawAudio(std::string_view id) const override { return find(idle, id); }
    bool ioStale(std::string_view id, double) const override { return stale.count(std::string(id)) > 0; }
    float level(std::string_view id) const override {
        return static_cast<float>(find(levels, id).value_or(0.0));
    }
    // The first process group the watchdog shows for an app stands for the one its tap was made with.
    bool processGroupChanged(std::string_view id, const std::optional<TapProcessIdentity>& current) const override {
        if (!current)
            return false;
        const auto [bound, first] = groups.try_emplace(std::string(id), *current);
        return !first && bound->second.needsRefresh(*current);
    }

    FakeTaps taps;
    Hooks hooks;
    std::map<std::string, std::string> source, target;
    std::map<std::string, double> idle, levels;
    std::set<std::string> stale;
    mutable std::map<std::string, TapProcessIdentity> groups; // on serialQueue
    std::atomic<int> syncs{0}; // pushes of fresh state to the workers

  private:
    template <class T>
    static std::optional<T> find(const std::map<std::string, T>& map, std::string_view id) {
        auto it = map.find(std::string(id));
        return it == map.end() ? std::nullopt : std::optional<T>(it->second);
    }
};

inline int occurrences(const std::string& text, const std::string& line) {
    int n = 0;
    for (auto at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
        ++n;
    return n;
}

// Waits for a condition another thread makes true; fails the test after five seconds.
inline bool waitUntil(const std::function<bool()>& condition) {
    return test::eventually(condition, std::chrono::seconds(5));
}

class RuntimeHarness {
  public:
    RuntimeHarness() {
        Log::setFilePathForTesting((folder.path() / "service.log").string());
        fileSystem->shouldFail = [this](FaultyFileSystem::Op op, const FileSystem::Path& path) {
            if (op == FaultyFileSystem::Op::writeAtomically && path.filename() == "state.json.tmp")
                ++stateWrites;
            return failWrites.load() && op == FaultyFileSystem::Op::writeAtomically;
        };
        store = std::make_shared<TonaviConfigStore>(folder.path(), fileSystem);
    }

    // A profiler read of the test's own stands in for the slow Bluetooth source.
    TonaviRuntime& start(BluetoothInfo::ProfilerRead profiler = {}) {
        runtime = std::make_unique<TonaviRuntime>(TonaviRuntime::Environment{
            "9.9-test", store, machine, workspace, provider, clock, [this] { return wall.load(); },
            std::move(profiler), installedApplications, midi});
        return *runtime;
    }
    // Starts and lets the warm-up finish with a fast hardware.
    TonaviRuntime& startReady(BluetoothInfo::ProfilerRead profiler = {}) {
        start(std::move(profiler));
        EXPECT_TRUE(waitUntil([&] { return runtime->warmUpProbes() >= 1; }));
        advance(0.5);
        EXPECT_TRUE(waitUntil([&] { return runtime->coreAudioReady(); }));
        return *runtime;
    }
    // Moves time on and lets the runtime's queue run everything that fell due.
    void advance(double seconds) {
        clock->advance(std::chrono::round<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds)));
        runtime->serialQueue().sync([] {});
    }
    // Moves the clock in poll-sized steps until `done`. The polls hop through a hardware queue between
    // steps, so the bound is real time, not clock time.
    bool advanceUntil(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            advance(0.02);
            std::this_thread::yield();
        }
        return true;
    }
    // Lets one process and hardware discovery probe finish on a status request, so that their
    // results (and the apps they place in the user's order) are in before the test goes on.
    void settleDiscovery() {
        send(TonaviRequest::Status{});
        EXPECT_TRUE(waitUntil([&] {
            bool done = false;
            runtime->serialQueue().sync([&] {
                // Both probes read at the wall clock's present time.
                done = runtime->audioDiscoveryHealth().lastSuccessfulRead == wall.load() &&
                       runtime->hardwareDiscoveryHealth().lastSuccessfulRead == wall.load();
            });
            return done;
        }));
        send(TonaviRequest::Status{});
    }
    void edit(const std::function<std::string(SimWorld&)>& change) { ASSERT_EQ(machine->mutate(change), ""); }
    std::string log() const { return readText(folder.path() / "service.log"); }
    bool logged(const std::string& line) const { return log().find(line) != std::string::npos; }
    int timesLogged(const std::string& line) const { return occurrences(log(), line); }
    TonaviReply send(TonaviRequest::Value value) { return runtime->handle(TonaviRequest{std::move(value)}); }
    TonaviConfig onDisk() const { return decodeTonaviConfig(readText(store->configURL())); }

    TemporaryFolder folder;
    std::shared_ptr<FaultyFileSystem> fileSystem = std::make_shared<FaultyFileSystem>();
    std::shared_ptr<TonaviConfigStore> store;
    std::shared_ptr<SimMachine> machine = std::make_shared<SimMachine>(SimWorld::preset());
    std::shared_ptr<SimWorkspace> workspace = std::make_shared<SimWorkspace>(machine);
    std::shared_ptr<FakeServiceTaps> provider = std::make_shared<FakeServiceTaps>();
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::atomic<double> wall{1'700'000'000.0};
    std::atomic<int> stateWrites{0};
    std::atomic<bool> failWrites{false};
    // The desktop entries the runtime's directory reads: none unless a test gives some.
    AppDirectory::Source installedApplications = [] { return std::vector<DesktopEntry>{}; };
    // No MIDI unless a test gives a system.
    std::shared_ptr<MIDISystem> midi;
    std::unique_ptr<TonaviRuntime> runtime; // last, so that it goes first
};

// A reply that arrives later, on the runtime's queue.
using Late = std::shared_future<TonaviReply>;
inline Late sendLate(RuntimeHarness& h, TonaviRequest::Value value) {
    auto reply = std::make_shared<std::promise<TonaviReply>>();
    h.runtime->handleAsync(TonaviRequest{std::move(value)},
                           [reply](TonaviReply r) { reply->set_value(std::move(r)); });
    return reply->get_future().share();
}
inline bool arrived(const Late& reply) {
    return reply.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}
// The reply, with the harness's clock advanced until it arrives.
inline TonaviReply sendAndWait(RuntimeHarness& h, TonaviRequest::Value value) {
    const Late reply = sendLate(h, std::move(value));
    EXPECT_TRUE(h.advanceUntil([&] { return arrived(reply); }));
    return arrived(reply) ? reply.get() : TonaviReply{};
}

} // namespace tonavi::testing
