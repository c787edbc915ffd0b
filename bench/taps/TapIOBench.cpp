// Cost of the tap's IO cycle per 128-frame buffer with a unity render: interleaving with the gain
// compensation, the peak check, the meter and the mapping onto the outputs, as the device's IO
// thread pays it. Argument: the output device's channels.

#include <benchmark/benchmark.h>

#include "tests/service/taps/TapTestSupport.hpp"

namespace {

void TapIOCycle(benchmark::State& state) {
    using namespace tonavi;
    test::SimLaptop laptop;
    auto provider = laptop.makeProvider();
    provider->setRouteFor([](const std::string&) { return std::string(test::SimLaptop::usb); });
    provider->setRender([](const std::string&, std::span<float> b, int, std::uint64_t) {
        benchmark::DoNotOptimize(b.data());
    });
    auto handle = std::dynamic_pointer_cast<TonaviTapHandle>(provider->createTap("com.apple.Music"));
    if (!handle)
        return state.SkipWithError("no tap on the simulated laptop");
    test::BufferSet in({2}, 128), out({static_cast<std::uint32_t>(state.range(0))}, 128);
    for (std::size_t i = 0; i < in.streams[0].size(); ++i)
        in.streams[0][i] = static_cast<float>(i % 64) / 256.0f;
    auto input = in.list(), output = out.list();
    for (auto _ : state) {
        provider->ioCycle(*handle, input, output, {0, 1, kAudioTimeStampHostTimeValid});
        benchmark::DoNotOptimize(out.streams[0].data());
    }
    state.SetItemsProcessed(state.iterations() * 128);
}
BENCHMARK(TapIOCycle)->Arg(2)->Arg(6);

} // namespace
