// One smart pass of pure decisions, as the runtime pays it at least every two seconds: 30 apps, 8
// devices, every feature on, followed by the onset trail's update and the status's smart record.

#include "core/smart/AudioOnsetTrail.hpp"
#include "core/smart/SmartTickPolicy.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>

namespace {

using namespace tonavi;
using Transport = DeviceLiveStatus::Transport;

struct World {
    TonaviConfig config;
    SmartTickInputs inputs;
    std::vector<DeviceLiveStatus> outputs;
    std::vector<SmartInputDevice> inputDevices;
    std::string defaultOutputUID = "dev-5";
};

World makeWorld() {
    World w;
    const char* known[] = {"com.spotify.client", "com.apple.Safari", "us.zoom.xos",      "com.google.Chrome",
                           "com.hnc.Discord",    "com.apple.Music",  "org.videolan.vlc", "com.ableton.live"};
    for (int i = 0; i < 30; ++i) {
        const std::string id = i < 8 ? known[i] : "com.example.app" + std::to_string(i);
        if (i % 2 == 0) {
            AppAudioState row;
            row.id = id;
            w.config.upsertApp(row);
        }
        w.inputs.playing.insert(id);
        if (i % 10 == 2)
            w.inputs.capturing.insert(id);
    }
    auto& smart = w.config.smart;
    smart.followMe = smart.loudnessGuard = smart.autoDuck = smart.micFollow = true;
    smart.followMeBackgroundPercent = 30;
    smart.leaveAloneBundleIDs = {"com.example.app9", "com.example.app11"};
    smart.preferredMicUIDs = {"dev-7", "dev-3"};
    for (int r = 0; r < 4; ++r) {
        AutoDuckRule rule;
        rule.triggerBundleID = "com.example.app" + std::to_string(10 + r);
        rule.duckedBundleIDs = {"com.spotify.client", "com.example.app20", "com.example.app21"};
        w.config.duckRules.push_back(rule);
    }
    w.config.hiddenAppIDs = {"com.example.app29"};
    const Transport kinds[] = {Transport::builtin, Transport::usb, Transport::bluetooth, Transport::virtual_};
    for (int d = 0; d < 8; ++d) {
        DeviceLiveStatus device;
        device.id = "dev-" + std::to_string(d);
        device.name = d == 5 ? "Studio Headphones" : "Device " + std::to_string(d);
        device.transport = kinds[d % 4];
        w.outputs.push_back(device);
        w.inputDevices.push_back(
            {device.id, device.transport, d % 3 == 0 ? 0 : 2, {"dev-" + std::to_string(7 - d)}});
    }
    w.inputs.frontmost = [] { return std::optional<std::string>("com.apple.Safari"); };
    w.inputs.runsAsRegularApp = [](std::string_view id) { return id.ends_with('1'); };
    w.inputs.hasHardwareVolume = false;
    w.config.softMasterPercent = 70;
    return w;
}

void BM_SmartPass(benchmark::State& s) {
    World w = makeWorld();
    SmartTickState state;
    AudioOnsetTrail trail;
    double now = 1'700'000'000.0;
    bool odd = false;
    for (auto _ : s) {
        w.inputs.nowNanos += 2'000'000'000;
        now += 2.0;
        // The runtime's own lookup of the default output in its hardware snapshot.
        const auto found = std::find_if(w.outputs.begin(), w.outputs.end(), [&](const DeviceLiveStatus& d) {
            return d.id == w.defaultOutputUID;
        });
        w.inputs.defaultOutputName = found->name;
        w.inputs.defaultOutputTransport = found->transport;
        auto plan = SmartTickPolicy::plan(state, w.config, w.inputs);
        auto pick = SmartTickPolicy::micFollowPick(w.config, false, w.inputDevices);
        auto lines = trail.recordPlaybackOnsets(w.inputs.playing, now, w.inputs.frontmost);
        auto onsets = trail.currentAudioOnsets(w.config.hiddenAppIDs, now);
        auto live = SmartTickPolicy::liveStatus(state, w.config.smart, {found->name, "Mic", {}});
        benchmark::DoNotOptimize(plan);
        benchmark::DoNotOptimize(pick);
        benchmark::DoNotOptimize(lines);
        benchmark::DoNotOptimize(onsets);
        benchmark::DoNotOptimize(live);
        // Alternate two playing sets so that every other pass raises onsets.
        odd = !odd;
        if (odd)
            w.inputs.playing.erase("com.example.app15");
        else
            w.inputs.playing.insert("com.example.app15");
    }
}
BENCHMARK(BM_SmartPass)->Unit(benchmark::kMicrosecond);

} // namespace
