#include "core/smart/AudioOnsetPolicy.hpp"
#include "core/smart/AudioOnsetTrail.hpp"
#include "core/smart/FollowMePolicy.hpp"
#include "core/smart/LoudnessGuardPolicy.hpp"
#include "core/smart/MicFollowPolicy.hpp"
#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

namespace tonavi {
namespace {

using Transport = DeviceLiveStatus::Transport;
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

TEST(LoudnessGuardPolicy, ProtectsBluetoothAndEarWordsOnly) {
    const std::tuple<Transport, const char*, bool> cases[] = {{Transport::usb, "JBL Speaker", false},
                                                              {Transport::bluetooth, "JBL Speaker", true},
                                                              {Transport::builtin, "External HEADSET", true}};
    for (const auto& [transport, name, protectedOutput] : cases)
        EXPECT_EQ(LoudnessGuardPolicy::isProtectedOutput(transport, name), protectedOutput) << name;
}

TEST(MicFollowPolicy, FilterDropsOutputOnlyHeadsetMicrophones) {
    const std::vector<InputCandidate> inputs{
        {"X:input", Transport::bluetooth, {}},
        {"X:output", Transport::usb, {}}, // not Bluetooth: only an exact UID drops it
        {"Y:input", Transport::usb, {}},
        {"Z", Transport::bluetooth, {"X:output"}}, // related to the output-only headset
        {"W", Transport::builtin, {"X:output"}}};
    const std::tuple<BundleIDSet, std::vector<std::string>> cases[] = {
        {{"X:output"}, {"Y:input", "W"}},
        {{"Y:output"}, {"X:input", "X:output", "Y:input", "Z", "W"}},
        {{"Y:input"}, {"X:input", "X:output", "Z", "W"}}};
    for (const auto& [outputOnly, expected] : cases) {
        std::vector<std::string> kept;
        for (const auto& candidate : MicFollowPolicy::filtered(inputs, outputOnly))
            kept.push_back(candidate.uid);
        EXPECT_EQ(kept, expected) << *outputOnly.begin();
    }
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
    const std::pair<double, const char*> cases[] = {{0.4, "1s ago"},    {-3, "1s ago"}, {1.5, "2s ago"},
                                                    {59.6, "60s ago"},  {60, "1m ago"}, {3599, "59m ago"},
                                                    {86400, "24h ago"}, {NAN, "1s ago"}};
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
