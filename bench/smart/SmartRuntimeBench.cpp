// The smart pass as the runtime pays it, on the simulated machine: 30 apps playing, 8 devices, every
// feature on (microphone follow reads the hardware on each pass). And, on the real clock, how long
// after Zoom begins to capture the others are ducked: the timer, the snapshot it asks for and the
// pass after that snapshot.

#include "core/config/TonaviConfigStore.hpp"
#include "platform/sim/SimMachine.hpp"
#include "platform/sim/SimWorkspace.hpp"
#include "service/TonaviRuntime.hpp"

#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>
#include <thread>

namespace {

using namespace tonavi;
using namespace std::chrono_literals;

// Taps that exist the moment they are asked for.
class InstantTaps final : public ServiceTapProvider {
  public:
    TapHandlePtr createTap(const std::string&) override { return std::make_shared<TapHandle>(); }
    void destroyTap(const TapHandlePtr&) override {}
    void setHooks(Hooks) override {}
};

bool waitFor(const std::function<bool()>& condition, std::chrono::seconds limit = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

struct Machine {
    explicit Machine(std::shared_ptr<DispatchClock> clock) {
        folder = std::filesystem::temp_directory_path() /
                 ("tonavi-smart-bench-" + std::to_string(::getpid()) + "-" + std::to_string(++count));
        std::filesystem::create_directories(folder);
        SimWorld world = SimWorld::preset();
        for (int i = 0; i < 26; ++i) {
            const std::string id = "com.example.player" + std::to_string(i);
            world.launch({id, "Player " + std::to_string(i), 5000 + i, ActivationPolicy::regular}, true);
            world.setPlaying(id, true, std::nullopt);
        }
        world.setPlaying("com.apple.WebKit.GPU", true, std::nullopt);
        for (int d = 0; d < 2; ++d) {
            SimDevice dock;
            dock.uid = "dock-" + std::to_string(d);
            dock.name = "Dock " + std::to_string(d);
            dock.transport = kAudioDeviceTransportTypeUSB;
            dock.outputStreams = {2};
            dock.inputStreams = {2};
            world.plug(dock);
        }
        world.setCapturing("us.zoom.xos", false);
        machine = std::make_shared<SimMachine>(world);
        workspace = std::make_shared<SimWorkspace>(machine);
        auto store = std::make_shared<TonaviConfigStore>(folder.string());
        TonaviConfig config = TonaviConfig::firstRunDefaults();
        auto& smart = config.smart;
        smart.followMe = smart.loudnessGuard = smart.autoDuck = smart.micFollow = true;
        smart.followMeBackgroundPercent = 30;
        store->save(config);
        TonaviRuntime::Environment environment;
        environment.store = store;
        environment.audio = machine;
        environment.workspace = workspace;
        environment.tapProvider = std::make_shared<InstantTaps>();
        environment.clock = clock;
        runtime = std::make_unique<TonaviRuntime>(std::move(environment));
    }
    ~Machine() {
        runtime.reset();
        std::filesystem::remove_all(folder);
    }
    // Both discovery snapshots in, read at least once after `since`.
    void settle(double since) {
        runtime->serialQueue().sync([&] {
            runtime->refreshAudioSnapshotsIfNeeded(true);
            runtime->refreshHardwareSnapshotIfNeeded(true);
        });
        waitFor([&] {
            return runtime->serialQueue().syncResult([&] {
                return runtime->audioDiscoveryHealth().lastSuccessfulRead >= since &&
                       runtime->hardwareDiscoveryHealth().lastSuccessfulRead >= since;
            });
        });
    }
    bool ducked(const std::string& id) {
        auto state = runtime->engine().tapWorkerState(id);
        return runtime->engine().hasTap(id) && state && state->autoDuckApps.contains(id) &&
               state->autoDuckDB < 0;
    }

    static inline int count = 0;
    std::filesystem::path folder;
    std::shared_ptr<SimMachine> machine;
    std::shared_ptr<SimWorkspace> workspace;
    std::unique_ptr<TonaviRuntime> runtime;
};

double wallNow() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void BM_RuntimeSmartPass(benchmark::State& state) {
    auto clock = std::make_shared<ManualClock>();
    Machine m(clock);
    waitFor([&] { return m.runtime->warmUpProbes() >= 1; });
    clock->advance(500ms);
    waitFor([&] { return m.runtime->coreAudioReady(); });
    m.settle(0);
    for (auto _ : state)
        m.runtime->serialQueue().sync([&] { m.runtime->smartTick(); });
    state.counters["forceEngaged"] = static_cast<double>(m.runtime->engine().forceEngagedIDs().size());
}
BENCHMARK(BM_RuntimeSmartPass)->Unit(benchmark::kMicrosecond);

void BM_ZoomCaptureToDucked(benchmark::State& state) {
    Machine m(DispatchClock::system());
    waitFor([&] { return m.runtime->coreAudioReady(); });
    m.settle(wallNow());
    const std::string music = "com.apple.Music";
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        m.machine->mutate([](SimWorld& w) { return w.setCapturing("us.zoom.xos", true); });
        if (!waitFor([&] { return m.ducked(music); })) {
            state.SkipWithError("Music was never ducked");
            break;
        }
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        m.machine->mutate([](SimWorld& w) { return w.setCapturing("us.zoom.xos", false); });
        waitFor([&] { return !m.ducked(music); });
    }
}
BENCHMARK(BM_ZoomCaptureToDucked)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

} // namespace
