// Every processor of the primitives, the simple effects and the headphone correction must run its
// audio path without touching the heap.

#include "audio/effects/BalancePan.hpp"
#include "audio/effects/NoiseSuppressor.hpp"
#include "audio/effects/SteadyVolume.hpp"
#include "audio/headphone/BundledHeadphoneProfiles.hpp"
#include "audio/headphone/HeadphoneEQ.hpp"
#include "audio/primitives/Biquad.hpp"
#include "audio/primitives/LevelMeter.hpp"
#include "audio/primitives/RingBuffer.hpp"

#include "tests/audio/rt/AllocationCounter.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <new>
#include <vector>

using kavore::test::AllocationCounter;

namespace {

constexpr double rate = 48000.0;

// 128 frames of interleaved stereo, loud or quiet.
std::vector<float> buffer(float amplitude) {
    std::vector<float> b(256);
    for (std::size_t i = 0; i < b.size(); ++i) {
        b[i] = amplitude * static_cast<float>(std::sin(0.05 * static_cast<double>(i / 2)));
    }
    return b;
}

} // namespace

TEST(RealtimeAllocations, CounterSeesHeapUseOnItsThread) {
    AllocationCounter counter;
    auto p = std::make_unique<int>(3);
    std::vector<float> v(100);
    auto* q = new (std::nothrow) double[4];
    EXPECT_EQ(counter.count(), 3u) << "the replaced operator new must be linked in";
    EXPECT_EQ(*p + static_cast<int>(v.size()), 103);
    delete[] q;
}

TEST(RealtimeAllocations, PrimitivesAndSimpleProcessorsDoNotAllocate) {
    const auto loud = buffer(0.5f);
    const auto quiet = buffer(0.05f);
    std::vector<float> b(loud.size());

    kavore::Biquad biquad;
    biquad.setPeaking(1000.0, rate, 6.0, 1.0);
    kavore::LevelMeter meter(0.6f, 0.08f);
    kavore::RingBuffer ring(1024);
    std::vector<float> readBack(256);
    kavore::BalancePan pan;
    pan.configure(kavore::BalancePanSettings(0.4, true));
    kavore::NoiseSuppressor noise;
    noise.configure(kavore::NoiseSuppressorSettings(0.9, true), rate);
    kavore::SteadyVolume steady;
    steady.configure(rate);
    kavore::HeadphoneEQ headphones;
    headphones.configure(&kavore::BundledHeadphoneProfiles::all()[2], rate, true);

    AllocationCounter counter;
    for (int round = 0; round < 2000; ++round) {
        // Steady volume learns a quiet baseline, then a loud stretch forces its per-sample path.
        const auto& source = round < 1600 ? quiet : loud;
        std::copy(source.begin(), source.end(), b.begin());
        steady.process(b);
        for (float& s : b) {
            s = static_cast<float>(biquad.process(s));
        }
        meter.process(b);
        ring.write(b.data(), static_cast<std::int64_t>(b.size()));
        ring.read(readBack.data(), static_cast<std::int64_t>(readBack.size()));
        pan.processInterleavedStereo(b);
        noise.process(b);
        headphones.process(b);
        if (round % 500 == 0) {
            ring.reset();
            noise.reset();
        }
    }
    EXPECT_EQ(counter.count(), 0u);
    EXPECT_GT(steady.reductionDB(), 1.0) << "the loud stretch must have reached the gain loop";
}
