// One writer thread and one reader thread (the benchmark's) move samples through a ring of 16
// blocks, in blocks of the given size (256 samples: a 128-frame stereo buffer). items = samples moved.

#include "audio/primitives/RingBuffer.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <thread>
#include <vector>

static void BM_RingBuffer(benchmark::State& state) {
    constexpr std::int64_t perIteration = 1 << 22;
    const std::int64_t block = state.range(0);
    kavore::RingBuffer ring(block * 16);
    std::vector<float> in(block, 0.5f), out(block);
    for (auto _ : state) {
        std::thread writer([&] {
            std::int64_t sent = 0;
            while (sent < perIteration) {
                const std::int64_t n = std::min({ring.freeSpace(), block, perIteration - sent});
                sent += ring.write(in.data(), n);
                if (n == 0)
                    std::this_thread::yield();
            }
        });
        std::int64_t received = 0;
        while (received < perIteration) {
            const std::int64_t n = ring.read(out.data(), block);
            if (n == 0)
                std::this_thread::yield();
            received += n;
        }
        writer.join();
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * perIteration);
}
BENCHMARK(BM_RingBuffer)->Arg(256)->Arg(1024)->UseRealTime()->Unit(benchmark::kMillisecond);
