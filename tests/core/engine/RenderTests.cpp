#include "EngineTestSupport.hpp"
#include "audio/listening/GlobalListeningSettingsJSON.hpp"
#include "core/config/ConfigDecodeError.hpp"
#include "core/engine/GlobalListeningPolicy.hpp"
#include "core/engine/HealthEvent.hpp"
#include "core/engine/TapWorkerState.hpp"
#include "tests/core/config/ConfigSamples.hpp"

#include <cmath>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tonavi::testing {
namespace {

using nlohmann::json;

// The gain a fresh tap renders with: its first cycle starts at the target with no ramp.
float firstCycleGain(const TonaviConfig& config, const std::string& id,
                     const std::function<void(EngagementEngine&)>& setup = {}) {
    EngineHarness h(config);
    if (setup)
        setup(*h.engine);
    auto buffer = constantBuffer(32, 1.0f);
    h.engine->render(id, buffer);
    for (float sample : buffer)
        EXPECT_EQ(sample, buffer[0]) << "the first cycle must not ramp";
    return buffer[0];
}

TEST(Render, FirstCycleStartsAtTargetAndUnityIsBitExact) {
    EngineHarness h(configWith({appRow("unity")}));
    h.engine->setForceEngaged({"unity"}, {});
    std::vector<float> samples(256);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = std::sin(0.37f * i) * 0.9f;
    samples[7] = 1e-42f; // a denormal survives untouched as well
    const auto original = samples;
    EXPECT_FALSE(h.engine->render("unity", samples) || h.engine->render("unity", samples));
    EXPECT_EQ(std::memcmp(samples.data(), original.data(), samples.size() * sizeof(float)), 0);
    auto untouched = constantBuffer(4, 0.3f); // no row: pass through
    EXPECT_FALSE(h.engine->render("stranger", untouched) || untouched != constantBuffer(4, 0.3f));
}

TEST(Render, MuteRampsToZeroWithAnEightMillisecondTimeConstant) {
    EngineHarness h(configWith({appRow("a", 0.5)}));
    auto warm = constantBuffer(128, 1.0f); // a fresh tap would start at its target
    h.engine->render("a", warm);
    AppAudioState muted = appRow("a", 0.5);
    muted.muted = true;
    h.engine->updateApp(muted);
    EXPECT_TRUE(h.engine->hasTap("a")); // the tap stays until released

    auto buffer = constantBuffer(1920, 1.0f); // 40 ms at 48 kHz
    EXPECT_TRUE(h.engine->render("a", buffer));
    // One pole from 0.25 towards 0: after n frames 0.25 x exp(-n / 384).
    for (std::size_t n : {1u, 100u, 384u, 1000u, 1920u})
        EXPECT_NEAR(buffer[(n - 1) * 2], 0.25 * std::exp(-static_cast<double>(n) / 384.0), 1e-6) << n;
    EXPECT_EQ(buffer[0], buffer[1]); // both channels of a frame share the gain
    for (std::size_t i = 2; i < buffer.size(); i += 2)
        ASSERT_LT(buffer[i], buffer[i - 2]); // no click
}

TEST(Render, NearUnitySmootherKeepsMultiplyingUntilItSettles) {
    EngineHarness h(configWith({appRow("a", 0.999)})); // target 0.998001
    auto warm = constantBuffer(16, 1.0f);
    h.engine->render("a", warm);
    h.engine->setForceEngaged({"a"}, {}); // keeps the tap once the row is back at unity
    h.engine->updateApp(appRow("a", 1.0));
    auto buffer = constantBuffer(16, 1.0f);
    EXPECT_TRUE(h.engine->render("a", buffer));
    EXPECT_TRUE(buffer[0] > 0.998001f && buffer[31] < 1.0f);
    for (int i = 0; i < 200; ++i) {
        auto more = constantBuffer(128, 1.0f);
        h.engine->render("a", more);
    }
    auto settled = constantBuffer(16, 0.5f);
    EXPECT_FALSE(h.engine->render("a", settled));
    EXPECT_EQ(settled, constantBuffer(16, 0.5f));
}

TEST(Render, TargetGainCombinesDuckFollowMeSoftMasterAndDucks) {
    auto config = configWith({appRow("a", 0.5), appRow("hero", 0.5)});
    AutoDuckRule rule;
    rule.triggerBundleID = "call";
    rule.duckedBundleIDs = {"a"};
    rule.duckDB = -20.0;
    config.duckRules = {rule};
    using Setup = std::function<void(EngagementEngine&)>;
    const std::tuple<const char*, const char*, Setup, float> cases[] = {
        {"auto duck of this app", "a", [](EngagementEngine& e) { e.setAutoDuck({"a"}, -6.0206); }, 0.125f},
        {"follow-me background", "a", [](EngagementEngine& e) { e.setFollowMe("hero", 0.4); }, 0.1f},
        {"the hero itself", "hero", [](EngagementEngine& e) { e.setFollowMe("hero", 0.4); }, 0.25f},
        {"smart-protected", "a",
         [](EngagementEngine& e) {
             e.setFollowMe("hero", 0.4);
             e.setSmartProtected({"a"});
         },
         0.25f},
        {"soft master", "a", [](EngagementEngine& e) { e.setSoftMasterGain(0.5); }, 0.125f},
        // -6.0206 dB is a linear half.
        {"manual duck", "a", [](EngagementEngine& e) { e.setManualDuckDB(-6.0206); }, 0.125f}};
    for (const auto& [why, app, setup, gain] : cases)
        EXPECT_NEAR(firstCycleGain(config, app, setup), gain, 1e-6) << why;
}

TEST(Render, PeakLimiterCarriesItsGainAndClearsWhenTheCeilingIsNearUnity) {
    EngineHarness h(configWith({appRow("a", 1.0)}));
    h.engine->setForceEngaged({"a"}, {});
    h.engine->setLoudnessGuard(true, -6.0206); // ceiling of one half
    auto buffer = constantBuffer(72, 1.0f);
    EXPECT_TRUE(h.engine->render("a", buffer));
    // Attack of 1.5 ms (72 frames): gr = 0.5 + 0.5 exp(-n / 72).
    EXPECT_NEAR(buffer[0], 0.5 + 0.5 * std::exp(-1.0 / 72.0), 1e-5);
    EXPECT_NEAR(buffer[142], 0.5 + 0.5 * std::exp(-1.0), 1e-5);
    EXPECT_NEAR(h.engine->limiterGR("a").value_or(0.0), 0.5 + 0.5 * std::exp(-1.0), 1e-5);

    auto next = constantBuffer(1, 1.0f);
    h.engine->render("a", next);
    EXPECT_NEAR(next[0], 0.5 + 0.5 * std::exp(-73.0 / 72.0), 1e-5); // continues, not restarts

    h.engine->setLoudnessGuard(true, -0.005); // linear above 0.999: no limiting at all
    auto passed = constantBuffer(8, 1.0f);
    EXPECT_FALSE(h.engine->render("a", passed));
    EXPECT_EQ(passed, constantBuffer(8, 1.0f));
    EXPECT_FALSE(h.engine->limiterGR("a").has_value());
}

TEST(Render, PeakLimiterReleasesSlowlyAndLeavesQuietFramesAtTheirGain) {
    std::vector<float> quiet(2 * 7200, 0.1f);
    // From a reduction of 0.5 the 150 ms release (7200 frames) closes 1 - 1/e of the gap.
    const double gr = EngagementEngine::applyPeakLimiter(quiet, 0.5, 0.5, 2, 48000.0);
    EXPECT_NEAR(gr, 1.0 - 0.5 * std::exp(-1.0), 1e-6);
    EXPECT_NEAR(quiet[0], 0.1 * (1.0 - 0.5 * std::exp(-1.0 / 7200.0)), 1e-7);
    EXPECT_EQ(EngagementEngine::applyPeakLimiter({}, 0.5, 0.7, 2, 48000.0), 0.7);
}

TEST(Render, BlockedDispositionsKeepMutedAppsSilentAndPassEveryoneElse) {
    AppAudioState muted = appRow("muted");
    muted.muted = true;
    EngineHarness h(configWith({muted, appRow("loud", 0.5)}));
    // Suspension is stored but its reconcile is still pending: the taps are live.
    h.engine->setReconciliationScheduler([] {});
    h.engine->setHardwareSuspended(true);

    auto silent = constantBuffer(4, 0.9f);
    EXPECT_TRUE(h.engine->render("muted", silent));
    EXPECT_EQ(silent, constantBuffer(4, 0.0f));
    auto loud = constantBuffer(4, 0.9f);
    EXPECT_FALSE(h.engine->render("loud", loud));
    EXPECT_EQ(loud, constantBuffer(4, 0.9f));

    EXPECT_TRUE(h.engine->render("muted", {}));
}

TEST(Render, TimedMuteFollowsTheClock) {
    AppAudioState timed = appRow("a");
    EngineHarness h(configWith({}));
    timed.timedMuteUntil = *h.clock + 10.0;
    h.engine->apply(configWith({timed}));
    auto buffer = constantBuffer(4, 1.0f);
    h.engine->render("a", buffer);
    EXPECT_EQ(buffer, constantBuffer(4, 0.0f));

    *h.clock += 11.0; // elapsed: the row still engages, and the smoother fades back in
    EXPECT_TRUE(h.engine->hasTap("a"));
    auto after = constantBuffer(384, 1.0f);
    EXPECT_TRUE(h.engine->render("a", after));
    EXPECT_NEAR(after[767], 1.0 - std::exp(-1.0), 1e-5);
}

TEST(WorkerState, HeldHiddenAndNormalRows) {
    AppAudioState locked = appRow("locked", 0.4), normal = appRow("normal", 0.4);
    locked.directLocked = locked.muteWhileBypassed = true;
    normal.muted = true;
    TonaviConfig config =
        configWith({locked, normal, appRow("hidden", 0.3), appRow("solo", 0.7), appRow("plain", 0.6)});
    config.hiddenAppIDs = {"hidden"};
    config.globalListening.enabled = config.globalListening.balancer.enabled = true;
    EngineHarness h(config);
    h.engine->setLoudnessGuard(true, -6.0);
    h.engine->setFollowMe("solo", 0.25);
    h.engine->setSmartProtected({"normal"});
    h.engine->defaultOutputChanged("speakers");
    EXPECT_FALSE(h.engine->tapWorkerState("nobody").has_value());

    // A locked row is held at unity; the mute that counts for it is muteWhileBypassed.
    const auto held = *h.engine->tapWorkerState("locked");
    AppAudioState heldRow = appRow("locked");
    heldRow.muted = heldRow.muteWhileBypassed = true;
    EXPECT_EQ(held.app, heldRow);
    EXPECT_EQ(held.globalListening, kavore::GlobalListeningSettings::off());
    EXPECT_EQ(held.loudnessGuardCeilingDBFS, 0.0);
    EXPECT_EQ(held.followMeBackgroundGain, 0.25);

    const auto sent = *h.engine->tapWorkerState("normal");
    EXPECT_EQ(sent.app, h.engine->managedApp("normal").value());
    EXPECT_NEAR(sent.loudnessGuardCeilingDBFS, -6.0, 1e-9);
    EXPECT_EQ(sent.followMeBackgroundGain, 1.0); // smart-protected
    EXPECT_EQ(sent.globalListening, h.engine->config().globalListening);
    EXPECT_EQ(sent.currentDefaultOutputUID, "speakers");

    const auto hidden = *h.engine->tapWorkerState("hidden");
    EXPECT_FALSE(hidden.app.volume != 1.0 || hidden.followMeHero || hidden.loudnessGuardActive);

    h.engine->setSoloApps({"solo"});
    const auto suppressed = *h.engine->tapWorkerState("plain");
    EXPECT_TRUE(suppressed.app.muted && suppressed.app.volume == 1.0);
    EXPECT_EQ(suppressed.globalListening, kavore::GlobalListeningSettings::off());
}

// Two engines hear the same tone; one of them gets a change partway. The chain is rebuilt from its
// new settings at the next cycle on the same tap, and processors the change does not concern keep
// their state: a plug-in slot added to the listening treatment leaves the global processor as it was,
// and steady volume keeps the level it learned (a fresh one would start again at unity gain). So both
// render the same from then on: the same samples, or with `mirrored` the channels swapped.
TEST(Render, SettingChangesRebuildTheChainAndKeepWhatOtherProcessorsLearned) {
    const auto panChain = [](const char* balance) {
        kavore::EffectSlot slot;
        slot.id = "pan";
        slot.kind = kavore::EffectKind::balancePan;
        slot.settingsJSON = bytesOf(std::string("{\"balance\":") + balance + ",\"enabled\":true}");
        kavore::ChainSettings chain;
        chain.slots.push_back(std::move(slot));
        return chain;
    };
    AppAudioState steady = appRow("a"), mirrored;
    steady.steadyVolume = true;
    steady.chain = panChain("-0.5");
    mirrored = steady;
    mirrored.chain = panChain("0.5");
    // A 1 kHz bell of +6 dB: its filters carry state from cycle to cycle.
    const kavore::ListeningEQSettings bell(std::vector<kavore::ListeningEQBand>{
        {"bell", kavore::ListeningFilterKind::bell, 1000.0, 6.0, 1.0, true}});
    TonaviConfig listening = configWith({steady}), withPlugin = listening;
    listening.globalListening = kavore::GlobalListeningSettings(true, bell, {}, {});
    withPlugin.globalListening = kavore::GlobalListeningSettings(true, bell, {}, {pluginSlot("GL1")});
    const std::tuple<const char*, TonaviConfig, TonaviConfig, bool> changes[] = {
        {"plug-in slot added to the listening treatment", listening, withPlugin, false},
        {"chain mirrored", configWith({steady}), configWith({mirrored}), true}};
    // The tone jumps by 12 dB once steady volume has learned its level (about 3 s), and a second
    // later, at the change, steady volume is turning the app down.
    constexpr int jumpAt = 600, changeAt = 800;
    for (const auto& [name, before, after, mirrored] : changes) {
        EngineHarness changed(before), reference(before);
        ASSERT_TRUE(changed.engine->hasTap("a") && reference.engine->hasTap("a"));
        double settledPeak = 0.0;
        for (int cycle = 0; cycle < changeAt + 20; ++cycle) {
            if (cycle == changeAt)
                changed.engine->apply(after);
            auto a = toneCycle(cycle, cycle < jumpAt ? 0.05 : 0.2), b = a;
            changed.engine->render("a", a);
            reference.engine->render("a", b);
            const bool swap = mirrored && cycle >= changeAt;
            for (std::size_t i = 0; i < a.size(); ++i)
                ASSERT_NEAR(a[i], b[swap ? i ^ 1 : i], 1e-6) << name << ", cycle " << cycle;
            const double peak = std::max(peakOf(b, 0), peakOf(b, 1));
            settledPeak = cycle == jumpAt - 1 ? peak : settledPeak;
            // Four times the tone comes out well under four times as loud.
            if (cycle == changeAt) {
                EXPECT_LT(peak, 0.6 * 4.0 * settledPeak) << name << ": steady volume learned nothing";
            }
        }
        EXPECT_EQ(changed.taps->createCalls("a"), 1) << name;
    }
}

TEST(GlobalListeningPolicy, DecidesInItsOrder) {
    AppAudioState plain = appRow("com.apple.Music"), bypassed = plain, locked = plain;
    bypassed.chain.bypassed = true;
    locked.directLocked = true;
    AppAudioState daw = appRow("com.ableton.live"), controlledDAW = appRow("com.ableton.live", 0.7);
    SmartSettings protecting, open, leaveAlone;
    open.protectMusicApps = false;
    leaveAlone.leaveAloneBundleIDs = {"com.apple.Music"};
    const std::tuple<const char*, const AppAudioState*, const SmartSettings&, bool> cases[] = {
        {"com.apple.Music", &plain, protecting, true},
        {"hidden.app", nullptr, protecting, false},
        {"com.apple.Music", &bypassed, protecting, false},
        {"com.apple.Music", &locked, protecting, false},
        {"com.apple.Music", &plain, leaveAlone, false},
        // A production tool is refused outright while music apps are protected; otherwise it gets
        // the treatment only when its own row asks for control.
        {"com.ableton.live", &controlledDAW, protecting, false},
        {"com.ableton.live", &daw, open, false},
        {"com.ableton.live", &controlledDAW, open, true}};
    for (const auto& [id, row, smart, expected] : cases)
        EXPECT_EQ(GlobalListeningPolicy::mayProcess(id, row, {"hidden.app"}, smart), expected)
            << id << (row ? " with a row" : "");
}

TEST(GlobalListeningRender, PluginBridgeRunsBetweenTheHalvesAndCountsInLatency) {
    TonaviConfig config = configWith({appRow("a"), appRow("com.ableton.live", 0.5)});
    config.globalListening =
        kavore::GlobalListeningSettings(true, kavore::ListeningEQSettings::flat(), {}, {pluginSlot("GL1")});
    EngineHarness h(config, false);
    std::vector<std::string> rendered;
    h.engine->setExternalAURender([&](const std::string& slotID, std::span<float> buffer) {
        rendered.push_back(slotID);
        for (float& sample : buffer)
            sample *= 0.5f;
    });
    h.engine->setExternalAULatency([](const std::string&) { return 64; });
    h.engine->setForceEngaged({"a"}, {});
    EXPECT_EQ(h.engine->globalPluginSlotIDs(), std::vector<std::string>{"GL1"});

    auto buffer = constantBuffer(16, 0.4f);
    EXPECT_TRUE(h.engine->render("a", buffer)); // unity app, but the global treatment ran
    EXPECT_EQ(rendered, std::vector<std::string>{"GL1"});
    for (float sample : buffer)
        EXPECT_NEAR(sample, 0.2f, 1e-6);
    EXPECT_EQ(h.engine->latencySamples("a", 256, 128), 256 + 128 + 64);

    // A protected production tool renders without it and pays no plug-in latency.
    rendered.clear();
    auto daw = constantBuffer(16, 0.4f);
    h.engine->render("com.ableton.live", daw);
    EXPECT_TRUE(rendered.empty());
    EXPECT_NEAR(daw[0], 0.1f, 1e-6);
    EXPECT_EQ(h.engine->latencySamples("com.ableton.live", 256, 128), 384);

    // A failing plug-in slot is bypassed: the list empties and the treatment stops changing audio.
    h.engine->autoRevertAUSlot("GL1", "stopped responding");
    EXPECT_TRUE(h.engine->globalPluginSlotIDs().empty());
    EXPECT_EQ(h.engine->healthLog().back().detail, "global listening: stopped responding");
    auto after = constantBuffer(16, 0.4f);
    EXPECT_FALSE(h.engine->render("a", after));
    EXPECT_EQ(after, constantBuffer(16, 0.4f));
}

// Every key the worker reads, spelled as the service writes it.
json goldenDocument() {
    json doc = json::parse(R"({
      "app": {"id": "com.apple.Music", "volume": 0.5, "muted": true},
      "currentDefaultOutputUID": "BuiltInSpeakers", "sampleRate": 44100.0, "stageMode": true,
      "followMeHero": "com.zoom.us", "followMeBackgroundGain": 0.3, "softMasterGain": 0.8, "manualDuckDB": -6.0,
      "autoDuckApps": ["com.apple.Music", "com.spotify.client"], "autoDuckDB": -12.0,
      "loudnessGuardActive": true, "loudnessGuardCeilingDBFS": -3.0,
      "duckRules": [{"id": "R", "triggerBundleID": "com.zoom.us", "duckedBundleIDs": ["com.apple.Music"]}],
      "activeDuckTriggers": ["com.zoom.us"]
    })");
    doc["globalListening"] = kavore::toJSON(kavore::GlobalListeningSettings(true, {}, {}, {}));
    return doc;
}

TEST(TapWorkerStateJSON, GoldenDocumentBothWaysAndRequiredKeys) {
    const json doc = goldenDocument();
    const auto state = doc.get<TapWorkerState>();
    // Spot check where two keys of one type could trade places and still come back the same.
    EXPECT_TRUE(state.followMeBackgroundGain == 0.3 && state.softMasterGain == 0.8);

    // Written back: the same keys and values; the app and the rules carry their own full records.
    json expected = doc;
    expected["app"] = json(state.app);
    expected["duckRules"] = json(state.duckRules);
    EXPECT_EQ(json(state), expected);

    // An absent hero is left out, and reads back as absent.
    json heroless = doc;
    heroless.erase("followMeHero");
    const auto noHero = heroless.get<TapWorkerState>();
    EXPECT_FALSE(noHero.followMeHero.has_value());
    EXPECT_FALSE(json(noHero).contains("followMeHero"));

    for (const char* key : {"app", "sampleRate", "duckRules", "activeDuckTriggers"}) {
        json missing = doc;
        missing.erase(key);
        EXPECT_THROW(missing.get<TapWorkerState>(), ConfigDecodeError) << key;
    }
}

} // namespace
} // namespace tonavi::testing
