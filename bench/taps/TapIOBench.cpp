// Cost of the tap's IO block per 128-frame cycle with a unity render: interleaving with the gain
// compensation, the peak check, the meter and the mapping onto the device's outputs, as the
// device's IO thread pays it. The block is the one createTap installs on the simulated laptop.

#include <benchmark/benchmark.h>

#include <cmath>

#include "tests/service/taps/TapTestSupport.hpp"

namespace {

using namespace tonavi;

void TapIOBlock(benchmark::State& state) {
    const std::size_t frames = 128;
    const auto outputChannels = static_cast<std::uint32_t>(state.range(0));
    test::SimLaptop laptop;
    auto provider = laptop.makeProvider();
    provider->setRouteFor([](const std::string&) { return std::string(test::SimLaptop::usb); });
    provider->setRender([](const std::string&, std::span<float> buffer, int, std::uint64_t) {
        benchmark::DoNotOptimize(buffer.data());
    });
    auto handle = provider->createTap("com.apple.Music");
    if (!handle || !laptop.hardware.lastBlock) {
        state.SkipWithError("no tap on the simulated laptop");
        return;
    }
    test::BufferSet in({2}, frames), out({outputChannels}, frames);
    for (std::size_t i = 0; i < in.streams[0].size(); ++i)
        in.streams[0][i] = 0.25f * static_cast<float>(std::sin(0.05 * static_cast<double>(i / 2)));
    auto input = in.list();
    auto output = out.list();
    const AudioTimeStamp time{0, 1, kAudioTimeStampHostTimeValid};
    const auto& block = laptop.hardware.lastBlock;
    for (auto _ : state) {
        block(input, output, time);
        benchmark::DoNotOptimize(out.streams[0].data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(frames));
    provider->destroyTap(handle);
}
BENCHMARK(TapIOBlock)->Arg(2)->Arg(6);

} // namespace
