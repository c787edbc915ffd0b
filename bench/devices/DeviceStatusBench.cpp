// The device list as the client asks for it: 50 devices, served from the half-second cache (target
// under 2 ms).

#include <benchmark/benchmark.h>

#include "platform/sim/SimMachine.hpp"
#include "service/devices/TonaviDeviceManager.hpp"

namespace {

using namespace tonavi;

SimWorld fiftyDevices() {
    SimWorld w;
    for (int i = 0; i < 50; ++i) {
        SimDevice d;
        d.id = w.allocateID();
        d.uid = "device-" + std::to_string(i);
        d.name = "Device " + std::to_string(i % 40); // some share a name, as duplicates do
        d.transport = i % 5 == 0 ? kAudioDeviceTransportTypeBluetooth : kAudioDeviceTransportTypeUSB;
        d.outputStreams = {2};
        d.inputStreams = i % 3 == 0 ? std::vector<std::uint32_t>{1} : std::vector<std::uint32_t>{};
        d.volumeElements = {{1, 0.5f}, {2, 0.5f}};
        d.hasMute = true;
        w.devices.push_back(d);
    }
    w.defaultOutputUID = "device-0";
    return w;
}

struct Bench {
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(); // the cache never ages here
    SimMachine machine{fiftyDevices()};
    DispatchQueue queue{"tonavi.bench.devices", clock};
    std::shared_ptr<TonaviDeviceManager> manager = TonaviDeviceManager::make(machine, queue);
};

void BM_LiveStatusCached(benchmark::State& state) {
    Bench b;
    const auto none = [](const std::string&) { return TonaviDeviceManager::BluetoothDetails{}; };
    b.manager->liveStatus(none);
    for (auto _ : state)
        benchmark::DoNotOptimize(b.manager->liveStatus(none));
}
BENCHMARK(BM_LiveStatusCached)->Unit(benchmark::kMicrosecond);

} // namespace
