// The tap's IO cycle runs on the device's real-time thread: it must not touch the heap, whatever the
// output layout, except once when the quantum changes.

#include <gtest/gtest.h>

#include "tests/audio/rt/AllocationCounter.hpp"
#include "tests/service/taps/TapTestSupport.hpp"

namespace tonavi {
namespace {

TEST(TapIOCycle, AllocatesOnlyWhenTheQuantumChanges) {
    test::SimLaptop laptop;
    auto provider = laptop.makeProvider();
    provider->setRouteFor([](const std::string&) { return std::string(test::SimLaptop::usb); });
    provider->setRender([](const std::string&, std::span<float> buffer, int, std::uint64_t) {
        for (float& s : buffer)
            s *= 1.0f;
    });
    auto handle = std::dynamic_pointer_cast<TonaviTapHandle>(provider->createTap("com.apple.Music"));
    ASSERT_TRUE(handle);
    const std::tuple<std::size_t, std::vector<std::uint32_t>, std::size_t> cases[] = {
        {128, {2}, 0}, {128, {6}, 0}, {128, {1, 1}, 0}, {256, {2}, 1}, {256, {2, 2}, 0}};
    for (const auto& [frames, outputs, onFirstCycle] : cases) {
        test::BufferSet in({2}, frames), out(outputs, frames);
        std::fill(in.streams[0].begin(), in.streams[0].end(), 0.25f);
        auto input = in.list(), output = out.list();
        std::size_t first = 0, steady = 0;
        {
            kavore::test::AllocationCounter counter;
            provider->ioCycle(*handle, input, output, {}); // no host time: the hardware is asked
            first = counter.count();
        }
        {
            kavore::test::AllocationCounter counter;
            for (int i = 0; i < 500; ++i)
                provider->ioCycle(*handle, input, output, {});
            steady = counter.count();
        }
        EXPECT_EQ(first, onFirstCycle) << frames << " frames, " << outputs.size() << " streams";
        EXPECT_EQ(steady, 0u) << frames << " frames, " << outputs.size() << " streams";
        EXPECT_EQ(out.streams[0][0], 0.25f) << "written, not just left alone";
    }
    EXPECT_EQ(handle->ioCallbackCount.load(), 5u * 501u);
}

} // namespace
} // namespace tonavi
