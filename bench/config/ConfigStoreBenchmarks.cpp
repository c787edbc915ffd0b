// Load and save of a large configuration: 200 applications with four-effect chains, 50 devices and
// 20 groups. The save is the service's save, so it includes reading and adopting what is on disk.

#include "core/config/TonaviConfigStore.hpp"
#include "tests/core/config/ConfigSamples.hpp"
#include "tests/support/TempFolder.hpp"

#include <benchmark/benchmark.h>
#include <filesystem>

namespace {

void BM_ConfigLoad(benchmark::State& state) {
    const tonavi::test::TempFolder folder;
    const tonavi::TonaviConfigStore store(folder.path());
    store.save(tonavi::testing::largeConfig(200, 50, 20));
    for (auto _ : state)
        benchmark::DoNotOptimize(store.load());
    state.counters["bytes"] = static_cast<double>(std::filesystem::file_size(store.configURL()));
}
BENCHMARK(BM_ConfigLoad)->Unit(benchmark::kMillisecond);

void BM_ConfigSave(benchmark::State& state) {
    const tonavi::test::TempFolder folder;
    const tonavi::TonaviConfigStore store(folder.path());
    tonavi::TonaviConfig config = tonavi::testing::largeConfig(200, 50, 20);
    store.save(config);
    int round = 0;
    for (auto _ : state) {
        config.apps[static_cast<std::size_t>(round % 200)].volume = (round % 10) / 10.0;
        ++round;
        store.saveKeepingAppOwnedSettings(config);
    }
}
BENCHMARK(BM_ConfigSave)->Unit(benchmark::kMillisecond);

} // namespace
