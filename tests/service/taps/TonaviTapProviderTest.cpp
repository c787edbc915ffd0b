// Tap creation on the simulated laptop: the app's tone reaches the target through the IO block while
// its own path is silent, the tap forms with the mixdown's compensation and its retry, the quantum
// and privacy rules per target, fallbacks, and the clean-up of every partial failure.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "core/engine/TonaviTapSafety.hpp"
#include "tests/service/taps/TapTestSupport.hpp"

namespace tonavi {
namespace {

using namespace std::chrono_literals;
using Heard = std::vector<std::string>;
using test::SimLaptop;
constexpr const char* music = "com.apple.Music";

class TonaviTapProviderTest : public ::testing::Test {
  protected:
    SimLaptop laptop;
    std::shared_ptr<TonaviTapProvider> provider = laptop.makeProvider();
    std::string route;
    std::vector<std::pair<int, std::uint64_t>> rendered; // frames and host time per render

    void SetUp() override {
        provider->setRouteFor([this](const std::string&) { return route; });
        provider->setRender([this](const std::string&, std::span<float>, int frames, std::uint64_t host) {
            rendered.emplace_back(frames, host);
        });
    }
    std::shared_ptr<TonaviTapHandle> create() {
        return std::dynamic_pointer_cast<TonaviTapHandle>(provider->createTap(music));
    }
    SimIOProc::Meter play(const std::shared_ptr<TonaviTapHandle>& handle) {
        laptop.clock->advance(200ms);
        return laptop.machine->ioMeter(*handle->ioProcID).value_or(SimIOProc::Meter{});
    }
    void plug(const std::string& uid, std::uint32_t transport, std::vector<std::uint32_t> inputs,
              std::vector<std::uint32_t> outputs, bool asDefault = false) {
        laptop.edit([&](SimWorld& w) {
            auto error = w.plug(
                {.uid = uid, .transport = transport, .inputStreams = inputs, .outputStreams = outputs});
            return error.empty() && asDefault ? w.setDefault(SimDefaultRole::output, uid) : error;
        });
    }
    std::size_t leftovers() {
        const auto w = laptop.machine->world();
        return w->taps.size() +
               std::count_if(w->devices.begin(), w->devices.end(), [](auto& d) { return d.isAggregate; });
    }
};

TEST_F(TonaviTapProviderTest, RoutedAppIsHeardOnlyThroughTheTapUntilItIsDestroyed) {
    route = SimLaptop::usb;
    auto handle = create();
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle->tapForm, "device-stream");
    EXPECT_EQ(handle->sourceDeviceUID + " " + handle->targetDeviceUID,
              std::string("BuiltInSpeakerDevice ") + route);
    EXPECT_EQ(handle->createdAt, SimLaptop::epoch);
    EXPECT_EQ(provider->liveHandle(music), handle);

    const auto meter = play(handle);
    EXPECT_NEAR(meter.peakDB, -12.0, 0.1);
    EXPECT_NEAR(meter.frequency, 440.0, 15.0);
    EXPECT_TRUE(laptop.machine->directlyAudible(SimLaptop::speakers).empty());
    // Every 128-frame cycle carried sound, was rendered with its own host time and reached the device.
    EXPECT_GT(meter.cycles, 70u);
    EXPECT_EQ(handle->ioCallbackCount.load(), meter.cycles);
    EXPECT_EQ(handle->rawAudioCallbackCount.load(), meter.cycles);
    ASSERT_EQ(rendered.size(), meter.cycles);
    EXPECT_EQ(rendered[1], (std::pair<int, std::uint64_t>{128, rendered[0].second + 2'666'667}));
    EXPECT_NEAR(provider->level(music), 3.0 * std::pow(10.0, -12.0 / 20) / std::sqrt(2.0), 0.05);

    const auto tap = std::to_string(handle->tapID);
    provider->destroyTap(handle);
    EXPECT_EQ(laptop.machine->directlyAudible(SimLaptop::speakers), Heard{music});
    EXPECT_EQ(leftovers(), 0u);
    EXPECT_EQ(provider->level(music), 0.0f);
    const std::string engaged = "tonavi: engaged com.apple.Music over 1 process(es) using device-stream, source ";
    for (const std::string& line :
         {engaged + "BuiltInSpeakerDevice -> target " + route + " (tap " + tap + ", aggregate ",
          std::string("tonavi: com.apple.Music stream layout tap[2] output[2] at 48000.0 Hz; tap buffer 128"),
          std::string("tonavi: disengaged com.apple.Music; direct path restored")})
        EXPECT_TRUE(laptop.logged(line)) << line;
}

TEST_F(TonaviTapProviderTest, MixdownMakesUpForTheChannelsItLosesAndCatchesAFailedDeviceStream) {
    // Rows: a new default output's streams (none: the speakers stay), route, tap failures, compensation.
    const std::tuple<std::vector<std::uint32_t>, std::string, int, float> cases[] = {
        {{}, "", 0, 1.0f}, {{6}, "", 0, 3.0f}, {{2, 2}, "", 0, 2.0f}, {{}, SimLaptop::usb, 1, 1.0f}};
    int n = 0;
    for (const auto& [defaultOutputs, routeTo, injectedFailures, compensation] : cases) {
        if (!defaultOutputs.empty())
            plug("desk" + std::to_string(n++), kAudioDeviceTransportTypeUSB, {}, defaultOutputs, true);
        route = routeTo;
        laptop.machine->failNext(SimOperation::createTap, injectedFailures,
                                 kAudioHardwareIllegalOperationError);
        auto handle = create();
        ASSERT_TRUE(handle);
        EXPECT_EQ(handle->tapForm, "mixdown-compensated");
        EXPECT_EQ(handle->tapGainCompensation, compensation);
        EXPECT_NEAR(play(handle).peakDB, -12.0 + 20 * std::log10(compensation), 0.1);
        provider->destroyTap(handle);
    }
    laptop.machine->failNext(SimOperation::createTap, 2, kAudioHardwareIllegalOperationError);
    EXPECT_FALSE(create());
    EXPECT_EQ(leftovers(), 0u);
    EXPECT_TRUE(
        laptop.logged("tonavi: tap create failed for com.apple.Music (1852797029); system audio permission "
                      "needed (G4)"));
}

TEST_F(TonaviTapProviderTest, QuantumAndInputStreamFollowTheTarget) {
    plug("loopback", kAudioDeviceTransportTypeVirtual, {}, {2});
    plug("headset", kAudioDeviceTransportTypeUSB, {2}, {2});
    // Rows: target, tap quantum, its log line, the input streams read (only the tap's).
    const std::string kept = "tonavi: com.apple.Music retaining wireless tap quantum ";
    const std::tuple<std::string, int, std::string, std::vector<std::uint32_t>> cases[] = {
        {"AC-DE-48-00-11-22:output", 1024, kept + "1024 frames", {1}},
        {"loopback", 512, kept + "512 frames", {1}},
        {"headset",
         128,
         "tonavi: com.apple.Music tap quantum 512 -> 128 frames (requested 128, accepted true)",
         {0, 1}},
    };
    for (const auto& [target, frames, line, expectedUsage] : cases) {
        route = target;
        auto handle = create();
        ASSERT_TRUE(handle) << target;
        EXPECT_EQ(handle->tapBufferFrames, frames) << target;
        EXPECT_TRUE(laptop.logged(line)) << target;
        AudioHardwareIOProcStreamUsage usage{*handle->ioProcID, {}};
        laptop.machine->get(
            handle->aggregateID,
            scopedAddress(kAudioDevicePropertyIOProcStreamUsage, kAudioObjectPropertyScopeInput), usage);
        EXPECT_EQ(usage.mStreamIsOn, expectedUsage) << target;
        EXPECT_NEAR(play(handle).peakDB, -12.0, 0.1) << target;
        provider->destroyTap(handle);
    }
}

TEST_F(TonaviTapProviderTest, RefusalsDeferralsAndPartialFailuresLeaveNothingBehind) {
    const std::string blocked = *TonaviTapSafety::blockedBundleIDs().begin();
    EXPECT_FALSE(provider->createTap(blocked));
    EXPECT_TRUE(laptop.logged("tonavi: refused to tap audio-routing infrastructure " + blocked));
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(provider->createTap("com.example.Quiet"));
    EXPECT_EQ(
        laptop.timesLogged("tonavi: no running audio process for com.example.Quiet; engagement deferred"),
        1u);

    // Every partial failure releases what was made.
    const std::string nope = " (" + std::to_string(kAudioHardwareIllegalOperationError) + ")";
    const std::tuple<SimOperation, std::uint32_t, std::string> cases[] = {
        {SimOperation::createAggregate, 0, "tonavi: aggregate create failed for com.apple.Music" + nope},
        {SimOperation::createIOProc, 0, "tonavi: IO proc create failed for com.apple.Music" + nope},
        {SimOperation::setProperty, kAudioDevicePropertyIOProcStreamUsage,
         "tonavi: could not isolate process-tap input for com.apple.Music; refusing microphone-capable "
         "aggregate"},
        {SimOperation::deviceStart, 0, "tonavi: device start failed for com.apple.Music" + nope},
        {SimOperation::getProperty, kAudioDevicePropertyNominalSampleRate, "tonavi: "}, // silent
    };
    route = SimLaptop::usb;
    for (const auto& [operation, selector, line] : cases) {
        laptop.machine->failNext(operation, 1, kAudioHardwareIllegalOperationError, selector);
        EXPECT_FALSE(create()) << line;
        EXPECT_EQ(leftovers(), 0u) << line;
        EXPECT_TRUE(laptop.logged(line)) << line;
        EXPECT_EQ(laptop.machine->directlyAudible(SimLaptop::speakers), Heard{music});
    }
}

TEST_F(TonaviTapProviderTest, IOCycleMapsTheTapPairOntoEveryOutputLayout) {
    route = SimLaptop::usb;
    auto handle = create();
    ASSERT_TRUE(handle);
    // Rows: tap channels, output streams, the first frame over all outputs (every later one is silent).
    // The tap's first frame is (0.5, -0.25); a mono tap stream carries 0.5 on both sides.
    const std::tuple<std::uint32_t, std::vector<std::uint32_t>, std::vector<float>> cases[] = {
        {2, {2}, {0.5f, -0.25f}},          {2, {1}, {0.125f}},
        {2, {4}, {0.5f, -0.25f, 0, 0}},    {2, {1, 1}, {0.5f, -0.25f}},
        {2, {2, 2}, {0.5f, -0.25f, 0, 0}}, {1, {2}, {0.5f, 0.5f}}};
    for (const auto& [tapChannels, outputs, firstFrame] : cases) {
        test::BufferSet in({tapChannels}, 64), out(outputs, 64);
        in.streams[0][0] = 0.5f;
        in.streams[0][1] = tapChannels > 1 ? -0.25f : 0.0f;
        std::vector<float> first;
        for (auto& s : out.streams)
            std::fill(s.begin(), s.end(), 9.0f); // stale data must go
        auto input = in.list(), output = out.list();
        provider->ioCycle(*handle, input, output, {0, 42, kAudioTimeStampHostTimeValid});
        for (std::size_t b = 0; b < outputs.size(); ++b) {
            first.insert(first.end(), out.streams[b].begin(), out.streams[b].begin() + outputs[b]);
            EXPECT_TRUE(std::all_of(out.streams[b].begin() + outputs[b], out.streams[b].end(),
                                    [](float v) { return v == 0.0f; }));
        }
        EXPECT_EQ(first, firstFrame) << outputs.size() << " streams of " << outputs[0];
    }
    EXPECT_EQ(rendered.back(), (std::pair<int, std::uint64_t>{64, 42}));
    EXPECT_EQ(handle->ioCallbackCount.load(), 6u);
    EXPECT_EQ(handle->outputBufferFrames.load(), 64);

    // Not counted: a silent input (2e-5 is silence) as sound, a cycle without output or tap data as IO.
    test::BufferSet quiet({2}, 64), out({2}, 64), none({}, 0);
    quiet.streams[0][0] = 2e-5f;
    auto q = quiet.list(), o = out.list(), n = none.list();
    provider->ioCycle(*handle, q, n, {});
    quiet.buffers[0].mData = nullptr;
    provider->ioCycle(*handle, q, o, {});
    provider->ioCycle(*handle, n, o, {});
    EXPECT_EQ(handle->ioCallbackCount.load(), 6u);
    EXPECT_EQ(handle->rawAudioCallbackCount.load(), 6u);
}

} // namespace
} // namespace tonavi
