// Device requests through the whole runtime over a simulated machine on the system clock: a verified
// output switch from request to reply (target: wired under 100 ms), and the device list with 50 devices
// answered from the device cache (target under 2 ms).

#include <benchmark/benchmark.h>

#include "bench/devices/FiftyDevices.hpp"
#include "core/wire/TonaviPayload.hpp"
#include "platform/sim/SimMachine.hpp"
#include "platform/sim/SimWorkspace.hpp"
#include "service/TonaviRuntime.hpp"
#include "tests/support/TempFolder.hpp"

#include <future>

namespace {

using namespace tonavi;

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
        auto answer = reply.get_future();
        runtime->handleAsync(request, [&](TonaviReply r) { reply.set_value(std::move(r)); });
        return answer.get();
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
    Service service(bench::fiftyDevices());
    for (auto _ : state) {
        const auto reply = service.ask(TonaviRequest{TonaviRequest::ListDevices{}});
        if (!reply.payload || TonaviPayload::decodeDevices(*reply.payload).size() != 50)
            state.SkipWithError("the device list is incomplete");
    }
}
BENCHMARK(BM_ListDevicesFiftyFromCache)->Unit(benchmark::kMicrosecond);

} // namespace
