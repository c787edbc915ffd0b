// The tap's IO cycle runs on the device's real-time thread: it must not touch the heap, whatever the
// output layout and whatever quantum the graph picks, through the worker's whole render path.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <optional>

#include "bench/audio/FullChainSettings.hpp"
#include "service/worker/TapWorkerEventWriter.hpp"
#include "service/worker/TapWorkerRenderer.hpp"
#include "tests/audio/rt/AllocationCounter.hpp"
#include "tests/core/engine/EngineTestSupport.hpp"
#include "tests/service/taps/TapTestSupport.hpp"

namespace tonavi {
namespace {

TEST(TapIOCycle, TheWorkerRenderPathNeverAllocatesAcrossQuantumChanges) {
    test::SimLaptop laptop;
    auto provider = laptop.makeProvider();
    provider->setRouteFor([](const std::string&) { return std::string(test::SimLaptop::usb); });

    // What a worker renders with: its own engine, the app's chain, a fader that is not at unity (the
    // smoother) and the loudness guard (the limiter).
    TapWorkerState state;
    state.app.id = "com.apple.Music";
    state.app.displayName = "Music";
    state.app.volume = 0.5;
    state.app.chain = kavore::bench::fullChainSettings();
    state.loudnessGuardActive = true;
    state.loudnessGuardCeilingDBFS = -12.0;
    const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    TapWorkerEventWriter writer(devNull);
    TapWorkerRenderer renderer(state, writer, 48000.0);
    provider->setRender([&](const std::string&, std::span<float> buffer, int frames, std::uint64_t hostTime) {
        renderer.render(buffer, frames, static_cast<double>(hostTime) / 1e9);
    });
    auto handle = std::dynamic_pointer_cast<TonaviTapHandle>(provider->createTap("com.apple.Music"));
    ASSERT_TRUE(handle);

    // The quantum changes between cases; the last is past the largest the buffer is sized for.
    const std::tuple<std::size_t, std::vector<std::uint32_t>> cases[] = {
        {128, {2}}, {128, {6}}, {128, {1, 1}}, {256, {2}}, {256, {2, 2}}, {1024, {2}}, {8192, {2}}, {9000, {2}}};
    for (const auto& [frames, outputs] : cases) {
        test::BufferSet in({2}, frames), out(outputs, frames);
        std::fill(in.streams[0].begin(), in.streams[0].end(), 0.25f);
        auto input = in.list(), output = out.list();
        std::size_t allocations = 0;
        {
            kavore::test::AllocationCounter counter;
            for (int i = 0; i < 50; ++i)
                provider->ioCycle(*handle, input, output, {}); // no host time: the hardware is asked
            allocations = counter.count();
        }
        EXPECT_EQ(allocations, 0u) << frames << " frames, " << outputs.size() << " streams";
        // Rendered to the last frame, and through the chain and the fader rather than passed on.
        const float last = out.streams[0][(frames - 1) * outputs[0]];
        EXPECT_TRUE(last != 0.0f && std::abs(last - 0.25f) > 1e-3f) << frames << " frames: " << last;
    }
    EXPECT_EQ(handle->ioCallbackCount.load(), std::size(cases) * 50u);
    ::close(devNull);
}

// A reconcile may replace an app's chain while a cycle runs on it. The cycle's reference is then the
// last one, and the chain must be freed later by the control path, never on the audio thread.
TEST(TapIOCycle, AChainReplacedDuringACycleIsFreedByTheControlPathNotTheAudioThread) {
    AppAudioState row = testing::appRow("com.apple.Music", 0.5);
    row.chain.slots = {testing::pluginSlot("S1")};
    testing::EngineHarness h(testing::configWith({row}));
    ASSERT_TRUE(h.engine->hasTap(row.id));
    std::optional<kavore::test::AllocationCounter> restOfCycle;
    h.engine->setExternalAURender([&](const std::string&, std::span<float>) {
        if (restOfCycle)
            return;
        {
            // What the control thread does meanwhile: the chain's settings change and it is swapped.
            TonaviConfig next = h.engine->config();
            next.apps[0].chain.slots.push_back(testing::pluginSlot("S2"));
            h.engine->apply(next);
        }
        restOfCycle.emplace();
    });
    std::vector<float> buffer = testing::constantBuffer(256, 0.25f);
    h.engine->render(row.id, buffer);
    ASSERT_TRUE(restOfCycle);
    EXPECT_EQ(restOfCycle->frees(), 0u);
}

} // namespace
} // namespace tonavi
