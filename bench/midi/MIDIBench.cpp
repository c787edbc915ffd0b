// MIDI and the settings import, on the real clock:
// - from a Control Change leaving its source to the application's new volume in the state the runtime
//   pushes to its worker: on the simulated machine (a second machine on the same world file plays the
//   controller, as `tonavictl sim midi` does) and on PipeWire (a MIDI output node of ours in the graph
//   of a private server, linked to "TonaviIn" by the service's mapper as any controller is);
// - a fader sweep of 128 messages in one second, and the configuration writes it leaves;
// - the import of a SoundSource mixer of 100 applications, binary and XML.

#include "core/config/RealFileSystem.hpp"
#include "core/config/TonaviConfigStore.hpp"
#include "core/import/SoundSourceImporter.hpp"
#include "platform/pipewire/PipeWireMIDI.hpp"
#include "platform/sim/SimMIDI.hpp"
#include "platform/sim/SimMachine.hpp"
#include "platform/sim/SimWorkspace.hpp"
#include "platform/sim/SimWorldFile.hpp"
#include "service/TonaviRuntime.hpp"
#include "tests/core/import/SoundSourcePlist.hpp"
#include "tests/platform/support/Eventually.hpp"
#include "tests/support/TempFolder.hpp"

#include "PrivatePipeWireServer.hpp"

#include <benchmark/benchmark.h>
#include <pipewire/filter.h>
#include <pipewire/pipewire.h>
#include <spa/control/control.h>
#include <spa/pod/builder.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

using namespace tonavi;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* player = "com.apple.Music";

// The median and the 99th percentile of the iterations, in milliseconds, beside the mean.
void reportPercentiles(benchmark::State& state, std::vector<double> seconds) {
    if (seconds.empty())
        return;
    std::sort(seconds.begin(), seconds.end());
    state.counters["p50_ms"] = seconds[seconds.size() / 2] * 1e3;
    state.counters["p99_ms"] = seconds[(seconds.size() * 99) / 100] * 1e3;
    state.counters["max_ms"] = seconds.back() * 1e3;
}

// Taps that exist at once; every state push is checked for the player's volume the bench waits for.
struct StateWatchingTaps final : ServiceTapProvider {
    TapHandlePtr createTap(const std::string&) override { return std::make_shared<TapHandle>(); }
    void destroyTap(const TapHandlePtr&) override {}
    void setHooks(Hooks h) override { hooks = std::move(h); }
    void syncStates() override {
        const auto state = hooks.workerState ? hooks.workerState(player) : std::nullopt;
        std::lock_guard<std::mutex> guard(lock);
        if (state && state->app.volume == wanted && !seenAt) {
            seenAt = Clock::now();
            seen.notify_all();
        }
    }
    void expect(double volume) {
        std::lock_guard<std::mutex> guard(lock);
        wanted = volume;
        seenAt.reset();
    }
    std::optional<Clock::time_point> waitSeen() {
        std::unique_lock<std::mutex> guard(lock);
        seen.wait_for(guard, 5s, [&] { return seenAt.has_value(); });
        return seenAt;
    }
    Hooks hooks;
    std::mutex lock;
    std::condition_variable seen;
    double wanted = -1;
    std::optional<Clock::time_point> seenAt;
};

// The real file system, counting the writes of the configuration (the store writes a temporary file
// and renames it over "state.json").
struct CountingFileSystem final : FileSystem {
    bool exists(const Path& p) override { return real.exists(p); }
    std::string read(const Path& p) override { return real.read(p); }
    void writeAtomically(const Path& p, std::string_view bytes) override {
        if (p.filename() == "state.json.tmp") {
            ++stateWrites;
            lastWrite.store(Clock::now().time_since_epoch().count());
        }
        real.writeAtomically(p, bytes);
    }
    void move(const Path& from, const Path& to) override { real.move(from, to); }
    void replace(const Path& target, const Path& with) override { real.replace(target, with); }
    void remove(const Path& p) override { real.remove(p); }
    void removeWriteLeftovers(const std::vector<Path>& paths) override { real.removeWriteLeftovers(paths); }
    std::vector<Path> list(const Path& directory) override { return real.list(directory); }
    void createDirectories(const Path& p) override { real.createDirectories(p); }
    RealFileSystem real{false};
    std::atomic<int> stateWrites{0};
    std::atomic<Clock::rep> lastWrite{0};
};

// A runtime with a fader on controller 7 of any channel mapped to the player's volume.
struct MIDIService {
    MIDIService(std::shared_ptr<AudioHardware> audio, std::shared_ptr<Workspace> workspace,
                std::shared_ptr<MIDISystem> midi) {
        TonaviRuntime::Environment environment;
        environment.store = std::make_shared<TonaviConfigStore>(folder.path(), files);
        environment.store->saveMIDIMappings({{"fader", 0, 7, MIDIMapping::AppVolume{player}}});
        environment.audio = std::move(audio);
        environment.workspace = std::move(workspace);
        environment.tapProvider = taps;
        environment.midi = std::move(midi);
        runtime = std::make_unique<TonaviRuntime>(std::move(environment));
        test::eventually([&] { return runtime->coreAudioReady(); });
    }
    // Sends value after value (1...127, then again) and times each one to the worker's state, from
    // when it went (the time of the call unless `sentAt` knows better; nullopt when it never went).
    template <typename Send, typename SentAt>
    void measure(benchmark::State& state, Send send, SentAt sentAt) {
        unsigned value = 0;
        std::vector<double> samples;
        for (auto _ : state) {
            value = value % 127 + 1;
            taps->expect(value / 127.0);
            const auto start = Clock::now();
            send(value);
            const auto seen = taps->waitSeen();
            const std::optional<Clock::time_point> sent = sentAt(start);
            if (!seen || !sent)
                return state.SkipWithError("the new volume never reached the worker's state");
            samples.push_back(std::chrono::duration<double>(*seen - *sent).count());
            state.SetIterationTime(samples.back());
        }
        reportPercentiles(state, samples);
    }
    const test::TempFolder folder;
    std::shared_ptr<CountingFileSystem> files = std::make_shared<CountingFileSystem>();
    std::shared_ptr<StateWatchingTaps> taps = std::make_shared<StateWatchingTaps>();
    std::unique_ptr<TonaviRuntime> runtime;
};

// The service's machine and the controller's, two processes' views of one world file.
struct SharedSimWorld {
    SharedSimWorld() {
        SimWorld world = SimWorld::preset();
        if (world.midiSources.empty())
            world.midiSources.push_back("nanoKONTROL");
        source = world.midiSources.front();
        SimWorldFile(path).create(world, true);
        std::string error;
        service = SimMachine::open(path, error);
        controller = SimMachine::open(path, error);
    }
    const test::TempFolder folder;
    const std::string path = folder.file("world.json");
    std::string source;
    std::shared_ptr<SimMachine> service, controller;
};

void BM_SimControlChangeToWorkerState(benchmark::State& state) {
    SharedSimWorld world;
    MIDIService s(world.service, std::make_shared<SimWorkspace>(world.service),
                  std::make_shared<SimMIDI>(world.service));
    s.measure(
        state, [&](unsigned value) { SimMIDI::sendControlChange(*world.controller, world.source, 1, 7, value); },
        [](Clock::time_point start) { return std::optional(start); });
}
BENCHMARK(BM_SimControlChangeToWorkerState)->UseManualTime()->Iterations(200)->Unit(benchmark::kMillisecond);

// 128 messages in one second of the real clock, then a second of quiet for the deferred save; with
// the argument 1, the same volumes as plain requests, for comparison.
void BM_SimFaderSweepWrites(benchmark::State& state) {
    SharedSimWorld world;
    MIDIService s(world.service, std::make_shared<SimWorkspace>(world.service),
                  std::make_shared<SimMIDI>(world.service));
    const auto send = [&](unsigned value) {
        if (state.range(0))
            s.runtime->handle(TonaviRequest{TonaviRequest::SetAppVolume{player, value / 127.0}});
        else
            SimMIDI::sendControlChange(*world.controller, world.source, 1, 7, value);
    };
    for (auto _ : state) {
        send(1);
        // The first message's row and its save, and the first passes of the watchdog (2 s) and the
        // smart timer (4 s), which place newly seen apps and save once.
        std::this_thread::sleep_for(5s);
        const int before = s.files->stateWrites.load();
        const auto start = Clock::now();
        for (unsigned value = 0; value < 128; ++value) {
            send(value);
            std::this_thread::sleep_until(start + value * 1s / 128);
        }
        const int during = s.files->stateWrites.load() - before;
        const auto lastDuring = Clock::time_point(Clock::duration(s.files->lastWrite.load()));
        std::this_thread::sleep_for(1s);
        state.counters["last_write_during_ms"] = std::chrono::duration<double, std::milli>(lastDuring - start).count();
        state.counters["writes_during_sweep"] = during;
        state.counters["writes_in_all"] = s.files->stateWrites.load() - before;
    }
}
BENCHMARK(BM_SimFaderSweepWrites)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);

// A MIDI output of ours in the graph: each process cycle sends the Control Change waiting, if any.
class PipeWireController {
  public:
    PipeWireController() {
        loop_ = pw_thread_loop_new("bench-controller", nullptr);
        context_ = pw_context_new(pw_thread_loop_get_loop(loop_), nullptr, 0);
        pw_thread_loop_start(loop_);
        pw_thread_loop_lock(loop_);
        core_ = pw_context_connect(context_, nullptr, 0);
        if (core_) {
            filter_ = pw_filter_new(core_, "bench-controller",
                                    pw_properties_new(PW_KEY_MEDIA_TYPE, "Midi", PW_KEY_MEDIA_CATEGORY, "Playback",
                                                      PW_KEY_MEDIA_CLASS, "Midi/Source", PW_KEY_NODE_ALWAYS_PROCESS,
                                                      "true", nullptr));
            static const pw_filter_events events = [] {
                pw_filter_events e{};
                e.version = PW_VERSION_FILTER_EVENTS;
                e.process = [](void* data, spa_io_position*) { static_cast<PipeWireController*>(data)->process(); };
                return e;
            }();
            pw_filter_add_listener(filter_, &hook_, &events, this);
            port_ = pw_filter_add_port(filter_, PW_DIRECTION_OUTPUT, PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0,
                                       pw_properties_new(PW_KEY_FORMAT_DSP, "8 bit raw midi", PW_KEY_PORT_NAME,
                                                         "out", nullptr),
                                       nullptr, 0);
            pw_filter_connect(filter_, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0);
        }
        pw_thread_loop_unlock(loop_);
    }
    ~PipeWireController() {
        pw_thread_loop_lock(loop_);
        if (filter_)
            pw_filter_destroy(filter_);
        if (core_)
            pw_core_disconnect(core_);
        pw_thread_loop_unlock(loop_);
        pw_thread_loop_stop(loop_);
        pw_context_destroy(context_);
        pw_thread_loop_destroy(loop_);
    }
    bool connected() const { return filter_ != nullptr; }
    // The value goes out in the next cycle; the time it went is when the cycle wrote it.
    void send(unsigned value) { pending_.store(static_cast<int>(value)); }
    Clock::time_point sentAt() const { return Clock::time_point(Clock::duration(sentAt_.load())); }
    bool sent() const { return pending_.load() < 0; }

  private:
    void process() {
        pw_buffer* b = pw_filter_dequeue_buffer(port_);
        if (!b)
            return;
        spa_data& d = b->buffer->datas[0];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(d.data, d.maxsize);
        spa_pod_frame frame;
        spa_pod_builder_push_sequence(&builder, &frame, 0);
        if (const int value = pending_.load(); value >= 0) {
            const std::uint8_t message[3] = {0xB0, 7, static_cast<std::uint8_t>(value)};
            spa_pod_builder_control(&builder, 0, SPA_CONTROL_Midi);
            spa_pod_builder_bytes(&builder, message, 3);
            sentAt_.store(Clock::now().time_since_epoch().count());
            pending_.store(-1);
        }
        spa_pod_builder_pop(&builder, &frame);
        d.chunk->offset = 0;
        d.chunk->size = builder.state.offset;
        pw_filter_queue_buffer(port_, b);
    }
    pw_thread_loop* loop_ = nullptr;
    pw_context* context_ = nullptr;
    pw_core* core_ = nullptr;
    pw_filter* filter_ = nullptr;
    spa_hook hook_{};
    void* port_ = nullptr;
    std::atomic<int> pending_{-1};
    std::atomic<Clock::rep> sentAt_{0};
};

void BM_PipeWireControlChangeToWorkerState(benchmark::State& state) {
    std::string why;
    if (!test::PrivatePipeWireServer::shared(&why))
        return state.SkipWithError(("no private PipeWire server: " + why).c_str());
    PipeWireController controller;
    if (!controller.connected())
        return state.SkipWithError("the controller could not join the graph");
    auto audio = std::make_shared<SimMachine>(SimWorld::preset()); // the devices do not matter here
    MIDIService s(audio, std::make_shared<SimWorkspace>(audio), std::make_shared<PipeWireMIDI>());
    // Until the mapper has linked the controller, its messages go nowhere.
    const bool linked = test::eventually([&] {
        s.taps->expect(0.0);
        controller.send(0);
        std::this_thread::sleep_for(20ms);
        std::lock_guard<std::mutex> guard(s.taps->lock);
        return s.taps->seenAt.has_value();
    });
    if (!linked)
        return state.SkipWithError("the controller was never linked to TonaviIn");
    s.measure(
        state, [&](unsigned value) { controller.send(value); },
        [&](Clock::time_point) { return controller.sent() ? std::optional(controller.sentAt()) : std::nullopt; });
}
BENCHMARK(BM_PipeWireControlChangeToWorkerState)->UseManualTime()->Iterations(200)->Unit(benchmark::kMillisecond);

// A mixer of 100 applications, each with an EQ, a balance, an NS1 plug-in and one to skip.
std::vector<std::uint8_t> hundredApps(bool binary) {
    using namespace tonavi::test;
    std::vector<Plist> items;
    for (int i = 0; i < 100; ++i)
        items.push_back(appSource("com.example.app" + std::to_string(i), "App " + std::to_string(i),
                                  {{"volumeProperties", dict({{"volume", real(0.5)}, {"mute", flag(false)}})},
                                   {"position", real(i)}},
                                  {effect("TC10BandEQMarkup", "EQ", dict({{"band1", real(0.8)}})),
                                   effect("TCBalanceMarkup", "Balance", dict({{"balance", real(-0.3)}})),
                                   plugin("NS1 Noise", 1), plugin("Reverb", 2)}));
    return bytes(dict({{"modelItems", array(items)}}), binary);
}

void BM_SoundSourceImport100Apps(benchmark::State& state) {
    const auto sources = hundredApps(state.range(0) != 0);
    const TonaviConfig base = TonaviConfig::firstRunDefaults();
    for (auto _ : state) {
        auto result = SoundSourceImporter::importData(sources, {}, base, AutoDirectList::bundled(),
                                                      SoundSourceImporter::noInstalledComponents);
        benchmark::DoNotOptimize(result);
    }
    state.SetLabel(state.range(0) ? "binary" : "XML");
}
BENCHMARK(BM_SoundSourceImport100Apps)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

} // namespace
