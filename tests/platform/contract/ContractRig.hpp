#pragma once
// What the contract suite needs of a backend besides the boundary itself: two output devices,
// applications that play a tone, a measure of whether a device plays an application directly,
// and a tap held by another process. The simulated machine answers from its world; PipeWire
// runs real clients on the private server and records the device's monitor.

#include <cstdio>
#include <cstring>

#include "../SimTestSupport.hpp"
#include "PrivatePipeWireServer.hpp"
#include "platform/pipewire/PipeWireAudioHardware.hpp"
#include "platform/pipewire/PipeWireGraph.hpp"

namespace tonavi::test {

enum class AppKind { toneClient, pulseClient };

struct App {
    std::string bundleID;
    double frequency = 0;
    pid_t pid = 0;
};

class ContractRig {
  public:
    virtual ~ContractRig() = default;
    virtual AudioHardware& audio() = 0;
    // Two output devices, the first the default.
    virtual std::string firstOutput() const = 0;
    virtual std::string secondOutput() const = 0;
    // An input device, the default one.
    virtual std::string input() const = 0;
    // An application playing a sine of `frequency`; its process object exists when this returns.
    virtual App startApp(const std::string& bundleID, double frequency, AppKind kind) = 0;
    virtual void stopApp(const App& app) = 0;
    // Whether the device plays the application on its own path.
    virtual bool heard(const std::string& deviceUID, const App& app) = 0;
    // A volume change made by someone else (a mixer, another process).
    virtual bool setVolumeFromOutside(const std::string& deviceUID, float volume) = 0;
    // The environment a helper process needs to land on the same machine.
    virtual void exportEnvironment() = 0;

    AudioObjectID deviceID(const std::string& uid) {
        return find(kAudioHardwarePropertyDevices, kAudioDevicePropertyDeviceUID, uid);
    }
    AudioObjectID processObject(pid_t pid) {
        return find(kAudioHardwarePropertyProcessObjectList, kAudioProcessPropertyPID, std::int32_t{pid});
    }

  private:
    // The object of a system list whose property has the value, or kAudioObjectUnknown.
    template <class T>
    AudioObjectID find(AudioObjectPropertySelector list, AudioObjectPropertySelector property,
                       const T& wanted) {
        for (AudioObjectID id :
             read<std::vector<AudioObjectID>>(audio(), kAudioObjectSystemObject, globalAddress(list))
                 .value_or(std::vector<AudioObjectID>{}))
            if (read<T>(audio(), id, globalAddress(property)) == wanted)
                return id;
        return kAudioObjectUnknown;
    }
};

class SimRig : public ContractRig {
  public:
    SimRig() {
        SimWorldFile(world_).create(SimWorld::preset(), false);
        std::string error;
        machine_ = SimMachine::open(world_, error);
    }
    AudioHardware& audio() override { return *machine_; }
    std::string firstOutput() const override { return speakersUID; }
    std::string secondOutput() const override { return usbUID; }
    std::string input() const override { return "BuiltInMicrophoneDevice"; }
    App startApp(const std::string& bundleID, double frequency, AppKind) override {
        const pid_t pid = nextPID_++;
        machine_->mutate([&](SimWorld& w) {
            auto why = w.launch({bundleID, bundleID, pid, ActivationPolicy::regular}, true);
            return why.empty() ? w.setPlaying(bundleID, true, SimProcess::Signal{frequency, -6.0, false})
                               : why;
        });
        return {bundleID, frequency, pid};
    }
    void stopApp(const App& app) override {
        machine_->mutate([&](SimWorld& w) { return w.quit(app.bundleID); });
    }
    bool heard(const std::string& deviceUID, const App& app) override {
        const auto heard = machine_->directlyAudible(deviceUID);
        return std::find(heard.begin(), heard.end(), app.bundleID) != heard.end();
    }
    bool setVolumeFromOutside(const std::string& deviceUID, float volume) override {
        return machine_->mutate([&](SimWorld& w) { return w.setVolume(deviceUID, volume); }).empty();
    }
    void exportEnvironment() override {
        ::setenv("TONAVI_AUDIO_BACKEND", "sim", 1);
        ::setenv("TONAVI_SIM_WORLD", world_.c_str(), 1);
    }

  private:
    TempFolder folder_;
    std::string world_ = folder_.file("world.json");
    std::shared_ptr<SimMachine> machine_;
    pid_t nextPID_ = 41000;
};

class PipeWireRig : public ContractRig {
  public:
    explicit PipeWireRig(PrivatePipeWireServer& server) : server_(server) {
        std::string error;
        audio_ = PipeWireAudioHardware::connect(error);
    }
    ~PipeWireRig() override {
        for (pid_t pid : running_)
            PrivatePipeWireServer::terminate(pid);
    }
    bool connected() const { return audio_ != nullptr; }
    AudioHardware& audio() override { return *audio_; }
    PipeWireAudioHardware& pipewire() { return *audio_; }
    std::string firstOutput() const override { return "speakers"; }
    std::string secondOutput() const override { return "headphones"; }
    std::string input() const override { return "microphone"; }
    App startApp(const std::string& bundleID, double frequency, AppKind kind) override {
        const std::string hz = std::to_string(frequency);
        // paplay names itself after its binary: its bundle ID is "paplay" unless a desktop entry runs it.
        const std::string file = server_.folder() + "/tone-" + hz + ".wav";
        const std::string make = "sox -n -r 48000 -c 2 " + file + " synth 30 sine " + hz + " vol 0.5";
        const pid_t pid = kind == AppKind::toneClient
                              ? server_.spawn({TONAVI_TONE_CLIENT, bundleID, bundleID, hz, "0.5"}, "tone")
                          : std::system(make.c_str()) == 0 ? server_.spawn({"paplay", file}, "paplay")
                                                           : -1;
        running_.push_back(pid);
        eventually([&] {
            const AudioObjectID id = processObject(pid);
            return id && read<std::uint32_t>(*audio_, id,
                                             globalAddress(kAudioProcessPropertyIsRunningOutput)) == 1u;
        });
        return {bundleID, frequency, pid};
    }
    void stopApp(const App& app) override {
        PrivatePipeWireServer::terminate(app.pid);
        std::erase(running_, app.pid);
    }
    bool heard(const std::string& deviceUID, const App& app) override {
        // 0.3 s of the device's monitor, after 0.2 s to settle; mono.
        const std::string command = "timeout 2 parec --latency-msec=20 --device=" + deviceUID +
                                    ".monitor --raw --format=float32le --rate=48000 --channels=1 2>/dev/null";
        FILE* pipe = ::popen(command.c_str(), "r");
        if (!pipe)
            return false;
        std::vector<float> samples(48000 / 2);
        const std::size_t got = std::fread(samples.data(), sizeof(float), samples.size(), pipe);
        ::pclose(pipe);
        const std::size_t skip = 48000 / 5;
        return got > skip && amplitudeAt(samples.data() + skip, got - skip, app.frequency, 48000) > 0.05;
    }
    // An application playing a click every 4,800 frames on one channel (0 left, 1 right) only.
    App startClicks(const std::string& bundleID, int channel) {
        const pid_t pid = server_.spawn(
            {TONAVI_TONE_CLIENT, bundleID, bundleID, "click:" + std::to_string(channel), "0.5"}, "clicks");
        running_.push_back(pid);
        eventually([&] { return processObject(pid) != kAudioObjectUnknown; });
        return {bundleID, 0, pid};
    }
    // How many frames the right channel's clicks come after the left one's on the device, from one
    // recording of its monitor (-2400...2399, the clicks' period being 4,800); nothing without both.
    std::optional<int> clickLag(const std::string& deviceUID) {
        const std::string command = "timeout 3 parec --latency-msec=20 --device=" + deviceUID +
                                    ".monitor --raw --format=float32le --rate=48000 --channels=2 2>/dev/null";
        FILE* pipe = ::popen(command.c_str(), "r");
        if (!pipe)
            return std::nullopt;
        std::vector<float> samples(2 * 48000 * 6 / 10);
        const std::size_t frames = std::fread(samples.data(), 2 * sizeof(float), samples.size() / 2, pipe);
        ::pclose(pipe);
        // After 0.3 s to settle, the first click of each channel.
        std::optional<std::size_t> first[2];
        for (std::size_t f = 48000 * 3 / 10; f < frames; ++f)
            for (int c = 0; c < 2; ++c)
                if (!first[c] && std::abs(samples[2 * f + c]) > 0.1f)
                    first[c] = f;
        if (!first[0] || !first[1])
            return std::nullopt;
        return wrapClickLag(static_cast<int>(static_cast<long>(*first[1]) - static_cast<long>(*first[0])));
    }
    // A difference of click positions as the nearest lag: -2400...2399 frames.
    static int wrapClickLag(int frames) {
        const int period = 4800;
        return ((frames % period) + period + period / 2) % period - period / 2;
    }
    bool setVolumeFromOutside(const std::string& deviceUID, float volume) override {
        // Pulse volumes use the same cubic law: 50% is a scalar of 0.5.
        const std::string command = "pactl set-sink-volume " + deviceUID + " " +
                                    std::to_string(static_cast<int>(volume * 100)) + "% >/dev/null 2>&1";
        return std::system(command.c_str()) == 0;
    }
    void exportEnvironment() override { ::setenv("TONAVI_AUDIO_BACKEND", "pipewire", 1); }

  private:
    PrivatePipeWireServer& server_;
    std::shared_ptr<PipeWireAudioHardware> audio_;
    std::vector<pid_t> running_;
};

// A tap of a process with an IO proc passing the tap on to `output`, on one connection.
struct TappedPath {
    PipeWireAudioHardware& audio;
    AudioObjectID tap = 0, device = 0;
    AudioDeviceIOProcID proc = 0;

    bool start(AudioObjectID process, const std::string& output) {
        auto description = TapDescription::stereoMixdown({process});
        description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
        device = tapAggregate(audio, description, {output}, &tap);
        proc = startIO(
            audio, device, [](const AudioBufferList& in, AudioBufferList& out, const AudioTimeStamp&) {
                if (!in.mBuffers.empty() && in.mBuffers.back().mData)
                    std::memcpy(out.mBuffers[0].mData, in.mBuffers.back().mData,
                                std::min(in.mBuffers.back().mDataByteSize, out.mBuffers[0].mDataByteSize));
            });
        return device && proc;
    }
    void stop() {
        audio.deviceStop(device, proc);
        audio.destroyIOProcID(device, proc);
        audio.destroyAggregateDevice(device);
        audio.destroyProcessTap(tap);
    }
    // Whether the application's stream targets this tap's sink.
    bool routed(const PipeWireGraph& g, pid_t pid) const {
        const auto* sink = g.nodeByName(audio.tapNodeName(tap));
        for (const auto& [global, n] : g.nodes)
            if (auto meta = g.nodeMetadata.find(global);
                n.pid == pid && n.mediaClass() == "Stream/Output/Audio" && meta != g.nodeMetadata.end())
                if (auto t = meta->second.find("target.object"); t != meta->second.end())
                    return sink && t->second == sink->prop("object.serial");
        return false;
    }
};

} // namespace tonavi::test
