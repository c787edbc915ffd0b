// The text of `tonavictl status`, against a golden rendering.

#include "tools/tonavictl/StatusTable.hpp"
#include "tests/tools/SampleStatus.hpp"

#include <gtest/gtest.h>

#include <cmath>

using namespace tonavi;

TEST(StatusTable, RendersSummaryAppsDevicesNewestHealthEventsLocksAndEmptyTables) {
    TonaviStatus status = tonavi::testing::sampleStatus();
    status.outputVolume = 0.75;
    status.outputVolumeIsSoft = true;
    status.sampleRate = 48000;
    status.engagedCount = 2;
    status.anyEngaged = true;
    status.soloAppIDs = std::vector<std::string>{"com.apple.Music", "com.example.Gone"};
    for (int i = 1; i <= 4; ++i)
        status.health.push_back(
            HealthEvent{"E", 1000.0 + i, "tapFailed", "event " + std::to_string(i)});

    EXPECT_EQ(StatusTable::render(status),
              "output MacBook Pro Speakers | volume 75% (software) | 48000 Hz | 2 engaged | solo Music, com.example.Gone\n"
              "\nApplications\n"
              "  NAME    ID                VOLUME  MUTED  ENGAGED  LEVEL       OUTPUT     ISSUES\n"
              "  Music   com.apple.Music   50% x2  no     yes      ####......  Desk cans\n"
              "  Safari  com.apple.Safari  100%    yes    yes      ##########  default    Audio control could not "
              "attach. Sound is on the direct path; Tonavi is retrying.\n"
              "  Mäil    com.apple.mail    100%    no     locked   -           default\n"
              "\nDevices\n"
              "  NAME                        UID                                   TRANSPORT  IO   DEFAULT         VOLUME  MUTED\n"
              "  MacBook Pro Speakers        BuiltIn                               builtin    out  output, alerts  50%     no\n"
              "  Desk cans (USB Headphones)  USB-HP                                usb        out                  -       yes\n"
              "  MacBook Pro Microphone      Mic                                   builtin    in   input           -       no\n"
              "  Living                      com.brelmoor.tonavi.output-group.g-1  aggregate  out                  -       no\n"
              "\nRecent health events\n"
              "  tapFailed: event 2\n  tapFailed: event 3\n  tapFailed: event 4\n");

    // The devices table marks defaults, hidden devices and the locks that hold them.
    const GlobalLocks locks{.volume = true, .sampleRate = true};
    EXPECT_EQ(StatusTable::renderDevices(tonavi::testing::sampleStatus(), locks),
              "  NAME                        TRANSPORT  DEFAULT         VOLUME  MUTED  HIDDEN  LOCKS\n"
              "  MacBook Pro Speakers        builtin    output, alerts  50%     no     no      volume, rate\n"
              "  Desk cans (USB Headphones)  usb                        -       yes    yes     rate\n"
              "  MacBook Pro Microphone      builtin    input           -       no     no      rate\n"
              "  Living                      aggregate                  -       no     no      rate\n");
    EXPECT_EQ(StatusTable::outputLine(tonavi::testing::sampleStatus()), "output is on MacBook Pro Speakers");
    EXPECT_EQ(StatusTable::renderDevices(TonaviStatus{}, locks), "  (no devices)\n");
    // An empty status says so; the meter rounds down.
    EXPECT_EQ(StatusTable::render(TonaviStatus{.sampleRate = 48000}),
              "output none | volume 0% | 48000 Hz | 0 engaged\n\nApplications\n  (none)\n"
              "\nDevices\n  (none)\n");
    const std::pair<double, const char*> bars[] = {
        {0.19, "#........."}, {0.2, "##........"}, {-1, ".........."}, {std::nan(""), ".........."}};
    for (const auto& [level, bar] : bars)
        EXPECT_EQ(StatusTable::levelBar(level), bar) << level;
}
