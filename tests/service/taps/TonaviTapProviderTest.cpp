// Tap creation on the simulated laptop: the app's tone reaches the target through the IO block while
// its own path is silent, the two tap forms with the mixdown's gain compensation and its retry, the
// quantum rule per transport, the privacy rule on a microphone-capable aggregate, and the clean-up of
// every partial failure.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <cmath>

#include "core/engine/TonaviTapSafety.hpp"
#include "tests/service/taps/TapTestSupport.hpp"

namespace tonavi {
namespace {

using namespace std::chrono_literals;
using Heard = std::vector<std::string>;
using test::SimLaptop;

constexpr const char* music = "com.apple.Music";

std::shared_ptr<TonaviTapHandle> asTonavi(const TapHandlePtr& handle) {
    return std::dynamic_pointer_cast<TonaviTapHandle>(handle);
}

SimDevice extraDevice(const std::string& uid, std::uint32_t transport, std::vector<std::uint32_t> inputs,
                      std::vector<std::uint32_t> outputs) {
    SimDevice d;
    d.uid = uid;
    d.name = uid;
    d.transport = transport;
    d.inputStreams = std::move(inputs);
    d.outputStreams = std::move(outputs);
    return d;
}

class TonaviTapProviderTest : public ::testing::Test {
  protected:
    SimLaptop laptop;
    std::shared_ptr<TonaviTapProvider> provider = laptop.makeProvider();
    std::string route;
    std::vector<std::pair<int, std::uint64_t>> rendered; // frames and host time of each render

    void SetUp() override {
        provider->setRouteFor([this](const std::string&) { return route; });
        provider->setRender([this](const std::string& id, std::span<float> buffer, int frames, std::uint64_t host) {
            EXPECT_EQ(id, music);
            EXPECT_EQ(buffer.size(), static_cast<std::size_t>(frames) * 2);
            rendered.emplace_back(frames, host);
        });
    }
    SimIOProc::Meter meterAfter(const std::shared_ptr<TonaviTapHandle>& handle, std::chrono::milliseconds run) {
        laptop.advance(run);
        return laptop.machine->ioMeter(*handle->ioProcID).value_or(SimIOProc::Meter{});
    }
    std::size_t liveTaps() { return laptop.machine->world()->taps.size(); }
    std::size_t aggregates() {
        std::size_t n = 0;
        for (const auto& d : laptop.machine->world()->devices)
            n += d.isAggregate;
        return n;
    }
};

TEST_F(TonaviTapProviderTest, RoutedAppIsHeardOnlyThroughTheTapUntilItIsDestroyed) {
    route = SimLaptop::usb;
    ASSERT_EQ(laptop.machine->directlyAudible(SimLaptop::speakers), Heard{music});
    auto handle = asTonavi(provider->createTap(music));
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle->tapForm, "device-stream");
    EXPECT_EQ(handle->sourceDeviceUID, SimLaptop::speakers);
    EXPECT_EQ(handle->targetDeviceUID, SimLaptop::usb);
    EXPECT_EQ(handle->tapGainCompensation, 1.0f);
    EXPECT_EQ(handle->sampleRate, 48000.0);
    EXPECT_EQ(handle->tapBufferFrames, 128);
    EXPECT_EQ(handle->createdAt, SimLaptop::epoch);
    EXPECT_EQ(provider->liveHandle(music), handle);
    EXPECT_EQ(provider->targetDevice(music), SimLaptop::usb);

    const auto meter = meterAfter(handle, 200ms);
    EXPECT_NEAR(meter.peakDB, -12.0, 0.1);
    EXPECT_NEAR(meter.frequency, 440.0, 15.0);
    EXPECT_TRUE(laptop.machine->directlyAudible(SimLaptop::speakers).empty());
    // Every 128-frame cycle is counted and rendered, with the cycle's own host time.
    EXPECT_GT(meter.cycles, 70u);
    EXPECT_EQ(handle->ioCallbackCount.load(), meter.cycles);
    EXPECT_EQ(handle->rawAudioCallbackCount.load(), meter.cycles);
    ASSERT_EQ(rendered.size(), meter.cycles);
    EXPECT_EQ(rendered[1].first, 128);
    EXPECT_EQ(rendered[1].second - rendered[0].second, 2'666'667u);
    EXPECT_EQ(handle->outputBufferFrames.load(), 128);
    EXPECT_NEAR(provider->level(music), std::min(1.0, 3.0 * std::pow(10.0, -12.0 / 20) / std::sqrt(2.0)), 0.05);

    provider->destroyTap(handle);
    EXPECT_EQ(laptop.machine->directlyAudible(SimLaptop::speakers), Heard{music});
    EXPECT_EQ(liveTaps(), 0u);
    EXPECT_EQ(aggregates(), 0u);
    EXPECT_FALSE(provider->liveHandle(music));
    EXPECT_EQ(provider->level(music), 0.0f);

    const auto tap = std::to_string(handle->tapID);
    EXPECT_TRUE(laptop.logged("tonavi: com.apple.Music tap quantum 512 -> 128 frames (requested 128, accepted true)"));
    EXPECT_TRUE(laptop.logged("tonavi: com.apple.Music stream layout tap[2] output[2] at 48000.0 Hz; tap buffer 128"));
    EXPECT_TRUE(laptop.logged("tonavi: engaged com.apple.Music over 1 process(es) using device-stream, source "
                              "BuiltInSpeakerDevice -> target " +
                              std::string(SimLaptop::usb) + " (tap "));
    EXPECT_TRUE(laptop.logged("tonavi: disengaged com.apple.Music; direct path restored"));
}

TEST_F(TonaviTapProviderTest, MixdownOnTheDefaultOutputMakesUpForItsChannelCount) {
    struct Case {
        std::vector<std::uint32_t> outputs;
        float compensation;
        double peakDB;
    };
    const Case cases[] = {{{2}, 1.0f, -12.0}, {{6}, 3.0f, -12.0 + 20 * std::log10(3.0)}, {{2, 2}, 2.0f, -6.0}};
    for (const auto& c : cases) {
        laptop.edit([&](SimWorld& w) {
            w.unplug("desk");
            w.detached.clear();
            if (auto e = w.plug(extraDevice("desk", kAudioDeviceTransportTypeUSB, {}, c.outputs)); !e.empty())
                return e;
            return w.setDefault(SimDefaultRole::output, "desk");
        });
        auto handle = asTonavi(provider->createTap(music));
        ASSERT_TRUE(handle);
        EXPECT_EQ(handle->tapForm, "mixdown-compensated");
        EXPECT_EQ(handle->tapGainCompensation, c.compensation);
        EXPECT_NEAR(meterAfter(handle, 200ms).peakDB, c.peakDB, 0.1) << c.outputs.size();
        provider->destroyTap(handle);
    }
}

TEST_F(TonaviTapProviderTest, DeviceStreamFailureRetriesOnceAsMixdown) {
    route = SimLaptop::usb;
    laptop.machine->failNext(SimOperation::createTap, 1, kAudioHardwareIllegalOperationError);
    auto handle = asTonavi(provider->createTap(music));
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle->tapForm, "mixdown-compensated");
    EXPECT_NEAR(meterAfter(handle, 200ms).peakDB, -12.0, 0.1);
    provider->destroyTap(handle);

    // Both forms fail: nothing is left behind, and the words say what to do.
    laptop.machine->failNext(SimOperation::createTap, 2, kAudioHardwareIllegalOperationError);
    EXPECT_FALSE(provider->createTap(music));
    EXPECT_EQ(liveTaps(), 0u);
    EXPECT_TRUE(laptop.logged("tonavi: tap create failed for com.apple.Music (1852797029); system audio "
                              "permission needed (G4)"));
    // The same-device form has no second try.
    route.clear();
    laptop.machine->failNext(SimOperation::createTap, 1, kAudioHardwareIllegalOperationError);
    EXPECT_FALSE(provider->createTap(music));
}

TEST_F(TonaviTapProviderTest, WirelessAndVirtualTargetsKeepTheirQuantumOthersGet128) {
    laptop.edit([](SimWorld& w) {
        return w.plug(extraDevice("loopback", kAudioDeviceTransportTypeVirtual, {}, {2}));
    });
    struct Case {
        std::string target;
        int frames;
        std::string line;
    };
    const Case cases[] = {
        {SimLaptop::earbuds, 1024, "tonavi: com.apple.Music retaining wireless tap quantum 1024 frames"},
        {"AirPlay:Living-Room-Speaker", 1024, "tonavi: com.apple.Music retaining wireless tap quantum 1024 frames"},
        {"loopback", 512, "tonavi: com.apple.Music retaining wireless tap quantum 512 frames"},
        {SimLaptop::usb, 128,
         "tonavi: com.apple.Music tap quantum 512 -> 128 frames (requested 128, accepted true)"},
    };
    for (const auto& c : cases) {
        route = c.target;
        auto handle = asTonavi(provider->createTap(music));
        ASSERT_TRUE(handle) << c.target;
        EXPECT_EQ(handle->tapBufferFrames, c.frames) << c.target;
        EXPECT_TRUE(laptop.logged(c.line)) << c.target;
        provider->destroyTap(handle);
    }
}

TEST_F(TonaviTapProviderTest, OnlyTheTapStreamOfAMicrophoneCapableAggregateIsRead) {
    laptop.edit([](SimWorld& w) { return w.plug(extraDevice("headset", kAudioDeviceTransportTypeUSB, {2}, {2})); });
    route = "headset";
    auto handle = asTonavi(provider->createTap(music));
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle->tapInputBufferIndex, 1u);
    AudioHardwareIOProcStreamUsage usage{*handle->ioProcID, {}};
    ASSERT_EQ(laptop.machine->get(handle->aggregateID,
                                  scopedAddress(kAudioDevicePropertyIOProcStreamUsage, kAudioObjectPropertyScopeInput),
                                  usage),
              noErr);
    EXPECT_EQ(usage.mStreamIsOn, (std::vector<std::uint32_t>{0, 1}));
    EXPECT_NEAR(meterAfter(handle, 200ms).peakDB, -12.0, 0.1);
    EXPECT_TRUE(laptop.logged("stream layout tap[2,2] output[2] at 48000.0 Hz; tap buffer 128"));
}

TEST_F(TonaviTapProviderTest, TargetThatIsGoneFallsBackToTheDefault) {
    route = "no-such-device";
    auto handle = asTonavi(provider->createTap(music));
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle->targetDeviceUID, SimLaptop::speakers);
    EXPECT_TRUE(laptop.logged("tonavi: com.apple.Music target device no-such-device is gone; playing on default "
                              "until it returns"));
    EXPECT_NEAR(meterAfter(handle, 200ms).peakDB, -12.0, 0.1);
}

TEST_F(TonaviTapProviderTest, RefusalsAndAbsentProcessesCreateNothing) {
    const std::string blocked = *TonaviTapSafety::blockedBundleIDs().begin();
    EXPECT_FALSE(provider->createTap(blocked));
    EXPECT_TRUE(laptop.logged("tonavi: refused to tap audio-routing infrastructure " + blocked));

    // Logged once per absence, however often it is tried.
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(provider->createTap("com.example.Quiet"));
    const std::string deferred = "tonavi: no running audio process for com.example.Quiet; engagement deferred";
    EXPECT_EQ(laptop.timesLogged(deferred), 1u);
    laptop.edit([](SimWorld& w) { return w.launch({"com.example.Quiet", "Quiet", 4200}, true); });
    auto handle = provider->createTap("com.example.Quiet");
    EXPECT_TRUE(handle);
    provider->destroyTap(handle);
    laptop.edit([](SimWorld& w) { return w.quit("com.example.Quiet"); });
    EXPECT_FALSE(provider->createTap("com.example.Quiet"));
    EXPECT_EQ(laptop.timesLogged(deferred), 2u);
    EXPECT_EQ(liveTaps(), 0u);
}

TEST_F(TonaviTapProviderTest, EveryPartialFailureReleasesWhatWasMade) {
    struct Case {
        SimOperation operation;
        std::uint32_t selector;
        std::string line;
    };
    const std::string nope = std::to_string(kAudioHardwareIllegalOperationError);
    const Case cases[] = {
        {SimOperation::createAggregate, 0, "tonavi: aggregate create failed for com.apple.Music (" + nope + ")"},
        {SimOperation::createIOProc, 0, "tonavi: IO proc create failed for com.apple.Music (" + nope + ")"},
        {SimOperation::setProperty, kAudioDevicePropertyIOProcStreamUsage,
         "tonavi: could not isolate process-tap input for com.apple.Music; refusing microphone-capable aggregate"},
        {SimOperation::deviceStart, 0, "tonavi: device start failed for com.apple.Music (" + nope + ")"},
        {SimOperation::getProperty, kAudioDevicePropertyNominalSampleRate, ""},
    };
    route = SimLaptop::usb;
    for (const auto& c : cases) {
        laptop.machine->failNext(c.operation, 1, kAudioHardwareIllegalOperationError, c.selector);
        EXPECT_FALSE(provider->createTap(music)) << c.line;
        EXPECT_EQ(liveTaps(), 0u) << c.line;
        EXPECT_EQ(aggregates(), 0u) << c.line;
        EXPECT_FALSE(provider->liveHandle(music));
        if (!c.line.empty()) {
            EXPECT_TRUE(laptop.logged(c.line)) << c.line;
        }
        EXPECT_EQ(laptop.machine->directlyAudible(SimLaptop::speakers), Heard{music});
    }
}

TEST_F(TonaviTapProviderTest, IOBlockMapsTheTapPairOntoEveryOutputLayout) {
    route = SimLaptop::usb;
    auto handle = asTonavi(provider->createTap(music));
    ASSERT_TRUE(handle && laptop.hardware.lastBlock);
    const AudioTimeStamp time{0, 42, kAudioTimeStampHostTimeValid};
    auto cycle = [&](test::BufferSet& in, test::BufferSet& out) {
        auto input = in.list();
        auto output = out.list();
        laptop.hardware.lastBlock(input, output, time);
    };
    struct Case {
        std::vector<std::uint32_t> tap;     // the tap stream's channels: stereo, or mono
        std::vector<std::uint32_t> outputs; // the device's output streams
        std::vector<std::vector<float>> firstFrame;
    };
    // The tap's first frame is (0.5, -0.25); a mono tap stream carries 0.5 on both sides.
    const Case cases[] = {
        {{2}, {2}, {{0.5f, -0.25f}}},
        {{2}, {1}, {{0.125f}}},
        {{2}, {4}, {{0.5f, -0.25f, 0.0f, 0.0f}}},
        {{2}, {1, 1}, {{0.5f}, {-0.25f}}},
        {{2}, {2, 2}, {{0.5f, -0.25f}, {0.0f, 0.0f}}},
        {{1}, {2}, {{0.5f, 0.5f}}},
    };
    for (const auto& c : cases) {
        test::BufferSet in(c.tap, 64), out(c.outputs, 64);
        in.streams[0][0] = 0.5f;
        if (c.tap[0] > 1)
            in.streams[0][1] = -0.25f;
        for (auto& s : out.streams)
            std::fill(s.begin(), s.end(), 9.0f); // stale data must be cleared
        const auto before = handle->ioCallbackCount.load();
        cycle(in, out);
        EXPECT_EQ(handle->ioCallbackCount.load(), before + 1);
        for (std::size_t b = 0; b < c.outputs.size(); ++b) {
            const std::vector<float> first(out.streams[b].begin(), out.streams[b].begin() + c.outputs[b]);
            EXPECT_EQ(first, c.firstFrame[b]) << c.outputs.size() << " streams, buffer " << b;
            EXPECT_TRUE(std::all_of(out.streams[b].begin() + c.outputs[b], out.streams[b].end(),
                                    [](float v) { return v == 0.0f; }));
        }
    }
    EXPECT_EQ(rendered.back(), (std::pair<int, std::uint64_t>{64, 42}));
    EXPECT_EQ(handle->outputBufferFrames.load(), 64);

    // Cycles that prove nothing are not counted: no tap data, no output, digital silence.
    const auto io = handle->ioCallbackCount.load();
    const auto raw = handle->rawAudioCallbackCount.load();
    test::BufferSet silent({2}, 64), out({2}, 64), none({}, 0);
    silent.streams[0][0] = 2e-5f;
    cycle(silent, out);
    EXPECT_EQ(handle->rawAudioCallbackCount.load(), raw);
    EXPECT_EQ(handle->ioCallbackCount.load(), io + 1);
    silent.streams[0][0] = 3e-5f;
    cycle(silent, none);
    EXPECT_EQ(handle->rawAudioCallbackCount.load(), raw + 1);
    EXPECT_EQ(handle->ioCallbackCount.load(), io + 1);
    silent.buffers[0].mData = nullptr;
    cycle(silent, out);
    cycle(none, out);
    EXPECT_EQ(handle->ioCallbackCount.load(), io + 1);
    EXPECT_EQ(handle->rawAudioCallbackCount.load(), raw + 1);
}

// The product's arrangement: cycles on the device's own thread while the control side reads the
// counters and the level, and destroyTap stops them.
TEST(TonaviTapProviderThreads, IOOnTheDeviceThreadIsCountedAndStopsWithTheTap) {
    SimLaptop laptop(false);
    auto provider = laptop.makeProvider();
    std::atomic<int> renders{0};
    provider->setRender([&](const std::string&, std::span<float>, int, std::uint64_t) { renders.fetch_add(1); });
    auto handle = asTonavi(provider->createTap(music));
    ASSERT_TRUE(handle);
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (handle->ioCallbackCount.load() < 5 && std::chrono::steady_clock::now() < deadline) {
        std::mutex m;
        std::unique_lock<std::mutex> lock(m);
        std::condition_variable().wait_for(lock, 5ms);
    }
    EXPECT_GE(handle->ioCallbackCount.load(), 5u);
    EXPECT_GT(provider->level(music), 0.0f);
    EXPECT_TRUE(laptop.machine->directlyAudible(SimLaptop::speakers).empty());
    provider->destroyTap(handle);
    const auto stoppedAt = handle->ioCallbackCount.load();
    EXPECT_EQ(static_cast<std::uint64_t>(renders.load()), stoppedAt);
    EXPECT_EQ(laptop.machine->directlyAudible(SimLaptop::speakers), Heard{music});
}

} // namespace
} // namespace tonavi
