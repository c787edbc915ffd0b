// The device list as the client asks for it: 50 devices, served from the half-second cache (target
// under 2 ms).

#include <benchmark/benchmark.h>

#include "bench/devices/FiftyDevices.hpp"
#include "platform/sim/SimMachine.hpp"
#include "service/devices/TonaviDeviceManager.hpp"

namespace {

using namespace tonavi;

struct Bench {
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(); // the cache never ages here
    SimMachine machine{bench::fiftyDevices(40)};
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
