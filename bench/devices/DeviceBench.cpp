// Device requests over a simulated machine: the device status with 50 devices served from the
// half-second cache (target under 2 ms); and through the whole runtime on the system clock, a verified
// output switch from request to reply (target: wired under 100 ms) and the device list with 50
// devices answered from the device cache (target under 2 ms).

#include <benchmark/benchmark.h>

#include "core/wire/TonaviPayload.hpp"
#include "platform/sim/SimMachine.hpp"
#include "platform/sim/SimWorkspace.hpp"
#include "service/TonaviRuntime.hpp"
#include "service/devices/TonaviDeviceManager.hpp"
#include "tests/support/TempFolder.hpp"

#include <future>

namespace {

using namespace tonavi;

// A machine with 50 output devices, some also inputs; beyond `distinctNames` they repeat names, as
// duplicates do.
SimWorld fiftyDevices(int distinctNames = 50) {
    SimWorld w;
    for (int i = 0; i < 50; ++i) {
        SimDevice& d = w.devices.emplace_back();
        d.id = w.allocateID();
        d.uid = "device-" + std::to_string(i);
        d.name = "Device " + std::to_string(i % distinctNames);
        d.transport = i % 5 == 0 ? kAudioDeviceTransportTypeBluetooth : kAudioDeviceTransportTypeUSB;
        d.outputStreams = {2};
        d.inputStreams = std::vector<std::uint32_t>(i % 3 == 0 ? 1 : 0, 1);
        d.volumeElements = {{1, 0.5f}, {2, 0.5f}};
        d.hasMute = true;
    }
    w.defaultOutputUID = w.defaultInputUID = w.systemOutputUID = "device-0";
    return w;
}

void BM_LiveStatusCached(benchmark::State& state) {
    const auto clock = std::make_shared<ManualClock>(); // the cache never ages here
    SimMachine machine{fiftyDevices(40)};
    DispatchQueue queue{"tonavi.bench.devices", clock};
    const auto manager = TonaviDeviceManager::make(machine, queue);
    const auto none = [](const std::string&) { return TonaviDeviceManager::BluetoothDetails{}; };
    manager->liveStatus(none);
    for (auto _ : state)
        benchmark::DoNotOptimize(manager->liveStatus(none));
}
BENCHMARK(BM_LiveStatusCached)->Unit(benchmark::kMicrosecond);

// No tap provider: the runtime runs with one that cannot take taps.
struct Service {
    const tonavi::test::TempFolder folder;
    std::shared_ptr<SimMachine> machine;
    std::unique_ptr<TonaviRuntime> runtime;

    explicit Service(SimWorld world) : machine(std::make_shared<SimMachine>(std::move(world))) {
        TonaviRuntime::Environment environment;
        environment.store = std::make_shared<TonaviConfigStore>(folder.path());
        environment.audio = machine;
        environment.workspace = std::make_shared<SimWorkspace>(machine);
        runtime = std::make_unique<TonaviRuntime>(std::move(environment));
    }
    TonaviReply ask(const TonaviRequest& request) {
        std::promise<TonaviReply> reply;
        runtime->handleAsync(request, [&](TonaviReply r) { reply.set_value(std::move(r)); });
        return reply.get_future().get();
    }
};

// Back and forth between the speakers and the named output; each iteration is one switch.
void switchTo(benchmark::State& state, const char* target) {
    Service service(SimWorld::preset());
    bool toTarget = true;
    for (auto _ : state) {
        const auto reply = service.ask(
            TonaviRequest{TonaviRequest::SetOutputDevice{toTarget ? target : "MacBook Pro Speakers"}});
        if (!reply.ok)
            state.SkipWithError(reply.message.c_str());
        toTarget = !toTarget;
    }
}

BENCHMARK_CAPTURE(switchTo, Wired, "USB Headphones")->Unit(benchmark::kMillisecond)->Iterations(40);
BENCHMARK_CAPTURE(switchTo, Bluetooth, "Earbuds")->Unit(benchmark::kMillisecond)->Iterations(40);

void BM_ListDevicesFiftyFromCache(benchmark::State& state) {
    Service service(fiftyDevices());
    for (auto _ : state) {
        const auto reply = service.ask(TonaviRequest{TonaviRequest::ListDevices{}});
        if (!reply.payload || TonaviPayload::decodeDevices(*reply.payload).size() != 50)
            state.SkipWithError("the device list is incomplete");
    }
}
BENCHMARK(BM_ListDevicesFiftyFromCache)->Unit(benchmark::kMicrosecond);

} // namespace
