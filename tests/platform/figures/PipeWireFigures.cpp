// Figures of the PipeWire backend on a private server, printed for the record (not a test):
//   - a status-style property read (is-running-output) with 30 playing applications, from memory;
//   - CPU of one tap's IO with a unity block at quantum 256;
//   - the latency PipeWire reports for a tap's nodes, and how often the IO saw its input a cycle late;
//   - the latency a tap adds to an application, at quanta 256 and 1024, next to pw-loopback's: the
//     lag between two click players on the speakers' monitor, one left alone and one tapped (or
//     moved into the loopback's sink), against the same lag before.

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <sys/resource.h>
#include <thread>

#include "../contract/ContractRig.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"

using namespace tonavi;
using namespace tonavi::test;
using Clock = std::chrono::steady_clock;

namespace {
// Share of one core this process used over `seconds` of wall time.
double cpuShare(double seconds) {
    const auto cpu = [] {
        rusage u{};
        ::getrusage(RUSAGE_SELF, &u);
        return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
    };
    const double cpu0 = cpu();
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    return (cpu() - cpu0) / std::chrono::duration<double>(Clock::now() - t0).count();
}
// Frames the path that `engage` sets up adds to `moved`'s clicks, at the quantum; nothing when a
// recording failed.
std::optional<int> addedFrames(PipeWireRig& rig, int quantum, const std::function<bool()>& engage,
                               const std::function<void()>& release) {
    const std::string force = "pw-metadata -n settings 0 clock.force-quantum " + std::to_string(quantum);
    if (std::system((force + " >/dev/null").c_str()) != 0)
        return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto before = rig.clickLag("speakers");
    if (!before || !engage())
        return std::nullopt;
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const auto after = rig.clickLag("speakers");
    release();
    if (!after)
        return std::nullopt;
    return PipeWireRig::wrapClickLag(*after - *before);
}

void reportAddedLatency(PrivatePipeWireServer& server, PipeWireRig& rig) {
    auto& audio = rig.pipewire();
    const App left = rig.startClicks("org.tonavi.FigureClicksLeft", 0);
    const App right = rig.startClicks("org.tonavi.FigureClicksRight", 1);
    const AudioObjectID process = rig.processObject(right.pid);
    pid_t loopback = -1;
    for (int quantum : {256, 1024}) {
        TappedPath path{audio};
        const auto tapped = addedFrames(rig, quantum, [&] { return path.start(process, "speakers"); },
                                        [&] { path.stop(); });
        // The loopback module's own sink, with the player's stream moved into it the way a tap moves it.
        const auto looped = addedFrames(
            rig, quantum,
            [&] {
                loopback = server.spawn({"pw-loopback", "--capture-props=media.class=Audio/Sink node.name=figure.loopback",
                                         "--playback-props=target.object=speakers"},
                                        "loopback");
                std::string serial;
                std::uint32_t stream = 0;
                const bool found = audio.connection().waitUntil(
                    [&](const PipeWireGraph& g) {
                        const auto* sink = g.nodeByName("figure.loopback");
                        for (const auto& [id, n] : g.nodes)
                            if (n.pid == right.pid && n.mediaClass() == "Stream/Output/Audio")
                                stream = id;
                        serial = sink ? sink->prop("object.serial") : "";
                        return sink && stream;
                    },
                    std::chrono::milliseconds(5000));
                return found &&
                       audio.connection().setMetadata("default", stream, "target.object", "Spa:Id", serial.c_str());
            },
            [&] { PrivatePipeWireServer::terminate(loopback); });
        std::printf("added latency at quantum %d: tap %s frames, pw-loopback %s frames\n", quantum,
                    tapped ? std::to_string(*tapped).c_str() : "?", looped ? std::to_string(*looped).c_str() : "?");
    }
    std::system("pw-metadata -n settings 0 clock.force-quantum 0 >/dev/null");
    rig.stopApp(left);
    rig.stopApp(right);
}
} // namespace

int main() {
    std::string why;
    auto* server = PrivatePipeWireServer::shared(&why);
    std::unique_ptr<PipeWireRig> rig = server ? std::make_unique<PipeWireRig>(*server) : nullptr;
    if (!rig || !rig->connected())
        return std::fprintf(stderr, "no private PipeWire server: %s\n", why.c_str()), 1;
    auto& audio = rig->pipewire();
    std::vector<App> apps;
    std::vector<AudioObjectID> processes;
    for (int i = 0; i < 30; ++i) {
        apps.push_back(
            rig->startApp("org.tonavi.Figure" + std::to_string(i), 200 + 10 * i, AppKind::toneClient));
        processes.push_back(rig->processObject(apps.back().pid));
    }
    const int rounds = 2000;
    std::uint32_t running = 0, sum = 0;
    const auto t0 = Clock::now();
    for (int r = 0; r < rounds; ++r)
        for (AudioObjectID p : processes) {
            audio.get(p, globalAddress(kAudioProcessPropertyIsRunningOutput), running);
            sum += running;
        }
    const double perRead =
        std::chrono::duration<double, std::nano>(Clock::now() - t0).count() / (rounds * processes.size());
    std::printf("status read (piro) with %zu applications: %.0f ns per read (%u running)\n", processes.size(),
                perRead, sum / rounds);
    for (std::size_t i = 1; i < apps.size(); ++i)
        rig->stopApp(apps[i]);

    if (audio.set(rig->deviceID("speakers"), globalAddress(kAudioDevicePropertyBufferFrameSize),
                  std::uint32_t{256}) != noErr)
        std::printf("quantum 256 not set\n");
    const double baseline = cpuShare(5);
    TappedPath path{audio};
    if (!path.start(processes[0], "speakers"))
        return std::fprintf(stderr, "tap IO did not start\n"), 1;
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const auto before = *audio.ioStatistics(path.device, path.proc);
    const double withIO = cpuShare(10);
    const auto after = *audio.ioStatistics(path.device, path.proc);
    std::printf("tap IO, unity block, quantum 256: %.2f%% of a core (process %.2f%%, idle baseline %.2f%%), "
                "%.1f cycles/s\n",
                100 * (withIO - baseline), 100 * withIO, 100 * baseline,
                static_cast<double>(after.cycles - before.cycles) / 10.0);
    std::printf("latency PipeWire reports for the tap's nodes: %lld frames (%.2f ms at 48 kHz); "
                "input a cycle late in %llu of %llu cycles\n",
                static_cast<long long>(after.reportedLatencyFrames), after.reportedLatencyFrames / 48.0,
                static_cast<unsigned long long>(after.lateInputs - before.lateInputs),
                static_cast<unsigned long long>(after.cycles - before.cycles));
    path.stop(); // the rig stops the applications
    reportAddedLatency(*server, *rig);
}
