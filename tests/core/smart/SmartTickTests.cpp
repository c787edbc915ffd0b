#include "core/smart/AudioOnsetPolicy.hpp"
#include "core/smart/AudioOnsetTrail.hpp"
#include "core/smart/FollowMePolicy.hpp"
#include "core/smart/MicFollowPolicy.hpp"
#include "core/smart/SmartTickPolicy.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tonavi {
namespace {

using Transport = DeviceLiveStatus::Transport;
using Lines = std::vector<std::string>;
constexpr std::uint64_t second = 1'000'000'000;
const std::string spotify = "com.spotify.client", safari = "com.apple.Safari", zoom = "us.zoom.xos",
                  live = "com.ableton.live";

// Drives consecutive passes the way the runtime does, with the clock two seconds on each time.
struct Passes {
    TonaviConfig config;
    SmartTickState state;
    SmartTickInputs inputs;
    std::optional<std::string> front;

    Passes() {
        inputs.frontmost = [this] { return front; };
        inputs.runsAsRegularApp = [](std::string_view) { return false; };
    }
    SmartTickPlan run(BundleIDSet playing, BundleIDSet capturing = {}) {
        inputs.playing = std::move(playing);
        inputs.capturing = std::move(capturing);
        inputs.nowNanos += 2 * second;
        return SmartTickPolicy::plan(state, config, inputs);
    }
};

TEST(SmartTick, AudibleHoldsForTwoAndAHalfSecondsAndForgetsHiddenAppsAtOnce) {
    const std::tuple<std::uint64_t, std::uint64_t, std::vector<std::string>, bool> cases[] = {
        {10 * second, 12 * second + second / 2, {}, true},
        {10 * second, 12 * second + second / 2 + 1, {}, false},
        {10 * second, 10 * second, {"a"}, false},
        {10 * second, 9 * second, {}, false}}; // clock behind
    for (const auto& [seen, now, hidden, audible] : cases) {
        SmartTickState state;
        state.audibleLastSeen["a"] = seen;
        EXPECT_EQ(SmartTickPolicy::stableAudible(state, {}, hidden, now).contains("a"), audible) << now;
        EXPECT_EQ(state.audibleLastSeen.contains("a"), audible); // whatever is not audible is forgotten
    }
}

TEST(SmartTick, EligibilityFilterOrder) {
    TonaviConfig config;
    config.hiddenAppIDs = {"com.apple.Music"};
    config.apps = {AppAudioState("com.example.tool")};
    BundleIDSet asked;
    const auto regular = [&](std::string_view id) {
        asked.emplace(id);
        return id == "com.example.windowed";
    };
    // Known fragments match in any case.
    const BundleIDSet ids{spotify,
                          "COM.Example.FL Studio",
                          "com.rogueamoeba.Loopback",
                          "com.apple.Music",
                          "com.example.tool",
                          "com.example.windowed",
                          "com.example.agent"};
    EXPECT_EQ(SmartTickPolicy::eligible(ids, config, regular),
              (BundleIDSet{spotify, "COM.Example.FL Studio", "com.example.tool", "com.example.windowed"}));
    EXPECT_EQ(asked, (BundleIDSet{"com.example.agent", "com.example.windowed"})); // the last resort only
}

TEST(SmartTick, FollowMeKeepsHeldHeroAndEngagesOnlyWhenItLowersSomething) {
    Passes p;
    p.config.smart.followMe = true;
    p.config.smart.followMeBackgroundPercent = 100;
    p.front = safari;
    auto plan = p.run({spotify, safari});
    EXPECT_EQ(plan.followMe, (SmartTickPlan::FollowMe{safari, 1.0}));
    EXPECT_TRUE(plan.forceEngaged.empty());
    EXPECT_EQ(plan.logLines, (Lines{"tonavi: follow-me sees frontmost com.apple.Safari",
                                    "tonavi: follow-me hero -> com.apple.Safari"}));

    p.config.smart.followMeBackgroundPercent = 20;
    p.front = "com.apple.TextEdit"; // silent app in front: the hero stays
    plan = p.run({spotify, safari});
    EXPECT_EQ(plan.followMe, (SmartTickPlan::FollowMe{safari, 0.2}));
    EXPECT_EQ(plan.forceEngaged, (BundleIDSet{safari, spotify}));
    EXPECT_EQ(plan.logLines, (Lines{"tonavi: follow-me sees frontmost com.apple.TextEdit"}));

    p.config.smart.followMe = false;
    EXPECT_EQ(p.run({spotify, safari}).followMe, (SmartTickPlan::FollowMe{std::nullopt, 1.0}));
    EXPECT_EQ(p.run({spotify, safari}).followMe, std::nullopt); // released once
}

TEST(SmartTick, LeftAloneAndCapturingAppsAreProtectedInTheSamePass) {
    Passes p;
    p.config.smart.followMe = true;
    p.config.smart.leaveAloneBundleIDs = {spotify};
    p.front = spotify;
    auto plan = p.run({spotify, safari, live, zoom}, {zoom});
    EXPECT_EQ(plan.smartProtected, (BundleIDSet{live, spotify, zoom}));
    EXPECT_EQ(plan.followMe, (SmartTickPlan::FollowMe{std::nullopt, 0.0}));
    p.front = safari;
    plan = p.run({spotify, safari, zoom}, {zoom});
    EXPECT_EQ(plan.followMe->hero, safari);
    EXPECT_EQ(plan.forceEngaged, (BundleIDSet{safari})); // never the protected ones
}

TEST(SmartTick, LoudnessGuardFollowsTheOutputAndReleasesOnItsEdge) {
    Passes p;
    p.config.smart.loudnessGuard = true;
    const std::tuple<const char*, Transport, std::optional<SmartTickPlan::LoudnessGuard>, bool, Lines>
        steps[] = {
            {"MacBook Pro Speakers", Transport::builtin, std::nullopt, false, {}},
            {"", Transport::other, std::nullopt, false, {}}, // the default output is not in the snapshot
            {"External Headphones",
             Transport::builtin,
             SmartTickPlan::LoudnessGuard{true, -3},
             true,
             {"tonavi: loudness guard ON, ceiling -3 dBFS on headphones"}},
            {"Buds", Transport::bluetooth, SmartTickPlan::LoudnessGuard{true, -3}, true, {}},
            {"MacBook Pro Speakers", Transport::builtin, SmartTickPlan::LoudnessGuard{false, 0}, false, {}},
            {"MacBook Pro Speakers", Transport::builtin, std::nullopt, false, {}}};
    for (const auto& [name, transport, call, engages, log] : steps) {
        p.inputs.defaultOutputName = name;
        p.inputs.defaultOutputTransport = transport;
        const auto plan = p.run({spotify});
        EXPECT_EQ(plan.loudnessGuard, call) << name;
        EXPECT_EQ(plan.forceEngaged.contains(spotify), engages) << name;
        EXPECT_EQ(plan.logLines, log) << name;
    }
}

TEST(SmartTick, AutoDuckEdgeFollowsTheMicrophoneAndRuleTargetsAreEngaged) {
    Passes p;
    p.config.smart.autoDuck = true;
    AutoDuckRule rule;
    rule.triggerBundleID = safari;
    rule.duckedBundleIDs = {spotify, "x"};
    p.config.duckRules = {rule};
    const std::tuple<BundleIDSet, BundleIDSet, BundleIDSet, BundleIDSet, double, Lines> steps[] = {
        {{zoom}, {zoom}, {}, {}, 0, {"tonavi: auto-duck ON, mic live in us.zoom.xos; easing 0 app(s)"}},
        {{zoom, spotify}, {zoom}, {spotify}, {spotify}, -12, {}},
        {{spotify}, {}, {}, {}, 0, {"tonavi: auto-duck released, mic quiet"}},
        {{spotify, safari}, {}, {}, {spotify}, 0, {}}}; // the rule's target, for the ducker to reach
    for (const auto& [playing, capturing, ducked, engaged, db, log] : steps) {
        p.inputs.nowNanos += 10 * second; // past the hold, so each step stands alone
        const auto plan = p.run(playing, capturing);
        EXPECT_EQ(plan.autoDuckApps, ducked);
        EXPECT_EQ(plan.forceEngaged, engaged);
        EXPECT_EQ(plan.autoDuckDB, db);
        EXPECT_EQ(plan.logLines, log);
    }
    EXPECT_EQ(p.run({spotify, safari}).activeTriggers, (BundleIDSet{safari}));
    p.run({spotify}, {zoom});
    p.config.smart.autoDuck = false;
    const auto off = p.run({spotify}, {zoom});
    EXPECT_EQ(off.logLines, (Lines{"tonavi: auto-duck released (feature off)"}));
    EXPECT_TRUE(off.activeTriggers.empty());
    EXPECT_EQ(p.state.lastAutoDuckCount, 0);
}

TEST(SmartTick, SoftMasterSoloAndManualDuckNeeds) {
    Passes p;
    p.inputs.hasHardwareVolume = false;
    const std::tuple<double, bool, double, BundleIDSet> cases[] = {
        {100, false, 1.0, {}}, {50, false, 0.5, {spotify}}, {100, true, 0.0, {spotify}}};
    for (const auto& [percent, muted, gain, engaged] : cases) {
        p.config.softMasterPercent = percent;
        p.config.softMasterMuted = muted;
        const auto plan = p.run({spotify, live}); // a music tool keeps the direct path
        EXPECT_EQ(plan.softMasterGain, gain);
        EXPECT_EQ(plan.forceEngaged, engaged);
    }
    p.config.softMasterPercent = 100;
    p.config.softMasterMuted = false;
    p.inputs.soloActive = true;
    p.inputs.soloedBundleIDs = {spotify};
    EXPECT_EQ(p.run({spotify, safari}).forceEngaged, (BundleIDSet{safari}));
    p.inputs.soloActive = false;
    p.inputs.manualDuckDB = -6;
    EXPECT_EQ(p.run({spotify, safari}).forceEngaged, (BundleIDSet{safari, spotify}));
}

TEST(SmartTick, MicFollowCandidatesAndStageMode) {
    TonaviConfig config;
    config.smart.micFollow = true;
    config.smart.preferredMicUIDs = {"loop"};
    config.devices.resize(1);
    config.devices[0].id = "hid";
    config.devices[0].hidden = true;
    config.bluetooth = {BluetoothDeviceMemory{"H:output", "", std::nullopt, std::nullopt, 100.0, true, 0}};
    const std::vector<SmartInputDevice> devices{
        {std::nullopt, Transport::usb, 2, {}}, {"speaker", Transport::builtin, 0, {}},
        {"hid", Transport::usb, 1, {}},        {"agg", Transport::aggregate, 2, {}},
        {"loop", Transport::virtual_, 2, {}},  {"H:input", Transport::bluetooth, 1, {}},
        {"mac", Transport::builtin, 1, {}}};
    std::vector<std::string> uids;
    for (const auto& c : SmartTickPolicy::micFollowCandidates(devices, config))
        uids.push_back(c.uid);
    EXPECT_EQ(uids, (std::vector<std::string>{"loop", "H:input", "mac"}));
    EXPECT_EQ(SmartTickPolicy::micFollowPick(config, false, devices), "loop");
    config.smart.preferredMicUIDs.clear();
    EXPECT_EQ(SmartTickPolicy::micFollowPick(config, false, devices), "mac"); // the headset is output-only
    EXPECT_EQ(SmartTickPolicy::micFollowPick(config, true, devices), std::nullopt);
}

using MicFollowPolicy::InputCandidate;
using Opt = std::optional<std::string>;

TEST(FollowMePolicy, HeroIsFrontmostThenHeldWhileAudible) {
    const auto refuse = [](std::string_view id) { return id != "com.blocked"; };
    const std::tuple<Opt, BundleIDSet, Opt, Opt> cases[] = {
        {"com.front", {"com.front", "com.music"}, "com.music", "com.front"},
        {"com.editor", {"com.music"}, "com.music", "com.music"}, // silent app in front keeps the hero
        {"com.blocked", {"com.blocked", "com.music"}, "com.music", "com.music"}, // refused front falls back
        {"com.blocked", {"com.blocked"}, "com.blocked", "com.blocked"},          // the held one is not asked
        {"com.front", {}, "com.music", std::nullopt},                            // nothing audible: none
        {std::nullopt, {"com.music"}, std::nullopt, std::nullopt}};
    for (const auto& [frontmost, audible, held, hero] : cases)
        EXPECT_EQ(FollowMePolicy::hero(frontmost, audible, held, refuse), hero) << frontmost.value_or("-");
}

TEST(MicFollowPolicy, AutomaticAndPreferredFormsOrderTransportsDifferently) {
    const InputCandidate usb{"usb", Transport::usb, {}}, builtin{"mac", Transport::builtin, {}},
        other{"odd", Transport::other, {}}, bt{"H:input", Transport::bluetooth, {}},
        usb2{"usb2", Transport::usb, {}};
    const std::tuple<std::vector<InputCandidate>, BundleIDSet, std::vector<std::string>, Opt, Opt> cases[] = {
        {{builtin, usb}, {}, {}, "usb", "mac"},
        {{}, {}, {"usb"}, std::nullopt, std::nullopt},
        {{builtin, usb, bt}, {}, {}, "H:input", "H:input"},
        {{builtin, usb, bt}, {"H:output"}, {"H:input"}, "usb", "mac"}, // a dropped preference is ignored
        {{builtin, usb, usb2}, {}, {"gone", "usb2", "usb"}, "usb", "usb2"},
        {{other, builtin}, {}, {"odd"}, "mac", "odd"}};
    for (const auto& [inputs, outputOnly, preferred, automatic, preferredPick] : cases) {
        EXPECT_EQ(MicFollowPolicy::pick(inputs, outputOnly), automatic);
        EXPECT_EQ(MicFollowPolicy::pick(inputs, outputOnly, preferred), preferredPick);
    }
}

constexpr double t0 = 1'700'000'000.0;

std::vector<std::string> ids(const std::vector<AudioOnset>& onsets) {
    std::vector<std::string> out;
    for (const auto& onset : onsets)
        out.push_back(onset.id);
    return out;
}

TEST(AudioOnsetPolicy, AgoText) {
    const std::pair<double, const char*> cases[] = {
        {-3, "1s ago"}, {59.6, "60s ago"}, {60, "1m ago"}, {86400, "24h ago"}, {NAN, "1s ago"}};
    for (const auto& [seconds, text] : cases)
        EXPECT_EQ(AudioOnsetPolicy::agoText(seconds), text) << seconds;
}

TEST(AudioOnsetPolicy, TrailKeepsThreeHundredSecondsNewestFirstAndStable) {
    const std::vector<AudioOnset> onsets{{"old", t0 - 301, std::nullopt, {}, {}},
                                         {"edge", t0 - 300, std::nullopt, {}, {}},
                                         {"a", t0 - 5, std::nullopt, {}, {}},
                                         {"b", t0 - 5, std::nullopt, {}, {}},
                                         {"new", t0, std::nullopt, {}, {}}};
    EXPECT_EQ(ids(AudioOnsetPolicy::trail(onsets, t0)), (std::vector<std::string>{"new", "a", "b", "edge"}));
    EXPECT_EQ(AudioOnsetPolicy::newPlaying({"a", "b"}, {"b", "c"}), (BundleIDSet{"c"}));
}

TEST(AudioOnsetTrail, AlertsShareOneEntryAndNameTheAppInFront) {
    AudioOnsetTrail trail;
    int asked = 0;
    std::optional<std::string> front;
    const auto frontmost = [&] {
        ++asked;
        return front;
    };
    EXPECT_EQ(trail.noteSoundOnset("com.app", t0, frontmost), std::nullopt);
    EXPECT_EQ(asked, 0); // only an alert needs the app in front
    EXPECT_EQ(trail.noteSoundOnset("systemsoundserverd", t0 + 1, frontmost),
              "tonavi: macOS alert sound played while unknown was in front");
    front = "com.editor";
    EXPECT_EQ(trail.noteSoundOnset("systemsoundserverd", t0 + 2, frontmost),
              "tonavi: macOS alert sound played while com.editor was in front");
    trail.noteOutputMove("usb-1", "Desk DAC", t0 + 3);
    // Golden: what the status record carries.
    const nlohmann::json shown = trail.currentAudioOnsets({}, t0 + 3);
    EXPECT_EQ(shown, nlohmann::json::parse(R"([
        {"id": "output:usb-1", "startedAt": 1700000003.0, "kind": "output", "label": "Desk DAC"},
        {"id": "alert:macos", "startedAt": 1700000002.0, "kind": "alert", "frontmostAppID": "com.editor",
         "label": "macOS alert sound"},
        {"id": "com.app", "startedAt": 1700000000.0, "kind": "app"}])"));
}

TEST(AudioOnsetTrail, HiddenAppsAreStoredButNotShownAndOldEventsArePruned) {
    AudioOnsetTrail trail;
    trail.recordPlaybackOnsets({"com.old"}, t0, {}); // the first snapshot is a baseline
    trail.recordPlaybackOnsets({"com.old", "com.hidden", "com.shown"}, t0, {});
    const std::vector<std::string> hidden{"com.hidden", "output:x"};
    EXPECT_EQ(ids(trail.currentAudioOnsets(hidden, t0 + 10)), (std::vector<std::string>{"com.shown"}));
    EXPECT_EQ(ids(trail.currentAudioOnsets({}, t0 + 10)),
              (std::vector<std::string>{"com.hidden", "com.shown"}));

    trail.noteOutputMove("x", "X", t0 + 301); // prunes, but 301 s old is kept until 302
    EXPECT_EQ(trail.events().size(), 3u);
    EXPECT_EQ(ids(trail.currentAudioOnsets(hidden, t0 + 301)), (std::vector<std::string>{"output:x"}));
    // Still playing at the next snapshot (paused and resumed in between, maybe): no new onset.
    trail.recordPlaybackOnsets({"com.old", "com.hidden", "com.shown"}, t0 + 302.5, {});
    EXPECT_EQ(ids(trail.currentAudioOnsets({}, t0 + 302.5)), (std::vector<std::string>{"output:x"}));
}

} // namespace
} // namespace tonavi
