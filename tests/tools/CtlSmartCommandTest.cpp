// tonavictl's smart and recent verbs: the words they take, the one switch a line changes, and the
// text they print.

#include "tests/tools/SampleStatus.hpp"
#include "tools/tonavictl/CtlCommand.hpp"
#include "tools/tonavictl/StatusTable.hpp"

#include <gtest/gtest.h>

using namespace tonavi;
using R = TonaviRequest;
using Words = std::vector<std::string>;

TEST(CtlSmartCommand, EachSwitchChangesOneFieldAndKeepsTheRest) {
    const SmartSettings current{
        .followMe = true, .followMeBackgroundPercent = 30, .leaveAloneBundleIDs = {"com.apple.Safari"}};
    const std::tuple<Words, bool SmartSettings::*, bool> cases[] = {
        {{"smart", "follow-me", "off"}, &SmartSettings::followMe, false},
        {{"smart", "guard", "on"}, &SmartSettings::loudnessGuard, true},
        {{"smart", "duck", "on"}, &SmartSettings::autoDuck, true},
        {{"smart", "mic-follow", "on"}, &SmartSettings::micFollow, true},
    };
    for (const auto& [words, field, value] : cases) {
        SCOPED_TRACE(words[1]);
        auto parsed = CtlCommand::parse(words);
        ASSERT_TRUE(parsed.command) << parsed.error;
        EXPECT_TRUE(parsed.command->needsSmartSettings() && !parsed.command->needsStatus());
        EXPECT_FALSE(parsed.command->toRequest(nullptr).request) << "refused without the present settings";
        SmartSettings expected = current;
        expected.*field = value;
        EXPECT_EQ(parsed.command->toRequest(nullptr, nullptr, &current).request,
                  R{R::SetSmartSettings{expected}});
    }
    EXPECT_EQ(CtlCommand::parse(Words{"smart"}).command->toRequest(nullptr).request, R{R::Diagnostics{}});
    EXPECT_EQ(CtlCommand::parse(Words{"recent"}).command->toRequest(nullptr).request, R{R::Status{}});
    EXPECT_TRUE(CtlCommand::parse(Words{"smart", "--json"}).command->json);
    EXPECT_TRUE(CtlCommand::parse(Words{"recent", "--json"}).command->json);
    for (const auto& words :
         std::vector<Words>{{"smart", "follow", "on"}, {"smart", "guard", "yes"}, {"recent", "5"}})
        EXPECT_FALSE(CtlCommand::parse(words).command) << words.back();
    EXPECT_EQ(CtlCommand::parse(Words{"smart", "duck"}).error,
              "smart takes --json, or follow-me, guard, duck or mic-follow, then on or off");
}

TEST(CtlSmartCommand, SmartTableSaysWhatEachAutomationDoesNow) {
    TonaviStatus status = tonavi::testing::sampleStatus(); // its default input is the MacBook Pro Microphone
    status.smartLive = SmartLiveStatus{.followMeHeroID = "com.apple.Music",
                                       .followMeHeroName = "Music",
                                       .autoDuckActive = true,
                                       .autoDuckMicNames = {"Zoom"},
                                       .autoDuckCount = 2};
    const SmartSettings on{.followMe = true,
                           .followMeBackgroundPercent = 25,
                           .loudnessGuard = true,
                           .autoDuck = true,
                           .micFollow = true};
    EXPECT_EQ(StatusTable::renderSmart(status, on),
              "  FEATURE     SETTING  NOW\n"
              "  follow-me   on       hero Music; others at 25%\n"
              "  guard       on       idle: the output is not headphones\n"
              "  duck        on       easing 2 app(s) by -12 dB; mic live in Zoom\n"
              "  mic-follow  on       input MacBook Pro Microphone\n");
    EXPECT_EQ(StatusTable::renderSmart(status, SmartSettings{}),
              "  FEATURE     SETTING  NOW\n  follow-me   off      -\n  guard       off      -\n"
              "  duck        off      -\n  mic-follow  off      -\n");
}

TEST(CtlSmartCommand, RecentListsTheTrailNewestFirstWithItsAge) {
    TonaviStatus status = tonavi::testing::sampleStatus();
    const double now = 1'700'000'000.0;
    using K = AudioOnset::Kind;
    status.recentOnsets = std::vector<AudioOnset>{
        {"output:USB-HP", now - 125, K::output, std::nullopt, "USB Headphones"},
        {"com.apple.Safari", now - 3.2, K::app, std::nullopt, std::nullopt},
        {"alert:macos", now - 40, K::alert, "com.apple.Safari", "macOS alert sound"},
        {"com.example.Old", now - 301, K::app, std::nullopt, std::nullopt},
    };
    EXPECT_EQ(StatusTable::renderRecent(status, now),
              "  Safari started playing 3s ago\n"
              "  macOS alert sound 40s ago, while Safari was in front\n"
              "  output moved to USB Headphones 2m ago\n");
    status.recentOnsets.reset();
    EXPECT_EQ(StatusTable::renderRecent(status, now),
              "  (nothing has started to sound in the last 5 minutes)\n");
}
