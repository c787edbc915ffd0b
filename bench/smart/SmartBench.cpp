// One smart pass of pure decisions, as the runtime pays it at least every two seconds: 30 apps, 8
// devices, every feature on, followed by the onset trail's update and the status's smart record.
//
// The smart pass as the runtime pays it, on the simulated machine: 30 apps playing, 8 devices, every
// feature on (microphone follow reads the hardware on each pass). And, on the real clock, how long
// after Zoom begins to capture the others are ducked: the timer, the snapshot it asks for and the
// pass after that snapshot.

#include "core/config/TonaviConfigStore.hpp"
#include "core/smart/AudioOnsetTrail.hpp"
#include "core/smart/SmartTickPolicy.hpp"
#include "platform/sim/SimMachine.hpp"
#include "platform/sim/SimWorkspace.hpp"
#include "service/TonaviRuntime.hpp"
#include "tests/platform/support/Eventually.hpp"
#include "tests/support/TempFolder.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>

namespace {

using namespace tonavi;
using namespace std::chrono_literals;

// Taps that exist the moment they are asked for.
struct InstantTaps final : ServiceTapProvider {
    TapHandlePtr createTap(const std::string&) override { return std::make_shared<TapHandle>(); }
    void destroyTap(const TapHandlePtr&) override {}
    void setHooks(Hooks) override {}
};

using tonavi::test::eventually;

// The preset machine with 26 players more, two USB docks and Zoom ready to capture.
struct Machine {
    explicit Machine(std::shared_ptr<DispatchClock> clock) {
        SimWorld world = SimWorld::preset();
        for (int i = 0; i < 26; ++i) {
            const std::string id = "com.example.player" + std::to_string(i);
            world.launch({id, "Player " + std::to_string(i), 5000 + i, ActivationPolicy::regular}, true);
            world.setPlaying(id, true, std::nullopt);
        }
        world.setPlaying("com.apple.WebKit.GPU", true, std::nullopt);
        for (const char* uid : {"dock-0", "dock-1"}) {
            SimDevice dock;
            dock.uid = dock.name = uid;
            dock.transport = kAudioDeviceTransportTypeUSB;
            dock.inputStreams = dock.outputStreams = {2};
            world.plug(dock);
        }
        world.setCapturing("us.zoom.xos", false);
        machine = std::make_shared<SimMachine>(world);
        TonaviConfig config = TonaviConfig::firstRunDefaults();
        config.smart.followMe = config.smart.loudnessGuard = config.smart.autoDuck = config.smart.micFollow =
            true;
        config.smart.followMeBackgroundPercent = 30;
        TonaviRuntime::Environment environment;
        environment.store = std::make_shared<TonaviConfigStore>(folder.path().string());
        environment.store->save(config);
        environment.audio = machine;
        environment.workspace = std::make_shared<SimWorkspace>(machine);
        environment.tapProvider = std::make_shared<InstantTaps>();
        environment.clock = std::move(clock);
        runtime = std::make_unique<TonaviRuntime>(std::move(environment));
    }
    // Ready, with both discovery snapshots in, read at least once after `since`.
    void settle(double since) {
        eventually([&] { return runtime->coreAudioReady(); });
        runtime->serialQueue().sync([&] {
            runtime->refreshAudioSnapshotsIfNeeded(true);
            runtime->refreshHardwareSnapshotIfNeeded(true);
        });
        eventually([&] {
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

    const tonavi::test::TempFolder folder;
    std::shared_ptr<SimMachine> machine;
    std::unique_ptr<TonaviRuntime> runtime;
};

void BM_RuntimeSmartPass(benchmark::State& state) {
    auto clock = std::make_shared<ManualClock>();
    Machine m(clock);
    eventually([&] { return m.runtime->warmUpProbes() >= 1; });
    clock->advance(500ms);
    m.settle(0);
    for (auto _ : state)
        m.runtime->serialQueue().sync([&] { m.runtime->smartTick(); });
    state.counters["forceEngaged"] = static_cast<double>(m.runtime->engine().forceEngagedIDs().size());
}
BENCHMARK(BM_RuntimeSmartPass)->Unit(benchmark::kMicrosecond);

void BM_ZoomCaptureToDucked(benchmark::State& state) {
    Machine m(DispatchClock::system());
    m.settle(std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count());
    const auto capture = [&](bool on) {
        m.machine->mutate([on](SimWorld& w) { return w.setCapturing("us.zoom.xos", on); });
    };
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        capture(true);
        if (!eventually([&] { return m.ducked("com.apple.Music"); }))
            return state.SkipWithError("Music was never ducked");
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        capture(false);
        eventually([&] { return !m.ducked("com.apple.Music"); });
    }
}
BENCHMARK(BM_ZoomCaptureToDucked)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

void BM_SmartPass(benchmark::State& s) {
    using Transport = DeviceLiveStatus::Transport;
    TonaviConfig config;
    SmartTickInputs inputs;
    for (int i = 0; i < 30; ++i) {
        // Half are configured, a third known by name, the rest must be asked about.
        const std::string id = (i % 3 ? "com.example.app" : "com.spotify.player") + std::to_string(i);
        if (i % 2 == 0)
            config.upsertApp(AppAudioState(id));
        inputs.playing.insert(id);
        if (i % 10 == 2)
            inputs.capturing.insert(id);
    }
    auto& smart = config.smart;
    smart.followMe = smart.loudnessGuard = smart.autoDuck = smart.micFollow = true;
    smart.followMeBackgroundPercent = 30;
    smart.leaveAloneBundleIDs = {"com.example.app10", "com.example.app11"};
    smart.preferredMicUIDs = {"dev-7", "dev-3"};
    for (int r = 13; r < 17; ++r) // four duck rules
        config.duckRules.push_back(
            {"", "com.example.app" + std::to_string(r), {"com.example.app20", "com.example.app22"}});
    config.hiddenAppIDs = {"com.example.app29"};
    config.softMasterPercent = 70;

    std::vector<DeviceLiveStatus> outputs(8);
    std::vector<SmartInputDevice> inputDevices;
    const Transport kinds[] = {Transport::builtin, Transport::usb, Transport::bluetooth, Transport::virtual_};
    for (int d = 0; d < 8; ++d) {
        outputs[d].id = "dev-" + std::to_string(d);
        outputs[d].name = d == 5 ? "Studio Headphones" : "Device " + std::to_string(d);
        outputs[d].transport = kinds[d % 4];
        inputDevices.push_back(
            {outputs[d].id, outputs[d].transport, d % 3 ? 2 : 0, {"dev-" + std::to_string(7 - d)}});
    }
    inputs.frontmost = [] { return std::optional<std::string>("com.example.app4"); };
    inputs.runsAsRegularApp = [](std::string_view id) { return id.ends_with('1'); };
    inputs.hasHardwareVolume = false;

    SmartTickState state;
    AudioOnsetTrail trail;
    double now = 1'700'000'000.0;
    for (auto _ : s) {
        inputs.nowNanos += 2'000'000'000;
        now += 2.0;
        // The runtime's own lookup of the default output in its hardware snapshot.
        const auto out =
            std::find_if(outputs.begin(), outputs.end(), [](auto& d) { return d.id == "dev-5"; });
        inputs.defaultOutputName = out->name;
        inputs.defaultOutputTransport = out->transport;
        benchmark::DoNotOptimize(SmartTickPolicy::plan(state, config, inputs));
        benchmark::DoNotOptimize(SmartTickPolicy::micFollowPick(config, false, inputDevices));
        benchmark::DoNotOptimize(trail.recordPlaybackOnsets(inputs.playing, now, inputs.frontmost));
        benchmark::DoNotOptimize(trail.currentAudioOnsets(config.hiddenAppIDs, now));
        benchmark::DoNotOptimize(SmartTickPolicy::liveStatus(state, smart, {out->name, "Mic", {}}));
        // Every other pass one app starts again, so the trail records onsets.
        if (inputs.playing.erase("com.example.app15") == 0)
            inputs.playing.insert("com.example.app15");
    }
}
BENCHMARK(BM_SmartPass)->Unit(benchmark::kMicrosecond);

} // namespace
