// Process taps on the simulated machine, beyond the contract: the exact level of the tapped tone and
// nothing of any other, device-stream taps and switched-off streams, the manual clock that steps the
// cycles, stalls and recordings. Real-time cycles are the contract's, on the sim as on PipeWire.

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

class SimTapTest : public ::testing::Test {
  protected:
    // An IO proc on the aggregate that keeps the left channel of the tap's stream `stream`.
    AudioDeviceIOProcID keepLeft(AudioObjectID aggregate, std::size_t stream) {
        left.reserve(48000);
        AudioDeviceIOProcID proc = 0;
        machine.createIOProcIDWithBlock(
            aggregate, nullptr,
            [this, stream](const AudioBufferList& in, auto&, const auto&) {
                const auto* samples = static_cast<const float*>(in.mBuffers[stream].mData);
                for (std::uint32_t f = 0; samples && f < in.mBuffers[stream].mDataByteSize / 8; ++f)
                    left.push_back(samples[f * 2]);
            },
            proc);
        return proc;
    }
    double amplitude(double frequency) { return amplitudeAt(left.data(), left.size(), frequency, 48000.0); }

    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    SimMachine machine{SimWorld::preset(), SimMachine::Options{clock, 20ms}};
    AudioObjectID music = processOf(machine, "com.apple.Music");
    std::vector<float> left; // the left channel of the tap, as the IO block saw it
};

// The device's meter, the routed tap and stream usage are the tap provider's tests.
TEST_F(SimTapTest, TapDeliversExactlyItsProcessesToneAndMutesItOnlyWhileRead) {
    EXPECT_EQ(machine.directlyAudible(speakersUID), Heard{"com.apple.Music"}); // the agent plays silence
    auto description = TapDescription::stereoMixdown({music});
    description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
    const auto aggregate = tapAggregate(machine, description, {speakersUID});
    EXPECT_EQ(machine.directlyAudible(speakersUID), Heard{"com.apple.Music"}); // nobody reads the tap yet
    const auto proc = keepLeft(aggregate, 0);
    ASSERT_EQ(machine.deviceStart(aggregate, proc), noErr);
    EXPECT_TRUE(machine.directlyAudible(speakersUID).empty());
    clock->advance(200ms);
    EXPECT_NEAR(amplitude(440.0), minus12dB, minus12dB * 0.02);
    EXPECT_LT(amplitude(1000.0), 0.005); // nothing of Safari's tone
    // Music stops: the tap goes quiet at once.
    ASSERT_EQ(machine.mutate([](SimWorld& w) { return w.setPlaying("com.apple.Music", false, {}); }), "");
    left.clear();
    clock->advance(50ms);
    ASSERT_FALSE(left.empty());
    EXPECT_EQ(*std::max_element(left.begin(), left.end()), 0.0f);
    ASSERT_EQ(machine.deviceStop(aggregate, proc), noErr);
    ASSERT_EQ(machine.mutate([](SimWorld& w) { return w.setPlaying("com.apple.Music", true, {}); }), "");
    EXPECT_EQ(machine.directlyAudible(speakersUID), Heard{"com.apple.Music"});
}

TEST_F(SimTapTest, DeviceStreamTapHearsOnlyItsDevice) {
    auto description = TapDescription::deviceStream({music}, usbUID, 0);
    description.muteBehavior = TapMuteBehavior::muted;
    const auto aggregate = tapAggregate(machine, description, {usbUID, "BuiltInMicrophoneDevice"});
    const auto proc = keepLeft(aggregate, 1); // the microphone's stream comes first
    ASSERT_EQ(machine.set(aggregate, inputAddress(kAudioDevicePropertyIOProcStreamUsage),
                          AudioHardwareIOProcStreamUsage{proc, {0, 1}}),
              noErr);
    ASSERT_EQ(machine.deviceStart(aggregate, proc), noErr);
    // Music plays on the speakers, so a tap on the headphones neither hears nor silences it.
    clock->advance(20ms);
    EXPECT_EQ(machine.directlyAudible(speakersUID), Heard{"com.apple.Music"});
    EXPECT_LT(amplitude(440.0), 1e-6);
    // Routed to the headphones, Music reaches the tap and leaves the headphones' direct path.
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.routeProcess("com.apple.Music", usbUID); }), "");
    EXPECT_TRUE(machine.directlyAudible(usbUID).empty());
    left.clear();
    clock->advance(100ms);
    EXPECT_NEAR(amplitude(440.0), minus12dB, 0.01);
}

TEST_F(SimTapTest, ManualClockStepsCyclesAtTheDevicesPeriodAndRecordingsKeepWhatTheBlockPlayed) {
    TempFolder folder;
    const std::string wav = folder.file("out.wav");
    std::vector<AudioTimeStamp> stamps;
    const auto speakers = machine.world()->deviceByUID(speakersUID)->id;
    const auto start = machine.currentHostTime();
    const auto proc =
        startIO(machine, speakers, [&](const auto&, AudioBufferList& out, const AudioTimeStamp& t) {
            stamps.push_back(t);
            auto* d = static_cast<float*>(out.mBuffers[0].mData);
            for (std::uint32_t f = 0; f < out.mBuffers[0].mDataByteSize / 8; ++f)
                d[f * 2] = 0.5f, d[f * 2 + 1] = -0.25f;
        });
    ASSERT_EQ(machine.startRecording(proc, wav, 0.05), "");
    // Per-cycle host times are the tap provider's tests; here the first cycle, the count and the clock.
    clock->advance(10ms);
    EXPECT_TRUE(stamps.empty()); // one cycle takes 10.67 ms
    clock->advance(1001ms);
    ASSERT_EQ(stamps.size(), 94u);                      // floor(1.011 s / 10.67 ms)
    EXPECT_EQ(stamps[0].mHostTime, start + 10'666'667); // 512 / 48000 s in nanoseconds
    EXPECT_EQ(stamps[93].mSampleTime, 93.0 * 512.0);
    EXPECT_EQ(machine.currentHostTime() - start, 1'011'000'000u);
    ASSERT_EQ(machine.deviceStop(speakers, proc), noErr);
    EXPECT_EQ(machine.startRecording(proc, wav, 0.05), "IO proc 1 is not running");
    clock->advance(1s);
    EXPECT_EQ(stamps.size(), 94u);

    ASSERT_EQ(machine.stopRecording(proc), "");
    EXPECT_EQ(machine.stopRecording(proc), "no recording is running");
    std::ifstream in(wav, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // 0.05 s at 48 kHz is 2400 stereo frames of 4-byte floats behind a 58-byte header: RIFF, WAVE, IEEE
    // float (3), two channels, 48000 frames a second; the first frame is what the block played.
    ASSERT_EQ(bytes.size(), 58u + 2400u * 2u * 4u);
    EXPECT_EQ(bytes.substr(0, 4) + bytes.substr(8, 4) + bytes.substr(20, 8) + bytes.substr(58, 8),
              std::string("RIFFWAVE\x03\x00\x02\x00\x80\xbb\x00\x00\0\0\0\x3f\0\0\x80\xbe", 24));
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
