// The tap's IO block runs on the device's real-time thread: after the first cycle of a quantum it
// must not touch the heap, whatever the app plays and however the output is laid out.

#include <gtest/gtest.h>

#include <cmath>

#include "tests/audio/rt/AllocationCounter.hpp"
#include "tests/service/taps/TapTestSupport.hpp"

namespace tonavi {
namespace {

using kavore::test::AllocationCounter;

TEST(TapIOBlock, SteadyCyclesAllocateNothingAndOnlyAQuantumChangeReallocates) {
    test::SimLaptop laptop;
    auto provider = laptop.makeProvider();
    provider->setRouteFor([](const std::string&) { return std::string(test::SimLaptop::usb); });
    double sum = 0;
    provider->setRender([&](const std::string&, std::span<float> buffer, int, std::uint64_t) {
        for (float& s : buffer) {
            s *= 1.0f;
            sum += s;
        }
    });
    auto handle = std::dynamic_pointer_cast<TonaviTapHandle>(provider->createTap("com.apple.Music"));
    ASSERT_TRUE(handle && laptop.hardware.lastBlock);
    const auto& block = laptop.hardware.lastBlock;
    const AudioTimeStamp time{0, 0, 0}; // no host time: the block asks the hardware

    struct Case {
        std::size_t frames;
        std::vector<std::uint32_t> outputs;
        std::size_t allocationsOnFirstCycle;
    };
    const Case cases[] = {{128, {2}, 0}, {128, {6}, 0}, {128, {1, 1}, 0}, {256, {2}, 1}, {256, {2, 2}, 0}};
    for (const auto& c : cases) {
        test::BufferSet in({2}, c.frames), out(c.outputs, c.frames);
        for (std::size_t i = 0; i < in.streams[0].size(); ++i)
            in.streams[0][i] = 0.25f * static_cast<float>(std::sin(0.05 * static_cast<double>(i / 2)));
        auto input = in.list();
        auto output = out.list();
        std::size_t first = 0, steady = 0;
        {
            AllocationCounter counter;
            block(input, output, time);
            first = counter.count();
        }
        {
            AllocationCounter counter;
            for (int i = 0; i < 500; ++i)
                block(input, output, time);
            steady = counter.count();
        }
        EXPECT_EQ(first, c.allocationsOnFirstCycle) << c.frames << " frames, " << c.outputs.size() << " streams";
        EXPECT_EQ(steady, 0u) << c.frames << " frames, " << c.outputs.size() << " streams";
        EXPECT_NEAR(out.streams[0][2 * c.outputs[0]], in.streams[0][4], 1e-6f);
    }
    EXPECT_EQ(handle->ioCallbackCount.load(), 5u * 501u);
    EXPECT_NE(sum, 0.0);
}

} // namespace
} // namespace tonavi
