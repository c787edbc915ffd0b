// Process taps on the simulated machine, beyond the contract: the exact level of the tapped tone and
// nothing of any other, the IO meter, device-stream taps and stream usage, the manual clock that steps
// the cycles, stalls and recordings. Real-time cycles are the contract's, on the sim as on PipeWire.

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "SimTestSupport.hpp"

namespace tonavi {
namespace {

using namespace std::chrono_literals;
using namespace tonavi::test;
using Heard = std::vector<std::string>;
const double minus12dB = std::pow(10.0, -12.0 / 20.0); // Music's tone: 440 Hz at -12 dBFS

TapDescription mutingMixdown(AudioObjectID process) {
    auto description = TapDescription::stereoMixdown({process});
    description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
    return description;
}

class SimTapTest : public ::testing::Test {
  protected:
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    SimMachine machine{SimWorld::preset(), SimMachine::Options{clock, 20ms}};
    AudioObjectID music = processOf(machine, "com.apple.Music");
    std::vector<float> left; // the left channel of the tap, as the IO block saw it
};

TEST_F(SimTapTest, TapDeliversExactlyItsProcessesToneAndMutesItOnlyWhileRead) {
    EXPECT_EQ(machine.directlyAudible(speakersUID), Heard{"com.apple.Music"}); // the agent plays silence
    const auto aggregate = tapAggregate(machine, mutingMixdown(music), {speakersUID});
    EXPECT_EQ(machine.directlyAudible(speakersUID), Heard{"com.apple.Music"}); // nobody reads the tap yet
    left.reserve(48000);
    // The block plays the tap at unity: the meter measures what it played.
    const auto proc =
        startIO(machine, aggregate, [&](const AudioBufferList& in, AudioBufferList& out, const auto&) {
            const auto* samples = static_cast<const float*>(in.mBuffers[0].mData);
            for (std::uint32_t f = 0; f < in.mBuffers[0].mDataByteSize / 8; ++f)
                left.push_back(samples[f * 2]);
            std::memcpy(out.mBuffers[0].mData, samples, out.mBuffers[0].mDataByteSize);
        });
    EXPECT_TRUE(machine.directlyAudible(speakersUID).empty());
    clock->advance(200ms);
    EXPECT_NEAR(amplitudeAt(left.data(), left.size(), 440.0, 48000.0), minus12dB, minus12dB * 0.02);
    EXPECT_LT(amplitudeAt(left.data(), left.size(), 1000.0, 48000.0), 0.005); // nothing of Safari's tone
    const auto meter = machine.ioMeter(proc);
    ASSERT_TRUE(meter.has_value());
    EXPECT_NEAR(meter->peakDB, -12.0, 0.1);
    EXPECT_NEAR(meter->rmsDB, -12.0 - 3.01, 0.1);
    EXPECT_NEAR(meter->frequency, 440.0, 15.0);

    // Music stops: the tap goes quiet at once.
    ASSERT_EQ(
        machine.mutate([](SimWorld& w) { return w.setPlaying("com.apple.Music", false, std::nullopt); }), "");
    left.clear();
    clock->advance(50ms);
    ASSERT_FALSE(left.empty());
    EXPECT_EQ(*std::max_element(left.begin(), left.end()), 0.0f);
    ASSERT_EQ(machine.mutate([](SimWorld& w) { return w.setPlaying("com.apple.Music", true, std::nullopt); }),
              "");
    ASSERT_EQ(machine.deviceStop(aggregate, proc), noErr);
    EXPECT_EQ(machine.directlyAudible(speakersUID), Heard{"com.apple.Music"});
}

TEST_F(SimTapTest, DeviceStreamTapHearsOneDeviceAndStreamUsageHidesTheMicrophone) {
    auto description = TapDescription::deviceStream({music}, usbUID, 0);
    description.muteBehavior = TapMuteBehavior::muted;
    const auto aggregate = tapAggregate(machine, description, {usbUID, "BuiltInMicrophoneDevice"});
    // Music plays on the speakers, so a tap on the headphones neither hears nor silences it.
    EXPECT_EQ(machine.directlyAudible(speakersUID), Heard{"com.apple.Music"});
    EXPECT_EQ(read<AudioStreamConfiguration>(machine, aggregate,
                                             inputAddress(kAudioDevicePropertyStreamConfiguration))
                  ->channelsPerBuffer,
              (std::vector<std::uint32_t>{1, 2})); // microphone, then the tap
    ASSERT_EQ(machine.set(aggregate, globalAddress(kAudioDevicePropertyBufferFrameSize), std::uint32_t{128}),
              noErr);

    int micWithData = 0;
    std::uint32_t framesSeen = 0;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(machine.createIOProcIDWithBlock(
                  aggregate, nullptr,
                  [&](const AudioBufferList& in, AudioBufferList&, const AudioTimeStamp&) {
                      micWithData += in.mBuffers[0].mData != nullptr ? 1 : 0;
                      framesSeen = in.mBuffers[1].mDataByteSize / 8;
                      for (std::uint32_t f = 0; f < framesSeen; ++f)
                          left.push_back(static_cast<const float*>(in.mBuffers[1].mData)[f * 2]);
                  },
                  proc),
              noErr);
    ASSERT_EQ(machine.set(aggregate, inputAddress(kAudioDevicePropertyIOProcStreamUsage),
                          AudioHardwareIOProcStreamUsage{proc, {0, 1}}),
              noErr);
    ASSERT_EQ(machine.deviceStart(aggregate, proc), noErr);
    clock->advance(20ms);
    EXPECT_EQ(framesSeen, 128u);
    EXPECT_EQ(micWithData, 0);
    EXPECT_LT(amplitudeAt(left.data(), left.size(), 440.0, 48000.0), 1e-6);

    // Routed to the headphones, Music reaches the tap and leaves the headphones' direct path.
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.routeProcess("com.apple.Music", usbUID); }), "");
    EXPECT_TRUE(machine.directlyAudible(usbUID).empty());
    left.clear();
    clock->advance(100ms);
    EXPECT_NEAR(amplitudeAt(left.data(), left.size(), 440.0, 48000.0), minus12dB, 0.01);
}

TEST_F(SimTapTest, ManualClockStepsCyclesAtTheDevicesPeriodAndRecordingsKeepWhatTheBlockPlayed) {
    TempFolder folder;
    const std::string wav = folder.file("out.wav");
    std::vector<AudioTimeStamp> stamps;
    const auto speakers = machine.world()->deviceByUID(speakersUID)->id;
    const auto start = machine.currentHostTime();
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(machine.createIOProcIDWithBlock(
                  speakers, nullptr,
                  [&](const AudioBufferList&, AudioBufferList& out, const AudioTimeStamp& t) {
                      stamps.push_back(t);
                      auto* d = static_cast<float*>(out.mBuffers[0].mData);
                      for (std::uint32_t f = 0; f < out.mBuffers[0].mDataByteSize / 8; ++f)
                          d[f * 2] = 0.5f, d[f * 2 + 1] = -0.25f;
                  },
                  proc),
              noErr);
    EXPECT_EQ(machine.startRecording(proc, wav, 0.05), "IO proc 1 is not running");
    ASSERT_EQ(machine.deviceStart(speakers, proc), noErr);
    ASSERT_EQ(machine.startRecording(proc, wav, 0.05), "");
    clock->advance(10ms);
    EXPECT_TRUE(stamps.empty()); // one cycle takes 10.67 ms
    clock->advance(1ms);
    ASSERT_EQ(stamps.size(), 1u);
    EXPECT_EQ(stamps[0].mHostTime, start + 10'666'667); // 512 / 48000 s in nanoseconds
    EXPECT_EQ(stamps[0].mSampleTime, 0.0);
    EXPECT_TRUE(stamps[0].mFlags & kAudioTimeStampHostTimeValid);
    clock->advance(1s);
    ASSERT_EQ(stamps.size(), 94u); // floor(1.011 s / 10.67 ms)
    EXPECT_EQ(stamps[93].mSampleTime, 93.0 * 512.0);
    EXPECT_EQ(machine.currentHostTime() - start, 1'011'000'000u);
    EXPECT_EQ(machine.convertHostTimeToNanos(1234), 1234u);
    ASSERT_EQ(machine.deviceStop(speakers, proc), noErr);
    clock->advance(1s);
    EXPECT_EQ(stamps.size(), 94u);

    ASSERT_EQ(machine.stopRecording(proc), "");
    EXPECT_EQ(machine.stopRecording(proc), "no recording is running");
    std::ifstream in(wav, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // 0.05 s at 48 kHz is 2400 stereo frames of 4-byte floats behind a 58-byte header: RIFF, WAVE, IEEE
    // float (3), two channels, 48000 frames a second.
    ASSERT_EQ(bytes.size(), 58u + 2400u * 2u * 4u);
    EXPECT_EQ(bytes.substr(0, 4) + bytes.substr(8, 4), "RIFFWAVE");
    EXPECT_EQ(bytes.substr(20, 8), std::string("\x03\x00\x02\x00\x80\xbb\x00\x00", 8));
    float first[2];
    std::memcpy(first, bytes.data() + 58, sizeof first);
    EXPECT_EQ(std::pair(first[0], first[1]), std::pair(0.5f, -0.25f));
}

TEST_F(SimTapTest, IOStopsDeliveringWhenItsDeviceStallsOrVanishes) {
    const auto aggregate = tapAggregate(machine, TapDescription::stereoMixdown({music}), {usbUID});
    int calls = 0;
    const auto proc = startIO(machine, aggregate, [&](const auto&, auto&, const auto&) { ++calls; });
    // The clock device stalls: the aggregate's IO stops with it, and comes back when it does; unplugged,
    // the headphones take the aggregate's IO with them. Cycles of 10.67 ms: 9 by 100 ms, 19 to 28 between
    // 200 and 300 ms.
    const std::pair<std::function<std::string(SimWorld&)>, int> steps[] = {
        {[](SimWorld&) { return std::string(); }, 9},
        {[](SimWorld& w) { return w.stallIO(usbUID, true); }, 9},
        {[](SimWorld& w) { return w.stallIO(usbUID, false); }, 19},
        {[](SimWorld& w) { return w.unplug(usbUID); }, 19},
    };
    for (const auto& [change, expected] : steps) {
        ASSERT_EQ(machine.mutate(change), "");
        clock->advance(100ms);
        EXPECT_EQ(calls, expected);
    }
    EXPECT_EQ(machine.mutate([&](SimWorld& w) { return w.stallIO("nowhere", true); }), "no device nowhere");
    EXPECT_EQ(machine.deviceStop(aggregate, proc), noErr);
}

} // namespace
} // namespace tonavi
