#include "audio/primitives/Biquad.hpp"
#include "audio/primitives/BiquadCascade.hpp"
#include "audio/primitives/DriftCorrector.hpp"
#include "audio/primitives/FastMath.hpp"
#include "audio/primitives/LevelMeter.hpp"
#include "audio/primitives/RingBuffer.hpp"
#include "audio/primitives/VolumeLaw.hpp"
#include "audio/tap/ProcessTapBufferSelector.hpp"
#include "audio/tap/ProcessTapOutputMapper.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <numbers>
#include <numeric>
#include <thread>
#include <tuple>
#include <vector>

using namespace kavore;

// Levels from the 1e-12 floor the dynamics add up to far beyond full scale, and gains from far
// below -120 dB to well above unity (relative), against libm. The dynamics rely on exp(0) being
// exactly 1 for unity gain below the threshold.
TEST(FastMath, LogarithmAndExponentialAgreeWithLibm) {
    double worstLn = 0.0, worstExp = 0.0;
    for (double x = std::numeric_limits<double>::min(); x < 1e300; x *= 1.0137)
        worstLn = std::max(worstLn, std::fabs(FastMath::ln(x) - std::log(x)));
    for (double x = 1e-12; x < 4.0; x += 1e-3)
        worstLn = std::max(worstLn, std::fabs(FastMath::ln(x) - std::log(x)));
    for (double x = -708.0; x <= 709.0; x += 0.0137)
        worstExp = std::max(worstExp, std::fabs(FastMath::exp(x) / std::exp(x) - 1.0));
    EXPECT_LT(worstLn, 1e-9);
    EXPECT_LT(worstExp, 1e-9);
    EXPECT_EQ(std::make_tuple(FastMath::ln(1.0), FastMath::exp(0.0), FastMath::exp(-0.0)),
              std::make_tuple(0.0, 1.0, 1.0));
}

// Every section count exercises a different grouping; the result must be bit-identical to
// running the sections one sample at a time, state included.
TEST(BiquadCascade, MatchesPerSampleSectionsBitForBit) {
    for (std::size_t count = 0; count <= 11; ++count) {
        std::vector<Biquad> sections(count);
        for (std::size_t k = 0; k < count; ++k)
            sections[k].setPeaking(40.0 * double(k + 1) * double(k + 1), 48000, k % 2 ? -6.0 : 9.0, 1.1);
        std::vector<Biquad> reference = sections;
        std::vector<double> block(300);
        for (std::size_t i = 0; i < block.size(); ++i)
            block[i] = std::sin(0.05 * double(i)) + (i % 7 == 0 ? 0.5 : 0.0);
        std::vector<double> expected = block;
        for (double& x : expected)
            for (Biquad& b : reference)
                x = b.process(x);
        BiquadCascade::process(sections, std::span<double>(block).first(100));
        BiquadCascade::process(sections, std::span<double>(block).subspan(100));
        EXPECT_EQ(block, expected) << count << " sections";
        EXPECT_EQ(sections, reference) << count << " sections";
    }
}

TEST(DriftCorrector, RatioFollowsAClampedMeasurementAndResampleCarriesPosition) {
    const struct {
        double smoothing, produced, consumed, ratio;
        const char* status;
    } steps[] = {
        {0.5, 200, 100, 1.025, "corrected +25000 ppm"}, // towards 1.05, not 2
        {0.5, 10, 0, 1.025, "corrected +25000 ppm"},    // nothing consumed: unchanged
        {0.5, 90, 100, 0.9875, "corrected -12500 ppm"},    {1.0, 1.0000005, 1.0, 1.0000005, "locked"},
        {1.0, 1.00002, 1.0, 1.00002, "corrected +20 ppm"}, {1.0, 0.5, 1.0, 0.95, "corrected -50000 ppm"}};
    DriftCorrector d(0.5), e(1.0);
    for (const auto& s : steps) {
        DriftCorrector& c = s.smoothing == 0.5 ? d : e;
        c.updateRatio(s.produced, s.consumed);
        EXPECT_DOUBLE_EQ(c.ratio(), s.ratio) << s.produced << "/" << s.consumed;
        EXPECT_EQ(c.statusText(), s.status) << s.produced << "/" << s.consumed;
    }

    // At ratio 1.05 a ramp is read slightly fast; the overshoot holds the last sample, and the next call
    // starts 0.2 into its input. Empty input gives zeros and leaves the state alone.
    DriftCorrector fast(1.0);
    fast.updateRatio(2.0, 1.0);
    EXPECT_EQ(fast.resample(std::vector<float>{0, 1, 2, 3}, 4),
              (std::vector<float>{0.0f, 1.05f, 2.1f, 3.0f}));
    EXPECT_NEAR(fast.fractional(), 0.2, 1e-12);
    EXPECT_EQ(fast.resample({}, 3), (std::vector<float>{0, 0, 0}));
    EXPECT_NEAR(fast.fractional(), 0.2, 1e-12);
    EXPECT_FLOAT_EQ(fast.last(), 3.0f);
    const std::vector<float> b{4, 5, 6, 7};
    EXPECT_EQ(fast.resample(b, 2), (std::vector<float>{4.2f, 5.25f}));
}

// RMS rises with the attack and falls with the release; the peak decays unless beaten, and an empty
// buffer holds the RMS while the peak decays. A square wave of +-0.5 has an RMS and a peak of 0.5.
TEST(LevelMeter, RmsFollowsAttackAndReleaseAndPeakDecays) {
    LevelMeter meter(0.6f, 0.08f);
    const std::vector<float> loud{0.5f, -0.5f, 0.5f, -0.5f}, quiet{0.1f, -0.1f};
    // normalized is clamped from the second step on
    for (const auto& [in, rms, peak, normalized] : {std::tuple{loud, 0.3f, 0.5f, 0.9f},
                                                    {loud, 0.42f, 0.46f, 1.0f},
                                                    {quiet, 0.3944f, 0.4232f, 1.0f},
                                                    {{}, 0.3944f, 0.389344f, 1.0f}}) {
        meter.process(in);
        EXPECT_NEAR(meter.rms(), rms, 1e-6) << in.size();
        EXPECT_NEAR(meter.peak(), peak, 1e-6) << in.size();
        EXPECT_NEAR(meter.normalized(), normalized, 1e-6) << in.size();
    }
}

// The fader is squared into a gain and clamped at both ends; silence reads -120 dB, and the display
// never shows a negative zero.
TEST(VolumeLaw, SquaredFaderDecibelsAndDisplay) {
    for (const auto& [fader, gain] : {std::pair{0.5, 0.25}, {0.8, 0.64}, {-0.2, 0.0}, {1.7, 1.0}}) {
        EXPECT_DOUBLE_EQ(VolumeLaw::gain(fader), gain) << fader;
        EXPECT_DOUBLE_EQ(VolumeLaw::fader(gain), std::clamp(fader, 0.0, 1.0)) << gain;
    }
    EXPECT_EQ(std::make_pair(VolumeLaw::fader(-1.0), VolumeLaw::fader(4.0)), std::make_pair(0.0, 1.0));
    for (const auto& [gain, db] : {std::pair{1.0, 0.0}, {0.5, -12.0412}, {0.0, -120.0}, {1e-200, -120.0}})
        EXPECT_NEAR(VolumeLaw::db(gain), db, 1e-4) << gain; // the square of 1e-200 underflows to zero
    for (const auto& [gain, text] :
         {std::pair{-3.0, "\u2212\u221E dB"}, {0.9999, "0.0 dB"}, {0.995, "-0.1 dB"}})
        EXPECT_EQ(VolumeLaw::displayDB(gain), text) << gain;
}

namespace {

constexpr double rate = 48000.0;

// Gain of the filter for a steady sine, measured on the rendered output after the transient.
double renderedGainDB(Biquad filter, double hz) {
    double inSum = 0.0, outSum = 0.0;
    for (std::size_t n = 0; n < 72000; ++n) {
        const double x = std::sin(2.0 * std::numbers::pi * hz * static_cast<double>(n) / rate);
        const double y = filter.process(x);
        if (n >= 24000) // then a whole number of periods for every test frequency
            inSum += x * x, outSum += y * y;
    }
    return 10.0 * std::log10(outSum / inSum);
}

} // namespace

// Each design's gain at telling frequencies, from its formula and, where given, from a rendered sine.
// A Butterworth section is 3.01 dB down at its cutoff; a shelf is half way at its corner. The
// low-pass cutoff is held to 0.45 of the rate, the high-pass is not.
TEST(Biquad, DesignsHaveTheirGainDegenerateOnesPassAndRetuningKeepsState) {
    const double q = std::numbers::sqrt2 / 2.0;
    const struct {
        std::function<void(Biquad&)> design;
        double hz, expectedDB, tolerance;
        bool rendered;
    } cases[] = {
        {[](Biquad& f) { f.setPeaking(1000.0, rate, 6.0, 1.0); }, 1000.0, 6.0, 0.005, true},
        {[](Biquad& f) { f.setLowShelf(1000.0, rate, 6.0, 0.707); }, 1000.0, 3.0, 0.005, false},
        {[](Biquad& f) { f.setHighShelf(1000.0, rate, -6.0, 0.707); }, rate / 2.0, -6.0, 0.005, false},
        {[q](Biquad& f) { f.setLowpass(1000.0, rate, q); }, 1000.0, -3.01, 0.01, false},
        {[q](Biquad& f) { f.setLowpass(30000.0, rate, q); }, 21600.0, -3.01, 0.01, false},
        {[q](Biquad& f) { f.setHighpass(21600.0, rate, q); }, 21600.0, -3.01, 0.01, false},
        {[q](Biquad& f) { f.setHighpass(30000.0, rate, q); }, 21600.0, -0.09, 0.5, false},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        Biquad f;
        cases[i].design(f);
        EXPECT_NEAR(f.magnitudeDB(cases[i].hz, rate), cases[i].expectedDB, cases[i].tolerance)
            << "case " << i;
        if (cases[i].rendered) {
            EXPECT_NEAR(renderedGainDB(f, cases[i].hz), cases[i].expectedDB, cases[i].tolerance)
                << "case " << i;
        }
    }

    // Each design starts from a non-trivial filter, so a setter that returns early fails.
    const std::vector<std::pair<std::function<void(Biquad&)>, bool>> designs = {
        {[](Biquad& f) { f.setPeaking(1000.0, rate, 0.0, 1.0); }, true},
        {[](Biquad& f) { f.setHighShelf(1000.0, rate, -0.01, 1.0); }, true},
        {[](Biquad& f) { f.setHighShelf(1000.0, rate, 0.011, 1.0); }, false},
        {[](Biquad& f) { f.setHighpass(100.0, 0.0, 0.707); }, true},
        {[](Biquad& f) { f.setLowpass(0.0, rate, 0.707); }, true},
    };
    for (std::size_t i = 0; i < designs.size(); ++i) {
        Biquad f;
        f.setPeaking(1000.0, rate, 6.0, 1.0);
        designs[i].first(f);
        EXPECT_EQ(f.b0 == 1.0 && f.b1 == 0.0 && f.b2 == 0.0 && f.a1 == 0.0 && f.a2 == 0.0, designs[i].second)
            << "design " << i;
    }
    EXPECT_EQ(Biquad{}.magnitudeDB(1000.0, 0.0), 0.0);

    Biquad running;
    running.setLowpass(500.0, rate, 0.707);
    for (int i = 0; i < 10; ++i)
        running.process(1.0);
    const Biquad before = running;
    running.setHighpass(2000.0, rate, 0.707);
    EXPECT_NE(before.z1, 0.0);
    EXPECT_EQ(std::make_pair(running.z1, running.z2), std::make_pair(before.z1, before.z2));
}

TEST(RingBufferDeathTest, NonPositiveCapacityStopsTheProcess) {
    EXPECT_DEATH(RingBuffer(0), "capacity");
    EXPECT_DEATH(RingBuffer(-5), "capacity");
}

TEST(RingBuffer, CapacityIsAPowerOfTwoOverrunDropsTheNewestAndResetDiscardsWhatIsBuffered) {
    for (const auto& [asked, capacity] : {std::pair{1, 1}, {3, 4}, {1000, 1024}, {1024, 1024}, {1025, 2048}})
        EXPECT_EQ(RingBuffer(asked).capacity(), capacity) << asked;
    RingBuffer ring(8);
    std::vector<float> in(14);
    std::iota(in.begin(), in.end(), 1.0f);
    EXPECT_EQ(ring.write(in.data(), 4), 4);
    EXPECT_EQ(ring.freeSpace(), 4);
    EXPECT_EQ(ring.write(in.data() + 4, 10), 4);
    EXPECT_EQ(ring.overrunCount(), 6);

    std::vector<float> out(16, -1.0f);
    EXPECT_EQ(ring.read(out.data(), 16), 8);
    EXPECT_EQ(std::vector<float>(out.begin(), out.begin() + 9),
              (std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8, -1}))
        << "nothing beyond what was available is written";
    EXPECT_EQ(ring.read(out.data(), 4), 0);

    ring.write(in.data(), 3);
    ring.reset();
    EXPECT_EQ(ring.freeSpace(), 8);
    ring.write(in.data() + 9, 1);
    EXPECT_EQ(ring.read(out.data(), 5), 1);
    EXPECT_EQ(out[0], 10.0f);
}

// Run under ThreadSanitizer as well: one writer and one reader move a counting sequence through a
// ring much smaller than it, wrapping many times; nothing may be lost, duplicated or reordered.
TEST(RingBuffer, OneWriterAndOneReaderMoveEverySampleInOrder) {
    constexpr int total = 1 << 20;
    RingBuffer ring(256);
    std::thread writer([&] {
        std::vector<float> chunk(100);
        for (int sent = 0; sent < total;) {
            const int n = std::min({static_cast<int>(ring.freeSpace()), 100, total - sent});
            for (int i = 0; i < n; ++i)
                chunk[static_cast<std::size_t>(i)] = static_cast<float>(sent + i);
            sent += static_cast<int>(ring.write(chunk.data(), n));
            if (n == 0)
                std::this_thread::yield();
        }
    });
    std::vector<float> out(77);
    int received = 0;
    bool inOrder = true;
    while (received < total) {
        const auto n = static_cast<int>(ring.read(out.data(), 77));
        for (int i = 0; i < n; ++i)
            inOrder = inOrder && out[static_cast<std::size_t>(i)] == static_cast<float>(received + i);
        received += n;
        if (n == 0)
            std::this_thread::yield();
    }
    writer.join();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(ring.overrunCount(), 0);
    EXPECT_EQ(ring.available(), 0);
}

// The tap's pure helpers: which stream it reads, the buffer size it asks for, and the output mapping.
TEST(ProcessTapHelpers, SelectorPrefersTheLastStereoStreamAndMapperFeedsMonoAndWideDevices) {
    using Counts = std::vector<int>;
    EXPECT_EQ(ProcessTapBufferSelector::index(Counts{2, 1, 2, 6}), 2u);
    EXPECT_EQ(ProcessTapBufferSelector::index(Counts{4, 1, 0}), 1u);
    EXPECT_EQ(ProcessTapBufferSelector::index(Counts{0, 0}), std::nullopt);
    EXPECT_EQ(ProcessTapBufferSelector::inputStreamUsage(Counts{2, 2, 1}),
              (std::vector<std::uint32_t>{0, 1, 0}));
    // Within the device's range; an unknown (zero) or inverted range takes what is asked.
    for (const auto& [low, high, asked, expected] : {std::tuple{64, 4096, 16, 64},
                                                     {64, 4096, 8192, 4096},
                                                     {0, 4096, 8192, 8192},
                                                     {512, 256, 8192, 8192}})
        EXPECT_EQ(ProcessTapBufferSelector::preferredFrameSize(low, high, asked), expected)
            << low << "-" << high;

    // Mono gets the average; wider devices get stereo on their first two channels and silence beyond.
    for (const auto& [channel, count, expected] :
         {std::tuple{0, 1, 0.125f}, {0, 2, 0.5f}, {1, 6, -0.25f}, {2, 6, 0.0f}, {1, 1, 0.0f}, {-1, 2, 0.0f}})
        EXPECT_FLOAT_EQ(ProcessTapOutputMapper::sample(0.5f, -0.25f, channel, count), expected)
            << channel << " of " << count;
}
