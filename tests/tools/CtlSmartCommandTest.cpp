// tonavictl's smart and recent verbs: the words they take, the one switch a line changes, and the
// text they print.

#include "core/wire/TonaviStatus.hpp"
#include "tools/tonavictl/CtlCommand.hpp"
#include "tools/tonavictl/StatusTable.hpp"

#include <gtest/gtest.h>

using namespace tonavi;
using R = TonaviRequest;

namespace {

CtlCommand::Parsed parse(std::vector<std::string> words) {
    return CtlCommand::parse(words);
}

} // namespace

TEST(CtlSmartCommand, EachSwitchChangesOneFieldAndKeepsTheRest) {
    SmartSettings current;
    current.followMe = true;
    current.followMeBackgroundPercent = 30;
    current.leaveAloneBundleIDs = {"com.apple.Safari"};
    struct Case {
        std::vector<std::string> words;
        std::function<void(SmartSettings&)> expected;
    };
    const Case cases[] = {
        {{"smart", "follow-me", "off"}, [](SmartSettings& s) { s.followMe = false; }},
        {{"smart", "guard", "on"}, [](SmartSettings& s) { s.loudnessGuard = true; }},
        {{"smart", "duck", "on"}, [](SmartSettings& s) { s.autoDuck = true; }},
        {{"smart", "mic-follow", "on"}, [](SmartSettings& s) { s.micFollow = true; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.words[1]);
        auto parsed = parse(c.words);
        ASSERT_TRUE(parsed.command) << parsed.error;
        EXPECT_TRUE(parsed.command->needsSmartSettings());
        EXPECT_FALSE(parsed.command->needsStatus());
        EXPECT_FALSE(parsed.command->toRequest(nullptr).request) << "refused without the present settings";
        SmartSettings expected = current;
        c.expected(expected);
        EXPECT_EQ(parsed.command->toRequest(nullptr, nullptr, &current).request,
                  R{R::SetSmartSettings{expected}});
    }
    EXPECT_EQ(parse({"smart"}).command->toRequest(nullptr).request, R{R::Diagnostics{}});
    EXPECT_EQ(parse({"recent"}).command->toRequest(nullptr).request, R{R::Status{}});
    EXPECT_TRUE(parse({"smart", "--json"}).command->json);
    EXPECT_TRUE(parse({"recent", "--json"}).command->json);
    for (const auto& words : std::vector<std::vector<std::string>>{
             {"smart", "duck"}, {"smart", "follow", "on"}, {"smart", "guard", "yes"}, {"recent", "5"}})
        EXPECT_FALSE(parse(words).command) << words.back();
    EXPECT_EQ(parse({"smart", "duck"}).error,
              "smart takes --json, or follow-me, guard, duck or mic-follow, then on or off");
}

TEST(CtlSmartCommand, SmartTableSaysWhatEachAutomationDoesNow) {
    TonaviStatus status;
    DeviceLiveStatus mic;
    mic.id = "mic";
    mic.name = "MacBook Pro Microphone";
    status.devices = {mic};
    status.defaultInputUID = "mic";
    SmartLiveStatus live;
    live.followMeHeroID = "com.apple.Music";
    live.followMeHeroName = "Music";
    live.autoDuckMicNames = {"Zoom"};
    live.autoDuckCount = 2;
    live.autoDuckActive = true;
    status.smartLive = live;
    SmartSettings settings;
    settings.followMe = true;
    settings.followMeBackgroundPercent = 25;
    settings.loudnessGuard = true;
    settings.autoDuck = true;
    settings.micFollow = true;
    EXPECT_EQ(StatusTable::renderSmart(status, settings),
              "  FEATURE     SETTING  NOW\n"
              "  follow-me   on       hero Music; others at 25%\n"
              "  guard       on       idle: the output is not headphones\n"
              "  duck        on       easing 2 app(s) by -12 dB; mic live in Zoom\n"
              "  mic-follow  on       input MacBook Pro Microphone\n");
    settings = SmartSettings{};
    EXPECT_EQ(StatusTable::renderSmart(status, settings), "  FEATURE     SETTING  NOW\n"
                                                          "  follow-me   off      -\n"
                                                          "  guard       off      -\n"
                                                          "  duck        off      -\n"
                                                          "  mic-follow  off      -\n");
}

TEST(CtlSmartCommand, RecentListsTheTrailNewestFirstWithItsAge) {
    TonaviStatus status;
    AppLiveStatus safari;
    safari.id = "com.apple.Safari";
    safari.displayName = "Safari";
    status.apps = {safari};
    const double now = 1'700'000'000.0;
    status.recentOnsets = std::vector<AudioOnset>{
        {"output:USB-HP", now - 125, AudioOnset::Kind::output, std::nullopt, "USB Headphones"},
        {"com.apple.Safari", now - 3.2, AudioOnset::Kind::app, std::nullopt, std::nullopt},
        {"alert:macos", now - 40, AudioOnset::Kind::alert, "com.apple.Safari", "macOS alert sound"},
        {"com.example.Old", now - 301, AudioOnset::Kind::app, std::nullopt, std::nullopt},
    };
    EXPECT_EQ(StatusTable::renderRecent(status, now),
              "  Safari started playing 3s ago\n"
              "  macOS alert sound 40s ago, while Safari was in front\n"
              "  output moved to USB Headphones 2m ago\n");
    status.recentOnsets.reset();
    EXPECT_EQ(StatusTable::renderRecent(status, now),
              "  (nothing has started to sound in the last 5 minutes)\n");
}
