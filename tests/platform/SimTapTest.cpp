// Process taps on the simulated machine: a tap silences its process on the direct path while an IO
// proc reads it, and delivers the process's tone into the IO proc's input; stream usage, buffer
// sizes, recording and the manual clock that steps the cycles.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <thread>

#include "SimTestSupport.hpp"
#include "platform/sim/SimMachine.hpp"

namespace tonavi {
namespace {

using namespace std::chrono_literals;

class SimTapTest : public ::testing::Test {
  protected:
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    SimMachine machine{SimWorld::preset(), SimMachine::Options{clock, 20ms}};

    const std::string speakers = "BuiltInSpeakerDevice";
    const std::string usb = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";

    AudioObjectID processOf(const std::string& bundleID) { return test::processOf(machine, bundleID); }
    AudioObjectID makeAggregate(const std::string& uid, std::vector<std::string> subDevices,
                                const std::string& tapUUID) {
        AggregateDeviceDescription d;
        d.uid = uid;
        d.name = "Tonavi test";
        d.isPrivate = true;
        d.mainSubDevice = subDevices.front();
        for (auto& s : subDevices)
            d.subDevices.push_back({s, true});
        d.taps = {{tapUUID, true}};
        AudioObjectID id = 0;
        EXPECT_EQ(machine.createAggregateDevice(d, id), noErr);
        return id;
    }
};

TEST_F(SimTapTest, TapMutesItsProcessWhileReadAndDeliversItsTone) {
    using Heard = std::vector<std::string>;
    EXPECT_EQ(machine.directlyAudible(speakers), Heard{"com.apple.Music"}); // the agent plays silence

    auto description = TapDescription::stereoMixdown({processOf("com.apple.Music")});
    description.name = "Tonavi com.apple.Music";
    description.isPrivate = true;
    description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
    AudioObjectID tap = 0;
    ASSERT_EQ(machine.createProcessTap(description, tap), noErr);
    const std::string tapUID = description.uuid;
    EXPECT_EQ(machine.directlyAudible(speakers), Heard{"com.apple.Music"}); // nobody reads the tap yet

    const auto aggregate = makeAggregate("com.brelmoor.tonavi.agg.com.apple.Music.1", {speakers}, tapUID);
    AudioStreamConfiguration inputs;
    ASSERT_EQ(
        machine.get(aggregate,
                    scopedAddress(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeInput),
                    inputs),
        noErr);
    EXPECT_EQ(inputs.channelsPerBuffer, std::vector<std::uint32_t>{2}); // the speakers have no input

    std::vector<float> left;
    left.reserve(48000);
    int cycles = 0;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(machine.createIOProcIDWithBlock(
                  aggregate, nullptr,
                  [&](const AudioBufferList& in, AudioBufferList& out, const AudioTimeStamp&) {
                      ++cycles;
                      const auto& tapBuffer = in.mBuffers[0];
                      const auto* samples = static_cast<const float*>(tapBuffer.mData);
                      const auto frames = tapBuffer.mDataByteSize / 4 / tapBuffer.mNumberChannels;
                      auto* dest = static_cast<float*>(out.mBuffers[0].mData);
                      for (std::uint32_t f = 0; f < frames; ++f) {
                          left.push_back(samples[f * 2]);
                          dest[f * 2] = samples[f * 2];
                          dest[f * 2 + 1] = samples[f * 2 + 1];
                      }
                  },
                  proc),
              noErr);
    ASSERT_EQ(machine.deviceStart(aggregate, proc), noErr);
    EXPECT_TRUE(machine.directlyAudible(speakers).empty());

    clock->advance(200ms);
    // 512 frames at 48 kHz is 10.67 ms: 18 whole cycles fit in 200 ms.
    EXPECT_EQ(cycles, 18);
    ASSERT_EQ(left.size(), 18u * 512u);
    const double expected = std::pow(10.0, -12.0 / 20.0); // Music's tone: 440 Hz at -12 dBFS
    EXPECT_NEAR(test::amplitudeAt(left.data(), left.size(), 440.0, 48000.0), expected, expected * 0.02);
    EXPECT_LT(test::amplitudeAt(left.data(), left.size(), 1000.0, 48000.0),
              0.005); // nothing of Safari's tone

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
    EXPECT_EQ(machine.directlyAudible(speakers), Heard{"com.apple.Music"});
}

TEST_F(SimTapTest, DeviceStreamTapHearsOneDeviceAndStreamUsageHidesTheMicrophone) {
    auto description = TapDescription::deviceStream({processOf("com.apple.Music")}, usb, 0);
    description.muteBehavior = TapMuteBehavior::muted;
    AudioObjectID tap = 0;
    ASSERT_EQ(machine.createProcessTap(description, tap), noErr);
    // Music plays on the speakers, so a tap on the headphones neither hears nor silences it.
    EXPECT_EQ(machine.directlyAudible(speakers), std::vector<std::string>{"com.apple.Music"});

    const auto aggregate = makeAggregate("agg.usb", {usb, "BuiltInMicrophoneDevice"}, description.uuid);
    AudioStreamConfiguration inputs;
    ASSERT_EQ(
        machine.get(aggregate,
                    scopedAddress(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeInput),
                    inputs),
        noErr);
    EXPECT_EQ(inputs.channelsPerBuffer, (std::vector<std::uint32_t>{1, 2})); // microphone, then the tap

    ASSERT_EQ(machine.set(aggregate, globalAddress(kAudioDevicePropertyBufferFrameSize), std::uint32_t{128}),
              noErr);

    std::vector<float> tapLeft;
    tapLeft.reserve(48000);
    int micWithData = 0;
    std::uint32_t framesSeen = 0;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(machine.createIOProcIDWithBlock(
                  aggregate, nullptr,
                  [&](const AudioBufferList& in, AudioBufferList&, const AudioTimeStamp&) {
                      micWithData += in.mBuffers[0].mData != nullptr ? 1 : 0;
                      const auto& t = in.mBuffers[1];
                      framesSeen = t.mDataByteSize / 4 / t.mNumberChannels;
                      for (std::uint32_t f = 0; f < framesSeen; ++f)
                          tapLeft.push_back(static_cast<const float*>(t.mData)[f * 2]);
                  },
                  proc),
              noErr);
    const auto usage = scopedAddress(kAudioDevicePropertyIOProcStreamUsage, kAudioObjectPropertyScopeInput);
    EXPECT_EQ(machine.set(aggregate, usage, AudioHardwareIOProcStreamUsage{proc, {0}}),
              kAudioHardwareBadPropertySizeError);
    ASSERT_EQ(machine.set(aggregate, usage, AudioHardwareIOProcStreamUsage{proc, {0, 1}}), noErr);
    AudioHardwareIOProcStreamUsage readBack{proc, {}};
    ASSERT_EQ(machine.get(aggregate, usage, readBack), noErr);
    EXPECT_EQ(readBack.mStreamIsOn, (std::vector<std::uint32_t>{0, 1}));

    ASSERT_EQ(machine.deviceStart(aggregate, proc), noErr);
    clock->advance(20ms);
    EXPECT_EQ(framesSeen, 128u);
    EXPECT_EQ(micWithData, 0);
    EXPECT_LT(test::amplitudeAt(tapLeft.data(), tapLeft.size(), 440.0, 48000.0), 1e-6);

    // Routed to the headphones, Music reaches the tap and leaves the headphones' direct path.
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.routeProcess("com.apple.Music", usb); }), "");
    EXPECT_TRUE(machine.directlyAudible(usb).empty());
    tapLeft.clear();
    clock->advance(100ms);
    EXPECT_NEAR(test::amplitudeAt(tapLeft.data(), tapLeft.size(), 440.0, 48000.0),
                std::pow(10.0, -12.0 / 20.0), 0.01);
    EXPECT_EQ(machine.deviceStop(aggregate, proc), noErr);
}

TEST_F(SimTapTest, ManualClockStepsCyclesAtTheDevicesPeriod) {
    std::vector<AudioTimeStamp> stamps;
    AudioDeviceIOProcID proc = 0;
    const auto speakersID = machine.world()->deviceByUID(speakers)->id;
    ASSERT_EQ(
        machine.createIOProcIDWithBlock(
            speakersID, nullptr,
            [&](const AudioBufferList&, AudioBufferList&, const AudioTimeStamp& t) { stamps.push_back(t); },
            proc),
        noErr);
    const auto start = machine.currentHostTime();
    ASSERT_EQ(machine.deviceStart(speakersID, proc), noErr);
    clock->advance(10ms);
    EXPECT_TRUE(stamps.empty()); // one cycle takes 10.67 ms
    clock->advance(1ms);
    ASSERT_EQ(stamps.size(), 1u);
    const std::uint64_t period = 10'666'667; // 512 / 48000 s in nanoseconds
    EXPECT_EQ(stamps[0].mHostTime, start + period);
    EXPECT_EQ(stamps[0].mSampleTime, 0.0);
    EXPECT_TRUE(stamps[0].mFlags & kAudioTimeStampHostTimeValid);
    clock->advance(1s);
    ASSERT_EQ(stamps.size(), 94u); // floor(1.011 s / 10.67 ms)
    EXPECT_EQ(stamps[93].mSampleTime, 93.0 * 512.0);
    EXPECT_EQ(machine.currentHostTime() - start, 1'011'000'000u);
    EXPECT_EQ(machine.convertHostTimeToNanos(1234), 1234u);

    ASSERT_EQ(machine.deviceStop(speakersID, proc), noErr);
    clock->advance(1s);
    EXPECT_EQ(stamps.size(), 94u);
}

TEST_F(SimTapTest, IOStopsDeliveringWhenItsDeviceStallsOrVanishes) {
    auto description = TapDescription::stereoMixdown({processOf("com.apple.Music")});
    AudioObjectID tap = 0;
    ASSERT_EQ(machine.createProcessTap(description, tap), noErr);
    const auto aggregate = makeAggregate("agg.stall", {usb}, description.uuid);
    int calls = 0;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(machine.createIOProcIDWithBlock(
                  aggregate, nullptr,
                  [&](const AudioBufferList&, AudioBufferList&, const AudioTimeStamp&) { ++calls; }, proc),
              noErr);
    ASSERT_EQ(machine.deviceStart(aggregate, proc), noErr);
    clock->advance(100ms);
    EXPECT_EQ(calls, 9);

    // The clock device stalls: the aggregate's IO stops with it, and comes back when it does.
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.stallIO(usb, true); }), "");
    clock->advance(100ms);
    EXPECT_EQ(calls, 9);
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.stallIO(usb, false); }), "");
    clock->advance(100ms);
    EXPECT_EQ(calls, 19); // cycles 19 to 28 of 10.67 ms fall between 200 and 300 ms

    // Unplugged, the headphones take the aggregate's IO with them.
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.unplug(usb); }), "");
    clock->advance(100ms);
    EXPECT_EQ(calls, 19);
    EXPECT_EQ(machine.mutate([&](SimWorld& w) { return w.stallIO("nowhere", true); }), "no device nowhere");
    EXPECT_EQ(machine.deviceStop(aggregate, proc), noErr);
}

TEST_F(SimTapTest, RecordingWritesWhatTheBlockPlayed) {
    test::TempFolder folder;
    const auto speakersID = machine.world()->deviceByUID(speakers)->id;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(machine.createIOProcIDWithBlock(
                  speakersID, nullptr,
                  [](const AudioBufferList&, AudioBufferList& out, const AudioTimeStamp&) {
                      auto* d = static_cast<float*>(out.mBuffers[0].mData);
                      const auto frames = out.mBuffers[0].mDataByteSize / 8;
                      for (std::uint32_t f = 0; f < frames; ++f) {
                          d[f * 2] = 0.5f;
                          d[f * 2 + 1] = -0.25f;
                      }
                  },
                  proc),
              noErr);
    EXPECT_EQ(machine.startRecording(proc, folder.file("out.wav"), 0.05), "IO proc 1 is not running");
    ASSERT_EQ(machine.deviceStart(speakersID, proc), noErr);
    ASSERT_EQ(machine.startRecording(proc, folder.file("out.wav"), 0.05), "");
    clock->advance(100ms);
    ASSERT_EQ(machine.stopRecording(proc), "");
    EXPECT_EQ(machine.stopRecording(proc), "no recording is running");

    std::ifstream in(folder.file("out.wav"), std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // 0.05 s at 48 kHz is 2400 stereo frames of 4-byte floats behind a 58-byte header.
    ASSERT_EQ(bytes.size(), 58u + 2400u * 2u * 4u);
    EXPECT_EQ(std::string(bytes.data(), 4), "RIFF");
    EXPECT_EQ(std::string(bytes.data() + 8, 4), "WAVE");
    auto u16 = [&](std::size_t at) {
        return static_cast<unsigned>(static_cast<unsigned char>(bytes[at]) |
                                     static_cast<unsigned char>(bytes[at + 1]) << 8);
    };
    EXPECT_EQ(u16(20), 3u); // IEEE float
    EXPECT_EQ(u16(22), 2u); // channels
    EXPECT_EQ(u16(24) | u16(26) << 16, 48000u);
    float first[2];
    std::memcpy(first, bytes.data() + 58, sizeof first);
    EXPECT_EQ(first[0], 0.5f);
    EXPECT_EQ(first[1], -0.25f);
}

TEST(SimRealTimeIOTest, CyclesRunOnTheirOwnThreadAndMetersReachTheWorldFile) {
    test::TempFolder folder;
    const std::string path = folder.file("world.json");
    ASSERT_EQ(SimWorldFile(path).create(SimWorld::preset(), false), "");
    std::string error;
    auto machine = SimMachine::open(path, error);
    ASSERT_TRUE(machine) << error;

    const auto world = machine->world();
    auto description = TapDescription::stereoMixdown({world->processes[2].id}); // Music
    description.isPrivate = true;
    description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
    AudioObjectID tap = 0;
    ASSERT_EQ(machine->createProcessTap(description, tap), noErr);
    AggregateDeviceDescription aggregate;
    aggregate.uid = "agg.realtime";
    aggregate.isPrivate = true;
    aggregate.subDevices = {{"BuiltInSpeakerDevice", true}};
    aggregate.taps = {{description.uuid, true}};
    AudioObjectID device = 0;
    ASSERT_EQ(machine->createAggregateDevice(aggregate, device), noErr);

    std::atomic<int> cycles{0};
    std::atomic<bool> onTestThread{false};
    const auto testThread = std::this_thread::get_id();
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(machine->createIOProcIDWithBlock(
                  device, nullptr,
                  [&](const AudioBufferList& in, AudioBufferList& out, const AudioTimeStamp&) {
                      if (std::this_thread::get_id() == testThread)
                          onTestThread = true;
                      std::memcpy(out.mBuffers[0].mData, in.mBuffers[0].mData, out.mBuffers[0].mDataByteSize);
                      cycles.fetch_add(1);
                  },
                  proc),
              noErr);
    ASSERT_EQ(machine->deviceStart(device, proc), noErr);
    EXPECT_TRUE(test::eventually([&] { return cycles.load() >= 20; }));
    EXPECT_FALSE(onTestThread.load());
    // Another process asks for a recording through the world; this one serves it and retires the request.
    const std::string wav = folder.file("speakers.wav");
    ASSERT_EQ(SimWorldFile(path).update(
                  [&](SimWorld& w) { return w.requestRecording("BuiltInSpeakerDevice", wav, 0.1); }),
              "");
    EXPECT_TRUE(test::eventually([&] {
        auto disk = SimWorldFile(path).read(error);
        return disk && disk->recordings.empty() && std::filesystem::exists(wav);
    }));
    EXPECT_EQ(std::filesystem::file_size(wav), 58u + 4800u * 2u * 4u); // 0.1 s of stereo floats at 48 kHz
    // What the proc plays is published for other processes to see.
    EXPECT_TRUE(test::eventually([&] {
        auto disk = SimWorldFile(path).read(error);
        return disk && disk->meters.size() == 1 && disk->meters[0].deviceUID == "BuiltInSpeakerDevice" &&
               std::abs(disk->meters[0].peakDB + 12.0) < 0.2;
    }));
    ASSERT_EQ(machine->deviceStop(device, proc), noErr);
    const int stoppedAt = cycles.load();
    EXPECT_EQ(machine->destroyIOProcID(device, proc), noErr);
    EXPECT_EQ(cycles.load(), stoppedAt);
    EXPECT_EQ(machine->destroyAggregateDevice(device), noErr);
    EXPECT_EQ(machine->destroyProcessTap(tap), noErr);
    EXPECT_TRUE(machine->world()->taps.empty());
}

} // namespace
} // namespace tonavi
