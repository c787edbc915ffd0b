// Property reads, writes and their statuses on the preset machine, as the device manager and
// process discovery see them. Statuses, sizes, the default input and refusals common to every backend
// are the contract suite's; here, the preset's own objects and the rules only the simulation keeps:
// injected failures (the next N calls of an operation fail with a chosen status, as a struggling audio
// daemon would behave) and a default output that settles slowly. Slowed reads are the runtime's tests.
//
// Process taps on the simulated machine, beyond the contract: the exact level of the tapped tone and
// nothing of any other, device-stream taps, the manual clock that steps the
// cycles, stalls and recordings. Real-time cycles are the contract's, on the sim as on PipeWire.
//
// One machine shared by several processes through its world file: a change made by any process
// fires the listeners of all, on the queue each registered with; a damaged file is refused with a
// message and never replaces a good world.

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include "SimTestSupport.hpp"
#include "base/Log.hpp"

namespace tonavi {
namespace {

using namespace tonavi::test;
using namespace std::chrono_literals;

class SimPropertiesTest : public ::testing::Test {
  protected:
    SimMachine machine{SimWorld::preset()};
    AudioObjectID idOf(const std::string& uid) { return machine.world()->deviceByUID(uid)->id; }
    template <class T> std::optional<T> get(AudioObjectID id, AudioObjectPropertyAddress address) {
        return read<T>(machine, id, address);
    }
    const AudioObjectPropertyAddress defaultOutput = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
};

TEST_F(SimPropertiesTest, SpeakersHaveStereoVolumeElementsButNoMainElement) {
    const auto id = idOf(speakersUID);
    const auto volume = [](std::uint32_t e) { return outputAddress(kAudioDevicePropertyVolumeScalar, e); };
    const auto main = outputAddress(kAudioHardwareServiceDeviceProperty_VirtualMainVolume);
    for (std::uint32_t element : {0u, 1u, 2u, 3u})
        EXPECT_EQ(machine.hasProperty(id, volume(element)), element == 1 || element == 2) << element;
    ASSERT_TRUE(machine.set(id, volume(1), 0.2f) == noErr && machine.set(id, volume(2), 0.6f) == noErr);
    EXPECT_NEAR(*get<float>(id, main), 0.4f, 1e-6); // the mean of the two channels
    // Out of range is clamped (writing the main volume moves both channels: the contract's).
    EXPECT_TRUE(machine.set(id, volume(1), 1.5f) == noErr && get<float>(id, volume(1)) == 1.0f);
    // The AirPlay speaker has no mute control at all.
    EXPECT_FALSE(
        machine.hasProperty(idOf("AirPlay:Living-Room-Speaker"), outputAddress(kAudioDevicePropertyMute)));
}

TEST_F(SimPropertiesTest, RatesAndBufferSizesFollowTheDevicesLimitsAndEarbudsKeepTheirQuantum) {
    const auto id = idOf(usbUID);
    const auto frames = globalAddress(kAudioDevicePropertyBufferFrameSize);
    const auto rate = globalAddress(kAudioDevicePropertyNominalSampleRate);
    EXPECT_EQ(get<AudioValueRange>(id, globalAddress(kAudioDevicePropertyBufferFrameSizeRange)),
              (AudioValueRange{32, 4096}));
    // A refused write keeps the accepted one before it.
    const OSStatus statuses[] = {machine.set(id, frames, std::uint32_t{128}),
                                 machine.set(id, frames, std::uint32_t{16}), machine.set(id, rate, 96000.0),
                                 machine.set(id, rate, 22050.0)};
    EXPECT_EQ(std::vector<OSStatus>(std::begin(statuses), std::end(statuses)),
              (std::vector<OSStatus>{noErr, kAudioHardwareIllegalOperationError, noErr,
                                     kAudioDeviceUnsupportedFormatError}));
    EXPECT_EQ(std::pair(*get<std::uint32_t>(id, frames), *get<double>(id, rate)), std::pair(128u, 96000.0));
    // Earbuds are Bluetooth, related to their microphone, and keep their quantum: the size is not settable.
    const auto buds = idOf(budsUID);
    EXPECT_EQ(get<std::uint32_t>(buds, globalAddress(kAudioDevicePropertyTransportType)),
              fourCharCode("blue"));
    const auto related =
        get<std::vector<AudioObjectID>>(buds, globalAddress(kAudioDevicePropertyRelatedDevices));
    EXPECT_NE(std::find(related->begin(), related->end(), idOf("AC-DE-48-00-11-22:input")), related->end());
    bool settable = true;
    EXPECT_EQ((std::pair{machine.isPropertySettable(buds, frames, settable), settable}),
              std::pair(noErr, false));
    EXPECT_EQ(machine.set(buds, frames, std::uint32_t{1024}), kAudioHardwareIllegalOperationError);
    // A device can refuse a write it otherwise supports.
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.deviceByUID(usbUID)->readOnly = {"nsrt"}, ""; }),
              "");
    EXPECT_EQ(machine.set(id, rate, 48000.0), kAudioHardwareIllegalOperationError);
}

TEST_F(SimPropertiesTest, ListenersHearTheirPropertyOnTheirQueueAndProcessesAndDefaultsFollowDevices) {
    DispatchQueue queue("test.properties");
    RecordingListener alive(queue), left(queue), devices(queue);
    const auto leftVolume = outputAddress(kAudioDevicePropertyVolumeScalar, 1);
    const auto speakers = idOf(speakersUID), buds = idOf(budsUID);
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.setDefault(SimDefaultRole::output, budsUID); }), "");
    // A helper plays nothing (a playing process following the default output is the contract's).
    EXPECT_EQ(get<std::vector<AudioObjectID>>(processOf(machine, "com.apple.WebKit.GPU"),
                                              outputAddress(kAudioProcessPropertyDevices)),
              std::vector<AudioObjectID>{});
    const std::tuple<AudioObjectID, AudioObjectPropertyAddress, RecordingListener*> listeners[] = {
        {buds, globalAddress(kAudioDevicePropertyDeviceIsAlive), &alive},
        {speakers, leftVolume, &left},
        {kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDevices), &devices}};
    for (auto [object, address, listener] : listeners)
        ASSERT_EQ(machine.addPropertyListener(object, address, queue, listener->block), noErr);
    EXPECT_EQ(machine.addPropertyListener(4242, leftVolume, queue, left.block), kAudioHardwareBadObjectError);

    // The second write of the left volume changes nothing and calls nobody.
    ASSERT_TRUE(machine.set(speakers, outputAddress(kAudioDevicePropertyVolumeScalar, 2), 0.1f) == noErr &&
                machine.set(speakers, leftVolume, 0.1f) == noErr &&
                machine.set(speakers, leftVolume, 0.1f) == noErr);
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.unplug(budsUID); }), "");
    queue.sync([] {});
    EXPECT_EQ(left.heard(), std::vector<AudioObjectPropertyAddress>{leftVolume});
    EXPECT_EQ(
        std::tuple(alive.calls(), devices.calls(), left.offQueue() + alive.offQueue() + devices.offQueue()),
        std::tuple(1, 1, 0));
    // The unplugged default's object is dead and the default moves; plugged back, it is a new object.
    EXPECT_EQ(get<AudioObjectID>(kAudioObjectSystemObject, defaultOutput), speakers);
    std::string name;
    EXPECT_EQ(machine.get(buds, globalAddress(kAudioObjectPropertyName), name), kAudioHardwareBadObjectError);
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.replug(budsUID); }), "");
    EXPECT_NE(idOf(budsUID), buds);
    // Removed before the recorders go: the replug above may still be on its way to them.
    for (auto [object, address, listener] : listeners)
        EXPECT_EQ(machine.removePropertyListener(object, address, queue, listener->block), noErr);
}

// How many calls meet a fault and on which selector is the service's tests' (tap creation, device writes,
// dropped writes); here, the refusals of a bad request.
TEST(SimFaultsTest, BadFaultRequestsAreRefusedAndChangeNothing) {
    SimMachine machine(SimWorld::preset());
    const auto generation = machine.world()->generation;
    EXPECT_EQ(machine.failNext(SimOperation::createTap, -1, kAudioHardwareIllegalOperationError) + "|" +
                  machine.failNext(SimOperation::createTap, 3, noErr) + "|" + machine.setReadDelay(-5ms),
              "a fault count is not negative|a fault needs a non-zero status (only a write can be dropped "
              "silently)|a read delay is between 0 and 60000 ms");
    EXPECT_EQ(machine.world()->generation, generation);
}

TEST(SimSettleTest, ASwitchToASlowDeviceLandsAfterItsReadsAndIsHeard) {
    auto world = SimWorld::preset();
    world.deviceByUID(budsUID)->settleReads = 3;
    SimMachine machine(world);
    DispatchQueue queue("sim-settle-test");
    RecordingListener listener(queue);
    const auto address = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
    ASSERT_EQ(machine.addPropertyListener(kAudioObjectSystemObject, address, queue, listener.block), noErr);
    const auto current = [&] {
        return machine.world()->device(*read<AudioObjectID>(machine, 1, address))->uid;
    };
    const auto write = [&](const std::string& uid) {
        return machine.set(kAudioObjectSystemObject, address, machine.world()->deviceByUID(uid)->id);
    };
    ASSERT_EQ(write(budsUID), noErr);
    // A braced list reads in order.
    EXPECT_EQ((std::vector<std::string>{current(), current(), current()}),
              (std::vector<std::string>{speakersUID, speakersUID, budsUID}));
    EXPECT_TRUE(listener.waitForCalls(1));

    // A newer write supersedes a pending one; a pending device that goes away never lands.
    ASSERT_TRUE(write(speakersUID) == noErr && write(budsUID) == noErr);
    ASSERT_EQ(machine.mutate([&](SimWorld& w) { return w.unplug(budsUID); }), "");
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(current(), speakersUID);
}

using Heard = std::vector<std::string>;
const double minus12dB = std::pow(10.0, -12.0 / 20.0); // Music's tone: 440 Hz at -12 dBFS

class SimTapTest : public ::testing::Test {
  protected:
    // An IO proc started on the aggregate that keeps the left channel of the tap's stream `stream`.
    AudioDeviceIOProcID keepLeft(AudioObjectID aggregate, std::size_t stream) {
        left.reserve(48000);
        return startIO(machine, aggregate, [this, stream](const AudioBufferList& in, auto&, const auto&) {
            const auto* samples = static_cast<const float*>(in.mBuffers[stream].mData);
            for (std::uint32_t f = 0; samples && f < in.mBuffers[stream].mDataByteSize / 8; ++f)
                left.push_back(samples[f * 2]);
        });
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
    EXPECT_TRUE(machine.directlyAudible(speakersUID).empty());
    clock->advance(200ms);
    EXPECT_NEAR(amplitude(440.0), minus12dB, minus12dB * 0.02);
    EXPECT_LT(amplitude(1000.0), 0.005); // nothing of Safari's tone
    // Music stops: the tap goes quiet at once.
    ASSERT_EQ(machine.mutate([](SimWorld& w) { return w.setPlaying("com.apple.Music", false, {}); }), "");
    left.clear();
    clock->advance(50ms);
    EXPECT_TRUE(!left.empty() && *std::max_element(left.begin(), left.end()) == 0.0f);
    ASSERT_EQ(machine.deviceStop(aggregate, proc), noErr);
    ASSERT_EQ(machine.mutate([](SimWorld& w) { return w.setPlaying("com.apple.Music", true, {}); }), "");
    EXPECT_EQ(machine.directlyAudible(speakersUID), Heard{"com.apple.Music"});
}

TEST_F(SimTapTest, DeviceStreamTapHearsOnlyItsDevice) {
    auto description = TapDescription::deviceStream({music}, usbUID, 0);
    description.muteBehavior = TapMuteBehavior::muted;
    const auto aggregate = tapAggregate(machine, description, {usbUID, "BuiltInMicrophoneDevice"});
    ASSERT_NE(keepLeft(aggregate, 1), 0u); // the microphone's stream comes first
    // Music plays on the speakers, so a tap on the headphones neither hears nor silences it.
    clock->advance(20ms);
    EXPECT_EQ(machine.directlyAudible(speakersUID), Heard{"com.apple.Music"});
    EXPECT_LT(amplitude(440.0), 1e-6); // a routed application reaching the tap is the tap provider's test
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
    // floor(1.011 s / 10.67 ms) cycles, the first at 512 / 48000 s in nanoseconds.
    ASSERT_EQ(stamps.size(), 94u);
    EXPECT_EQ(
        std::tuple(stamps[0].mHostTime - start, stamps[93].mSampleTime, machine.currentHostTime() - start),
        std::tuple(10'666'667u, 93.0 * 512.0, 1'011'000'000u));
    ASSERT_EQ(machine.deviceStop(speakers, proc), noErr);
    EXPECT_EQ(machine.startRecording(proc, wav, 0.05), "IO proc 1 is not running");
    clock->advance(1s);
    EXPECT_EQ(stamps.size(), 94u) << "cycles after the stop";

    const std::string stops[] = {machine.stopRecording(proc), machine.stopRecording(proc)};
    EXPECT_EQ(stops[0] + "|" + stops[1], "|no recording is running");
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
    EXPECT_EQ(machine.deviceStop(aggregate, proc), noErr);
}

class SimSharedWorldTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Log::setFilePathForTesting(folder.file("test.log"));
        ASSERT_EQ(SimWorldFile(path).create(SimWorld::preset(), false), "");
        std::string error;
        machine = SimMachine::open(path, error);
        ASSERT_TRUE(machine) << error;
    }
    static std::string line(FILE* out) {
        char buffer[256] = {};
        return std::fgets(buffer, sizeof buffer, out) ? buffer : "";
    }

    TempFolder folder;
    std::string path = folder.file("world.json");
    std::shared_ptr<SimMachine> machine;
    DispatchQueue queue{"test.listeners"};
    const AudioObjectPropertyAddress defaultOutput = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
};

TEST_F(SimSharedWorldTest, ChangesMadeByAnyProcessFireTheListenersOfAllOnTheirQueues) {
    // The helper process listening on this world, its output read line by line.
    const std::string command = "TONAVI_AUDIO_BACKEND=sim TONAVI_SIM_WORLD='" + path + "' exec '" +
                                TONAVI_TAP_HOLDER + "' --listen dev#";
    FILE* listening = ::popen(command.c_str(), "r");
    ASSERT_EQ(line(listening), "armed\n");
    ASSERT_EQ(machine->mutate([&](SimWorld& w) { return w.unplug(usbUID); }), "");
    EXPECT_EQ(line(listening), "fired 1 on-queue 1\n");
    EXPECT_EQ(WEXITSTATUS(::pclose(listening)), 0);

    // The other way round, and for a process's own properties, between two machines of one process.
    std::string error;
    auto other = SimMachine::open(path, error);
    ASSERT_TRUE(other) << error;
    RecordingListener listener(queue);
    const auto music = processOf(*machine, "com.apple.Music");
    const auto running = globalAddress(kAudioProcessPropertyIsRunningOutput);
    ASSERT_EQ(machine->addPropertyListener(music, running, queue, listener.block), noErr);
    ASSERT_EQ(other->mutate([](SimWorld& w) { return w.setPlaying("com.apple.Music", false, {}); }), "");
    ASSERT_TRUE(listener.waitForCalls(1));
    EXPECT_EQ(
        std::tuple(read<std::uint32_t>(*machine, music, running), listener.offQueue(), listener.heard()),
        std::tuple(std::optional(0u), 0, std::vector{running}));
    // Gone before its queue and its recorder: the machine's watch thread still delivers changes.
    EXPECT_EQ(machine->removePropertyListener(music, running, queue, listener.block), noErr);
}

TEST_F(SimSharedWorldTest, DamagedFilesAreRefusedWithAMessage) {
    const auto goodOutput = read<AudioObjectID>(*machine, kAudioObjectSystemObject, defaultOutput);
    std::ofstream(path, std::ios::trunc) << R"({ "devices": [ { "uid": 12 } ] })";
    std::string error;
    EXPECT_FALSE(SimMachine::open(path, error) || error.find("is damaged") == std::string::npos) << error;
    // The running machine keeps its last good world, and an edit refuses to build on the bad file.
    EXPECT_EQ(read<AudioObjectID>(*machine, kAudioObjectSystemObject, defaultOutput), goodOutput);
    const auto why = machine->mutate([](SimWorld& w) { return w.rename(speakersUID, "X"); });
    EXPECT_NE(why.find("is damaged"), std::string::npos) << why;
    EXPECT_EQ(machine->world()->deviceByUID(speakersUID)->name, "MacBook Pro Speakers");

    std::ofstream(path, std::ios::trunc) << "not json";
    EXPECT_FALSE(SimMachine::open(path, error) || error.find("not valid JSON") == std::string::npos) << error;
    EXPECT_EQ(SimWorldFile(path).create(SimWorld::preset(), false), "a world already exists at " + path);
    EXPECT_TRUE(SimWorldFile(path).create(SimWorld::preset(), true).empty() && SimMachine::open(path, error));
}

TEST_F(SimSharedWorldTest, AnInstalledAppReachesEveryMachineOfTheWorldOnceUnderItsID) {
    const std::string rhythmbox = "org.gnome.Rhythmbox3";
    ASSERT_EQ(machine->mutate([&](SimWorld& w) { return w.install({rhythmbox, "", "/x", {"Audio"}}); }), "");
    ASSERT_EQ(machine->mutate([&](SimWorld& w) { return w.install({rhythmbox, "Rhythmbox", "/y", {"Player"}}); }),
              "");
    EXPECT_EQ(machine->mutate([](SimWorld& w) { return w.install({}); }),
              "an installed application needs a bundle ID");
    std::string error;
    auto other = SimMachine::open(path, error);
    ASSERT_TRUE(other) << error;
    std::vector<std::string> found;
    for (const auto& app : other->world()->installed)
        if (app.bundleID == rhythmbox)
            found.push_back(app.name + " " + app.path + " " + app.categories.at(0));
    EXPECT_EQ(found, std::vector<std::string>{"Rhythmbox /y Player"});
}

// Worlds cross the file in every test above; here, what a decoder must refuse.
TEST(SimWorldJSONTest, DuplicateIDsAndUnknownPoliciesAreRefused) {
    std::string error;
    auto twice = simWorldToJSON(SimWorld::preset()), badPolicy = twice;
    twice["processes"][1]["id"] = twice["processes"][0]["id"];
    EXPECT_FALSE(simWorldFromJSON(twice, error) || error.find("used twice") == std::string::npos) << error;
    badPolicy["applications"][0]["policy"] = "sometimes";
    EXPECT_FALSE(simWorldFromJSON(badPolicy, error));
}

} // namespace
} // namespace tonavi
