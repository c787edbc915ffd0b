// Device requests through the whole runtime over a simulated machine on the system clock: a verified
// output switch from request to reply (target: wired under 100 ms), and the device list with 50 devices
// answered from the device cache (target under 2 ms).

#include <benchmark/benchmark.h>

#include "core/wire/TonaviPayload.hpp"
#include "platform/sim/SimMachine.hpp"
#include "platform/sim/SimWorkspace.hpp"
#include "service/TonaviRuntime.hpp"

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <unistd.h>

namespace {

using namespace tonavi;

struct NoTaps final : ServiceTapProvider {
    TapHandlePtr createTap(const std::string&) override { return nullptr; }
    void destroyTap(const TapHandlePtr&) override {}
    void setHooks(Hooks) override {}
};

struct Service {
    std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("tonavi-bench-" + std::to_string(::getpid()));
    std::shared_ptr<SimMachine> machine;
    std::unique_ptr<TonaviRuntime> runtime;

    explicit Service(SimWorld world) : machine(std::make_shared<SimMachine>(std::move(world))) {
        std::filesystem::create_directories(folder);
        TonaviRuntime::Environment environment;
        environment.store = std::make_shared<TonaviConfigStore>(folder);
        environment.audio = machine;
        environment.workspace = std::make_shared<SimWorkspace>(machine);
        environment.tapProvider = std::make_shared<NoTaps>();
        runtime = std::make_unique<TonaviRuntime>(std::move(environment));
    }
    ~Service() {
        runtime.reset();
        std::filesystem::remove_all(folder);
    }

    TonaviReply ask(const TonaviRequest& request) {
        std::mutex lock;
        std::condition_variable arrived;
        std::optional<TonaviReply> reply;
        runtime->handleAsync(request, [&](TonaviReply r) {
            std::lock_guard guard(lock);
            reply = std::move(r);
            arrived.notify_one();
        });
        std::unique_lock guard(lock);
        arrived.wait(guard, [&] { return reply.has_value(); });
        return *reply;
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

void BM_OutputSwitchWired(benchmark::State& state) {
    switchTo(state, "USB Headphones");
}
void BM_OutputSwitchBluetooth(benchmark::State& state) {
    switchTo(state, "Earbuds");
}
BENCHMARK(BM_OutputSwitchWired)->Unit(benchmark::kMillisecond)->Iterations(40);
BENCHMARK(BM_OutputSwitchBluetooth)->Unit(benchmark::kMillisecond)->Iterations(40);

SimWorld fiftyDevices() {
    SimWorld w;
    for (int i = 0; i < 50; ++i) {
        SimDevice d;
        d.id = w.allocateID();
        d.uid = "device-" + std::to_string(i);
        d.name = "Device " + std::to_string(i);
        d.transport = i % 5 == 0 ? kAudioDeviceTransportTypeBluetooth : kAudioDeviceTransportTypeUSB;
        d.outputStreams = {2};
        d.volumeElements = {{1, 0.5f}, {2, 0.5f}};
        d.hasMute = true;
        w.devices.push_back(d);
    }
    w.defaultOutputUID = w.defaultInputUID = w.systemOutputUID = "device-0";
    return w;
}

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
