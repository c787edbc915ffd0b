// Cost of the primitives and simple processors on the render path: 128-frame interleaved stereo
// buffers at 48 kHz, items = frames (divide items_per_second by 48000 for the real-time factor).

#include "audio/effects/NoiseSuppressor.hpp"
#include "audio/effects/SteadyVolume.hpp"
#include "audio/headphone/BundledHeadphoneProfiles.hpp"
#include "audio/headphone/HeadphoneEQ.hpp"
#include "audio/primitives/RingBuffer.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

namespace {

constexpr double rate = 48000.0;
constexpr std::size_t frames = 128;

std::vector<float> stereoTone(double amplitude, double hz = 997.0) {
    std::vector<float> b(frames * 2);
    for (std::size_t i = 0; i < frames; ++i) {
        const auto s =
            static_cast<float>(amplitude * std::sin(2.0 * 3.141592653589793 * hz * double(i) / rate));
        b[2 * i] = s;
        b[2 * i + 1] = s;
    }
    return b;
}

} // namespace

// A quiet signal that sits in the expansion range, so the gain is computed for every frame, with the
// hiss shelf on.
static void BM_NoiseSuppressor(benchmark::State& state) {
    kavore::NoiseSuppressor ns;
    ns.configure(kavore::NoiseSuppressorSettings(0.8, true), rate);
    const auto source = stereoTone(0.003);
    std::vector<float> buffer(source.size());
    for (auto _ : state) {
        std::copy(source.begin(), source.end(), buffer.begin());
        ns.process(buffer);
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * frames);
}
BENCHMARK(BM_NoiseSuppressor);

// The largest bundled profile: preamp and five filters over both channels.
static void BM_HeadphoneEQ(benchmark::State& state) {
    kavore::HeadphoneEQ eq;
    eq.configure(&kavore::BundledHeadphoneProfiles::all()[2], rate, true);
    const auto source = stereoTone(0.3);
    std::vector<float> buffer(source.size());
    for (auto _ : state) {
        std::copy(source.begin(), source.end(), buffer.begin());
        eq.process(buffer);
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * frames);
}
BENCHMARK(BM_HeadphoneEQ);

// Worst case: a level well above the learned baseline keeps the per-sample gain loop running.
static void BM_SteadyVolume(benchmark::State& state) {
    kavore::SteadyVolume sv;
    sv.configure(rate);
    const auto quiet = stereoTone(0.01);
    const auto relearn = [&] {
        sv.configure(rate);
        for (int i = 0; i < 2000; ++i) {
            auto b = quiet;
            sv.process(b);
        }
    };
    relearn();
    const auto source = stereoTone(0.2);
    std::vector<float> buffer(source.size());
    std::int64_t count = 0;
    for (auto _ : state) {
        // Over a long run the baseline creeps up to the loud level; start over before it gets there.
        if (++count % 100000 == 0 && sv.reductionDB() < 6.0) {
            state.PauseTiming();
            relearn();
            state.ResumeTiming();
        }
        std::copy(source.begin(), source.end(), buffer.begin());
        sv.process(buffer);
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
    state.counters["reductionDB"] = sv.reductionDB();
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * frames);
}
BENCHMARK(BM_SteadyVolume);

// One writer thread and one reader thread (the benchmark's) move samples through a ring of 16
// blocks, in blocks of the given size (256 samples: a 128-frame stereo buffer). items = samples moved.
static void BM_RingBuffer(benchmark::State& state) {
    constexpr std::int64_t perIteration = 1 << 22;
    const std::int64_t block = state.range(0);
    kavore::RingBuffer ring(block * 16);
    std::vector<float> in(block, 0.5f);
    std::vector<float> out(block);
    for (auto _ : state) {
        std::thread writer([&] {
            std::int64_t sent = 0;
            while (sent < perIteration) {
                const std::int64_t n = std::min({ring.freeSpace(), block, perIteration - sent});
                if (n == 0) {
                    std::this_thread::yield();
                    continue;
                }
                sent += ring.write(in.data(), n);
            }
        });
        std::int64_t received = 0;
        while (received < perIteration) {
            const std::int64_t n = ring.read(out.data(), block);
            if (n == 0) {
                std::this_thread::yield();
            }
            received += n;
        }
        writer.join();
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * perIteration);
}
BENCHMARK(BM_RingBuffer)->Arg(256)->Arg(1024)->UseRealTime()->Unit(benchmark::kMillisecond);
