// The resident memory of one idle tap worker: a real worker process tapping a playing app on a
// private simulated machine, its IO and metrics running, nothing else asked of it. Reported as
// the counter "VmRSS_kB" (target: under 20 MB), read from /proc/<pid>/status.

#include "service/worker/IsolatedTonaviTapProvider.hpp"

#include "base/Log.hpp"
#include "platform/sim/SimMachine.hpp"
#include "platform/sim/SimWorkspace.hpp"
#include "platform/sim/SimWorldFile.hpp"
#include "tests/support/TempFolder.hpp"

#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <thread>
#include <unistd.h>

using namespace tonavi;

namespace {

long residentKilobytes(int pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    return -1;
}

void BM_IdleWorkerResidentMemory(benchmark::State& state) {
    const tonavi::test::TempFolder folder;
    const std::string world = folder.file("world.json");
    Log::setFilePathForTesting(folder.file("service.log"));
    SimWorldFile(world).create(SimWorld::preset(), false);
    std::string error;
    auto machine = SimMachine::open(world, error);
    if (!machine)
        return state.SkipWithError(error.c_str());
    auto workspace = std::make_shared<SimWorkspace>(machine);
    ::setenv("TONAVI_AUDIO_BACKEND", "sim", 1);
    ::setenv("TONAVI_SIM_WORLD", world.c_str(), 1);
    ::setenv("XDG_STATE_HOME", folder.path().c_str(), 1);

    auto environment = IsolatedTonaviTapProvider::platformEnvironment(*machine, *workspace);
    environment.executable =
        (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "tonavi-service").string();
    auto provider = std::make_shared<IsolatedTonaviTapProvider>(environment);
    provider->workerStateFor = [](const std::string& id) -> std::optional<TapWorkerState> {
        TapWorkerState worker;
        worker.app = AppAudioState(id);
        worker.app.volume = 0.5;
        return worker;
    };
    auto handle = std::dynamic_pointer_cast<IsolatedTapHandle>(provider->createTap("com.apple.Music"));
    if (!handle)
        return state.SkipWithError("the worker did not start");
    // Let it settle into its steady state: IO cycles and a few metrics ticks.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    long kilobytes = 0;
    for (auto _ : state) {
        kilobytes = residentKilobytes(handle->pid());
        benchmark::DoNotOptimize(kilobytes);
    }
    state.counters["VmRSS_kB"] = static_cast<double>(kilobytes);
    provider->destroyTap(handle);
}

} // namespace

BENCHMARK(BM_IdleWorkerResidentMemory)->Iterations(1)->Unit(benchmark::kMillisecond);
