#include "core/smart/FollowMePolicy.hpp"
#include "core/smart/LoudnessGuardPolicy.hpp"
#include "core/smart/MicFollowPolicy.hpp"

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
    const std::tuple<Transport, const char*, bool> cases[] = {
        {Transport::usb, "Studio Headphones", true},    {Transport::usb, "JBL Speaker", false},
        {Transport::bluetooth, "JBL Speaker", true},    {Transport::builtin, "Bose Home", false},
        {Transport::builtin, "External HEADSET", true}, {Transport::usb, "AirPods Max", true}};
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
        {{"Y:input"}, {"X:input", "X:output", "Z", "W"}},
        {{""}, {"X:input", "X:output", "Y:input", "Z", "W"}}};
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
        {{other}, {}, {}, "odd", std::nullopt},
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

} // namespace
} // namespace tonavi
