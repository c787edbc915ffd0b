// One smart pass of pure decisions, as the runtime pays it at least every two seconds: 30 apps, 8
// devices, every feature on, followed by the onset trail's update and the status's smart record.

#include "core/smart/AudioOnsetTrail.hpp"
#include "core/smart/SmartTickPolicy.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>

namespace {

using namespace tonavi;
using Transport = DeviceLiveStatus::Transport;

void BM_SmartPass(benchmark::State& s) {
    TonaviConfig config;
    SmartTickInputs inputs;
    for (int i = 0; i < 30; ++i) {
        // Half are configured, a third known by name, the rest must be asked about.
        const std::string id = (i % 3 ? "com.example.app" : "com.spotify.player") + std::to_string(i);
        if (i % 2 == 0)
            config.upsertApp(AppAudioState(id));
        inputs.playing.insert(id);
        if (i % 10 == 2)
            inputs.capturing.insert(id);
    }
    auto& smart = config.smart;
    smart.followMe = smart.loudnessGuard = smart.autoDuck = smart.micFollow = true;
    smart.followMeBackgroundPercent = 30;
    smart.leaveAloneBundleIDs = {"com.example.app10", "com.example.app11"};
    smart.preferredMicUIDs = {"dev-7", "dev-3"};
    for (int r = 13; r < 17; ++r) // four duck rules
        config.duckRules.push_back(
            {"", "com.example.app" + std::to_string(r), {"com.example.app20", "com.example.app22"}});
    config.hiddenAppIDs = {"com.example.app29"};
    config.softMasterPercent = 70;

    std::vector<DeviceLiveStatus> outputs(8);
    std::vector<SmartInputDevice> inputDevices;
    const Transport kinds[] = {Transport::builtin, Transport::usb, Transport::bluetooth, Transport::virtual_};
    for (int d = 0; d < 8; ++d) {
        outputs[d].id = "dev-" + std::to_string(d);
        outputs[d].name = d == 5 ? "Studio Headphones" : "Device " + std::to_string(d);
        outputs[d].transport = kinds[d % 4];
        inputDevices.push_back(
            {outputs[d].id, outputs[d].transport, d % 3 ? 2 : 0, {"dev-" + std::to_string(7 - d)}});
    }
    inputs.frontmost = [] { return std::optional<std::string>("com.example.app4"); };
    inputs.runsAsRegularApp = [](std::string_view id) { return id.ends_with('1'); };
    inputs.hasHardwareVolume = false;

    SmartTickState state;
    AudioOnsetTrail trail;
    double now = 1'700'000'000.0;
    for (auto _ : s) {
        inputs.nowNanos += 2'000'000'000;
        now += 2.0;
        // The runtime's own lookup of the default output in its hardware snapshot.
        const auto out =
            std::find_if(outputs.begin(), outputs.end(), [](auto& d) { return d.id == "dev-5"; });
        inputs.defaultOutputName = out->name;
        inputs.defaultOutputTransport = out->transport;
        benchmark::DoNotOptimize(SmartTickPolicy::plan(state, config, inputs));
        benchmark::DoNotOptimize(SmartTickPolicy::micFollowPick(config, false, inputDevices));
        benchmark::DoNotOptimize(trail.recordPlaybackOnsets(inputs.playing, now, inputs.frontmost));
        benchmark::DoNotOptimize(trail.currentAudioOnsets(config.hiddenAppIDs, now));
        benchmark::DoNotOptimize(SmartTickPolicy::liveStatus(state, smart, {out->name, "Mic", {}}));
        // Every other pass one app starts again, so the trail records onsets.
        if (inputs.playing.erase("com.example.app15") == 0)
            inputs.playing.insert("com.example.app15");
    }
}
BENCHMARK(BM_SmartPass)->Unit(benchmark::kMicrosecond);

} // namespace
