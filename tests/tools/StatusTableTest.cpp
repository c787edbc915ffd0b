// The text of `tonavictl status`, against a golden rendering.

#include "core/wire/TonaviStatus.hpp"
#include "tools/tonavictl/StatusTable.hpp"

#include <gtest/gtest.h>

#include <cmath>

using namespace tonavi;

namespace {

AppLiveStatus app(std::string id, std::string name, double volume) {
    AppLiveStatus a;
    a.id = std::move(id);
    a.displayName = std::move(name);
    a.volume = volume;
    a.boost = 1;
    return a;
}

DeviceLiveStatus device(std::string id, std::string name, DeviceLiveStatus::Transport transport) {
    DeviceLiveStatus d;
    d.id = std::move(id);
    d.name = std::move(name);
    d.transport = transport;
    d.isOutput = true;
    d.hasVolume = true;
    d.volume = 0.5;
    return d;
}

} // namespace

TEST(StatusTable, RendersSummaryAppsDevicesAndNewestHealthEvents) {
    TonaviStatus status;
    status.defaultOutputUID = "BuiltInSpeakerDevice";
    status.defaultInputUID = "BuiltInMicrophoneDevice";
    status.soundEffectsUID = "BuiltInSpeakerDevice";
    status.outputVolume = 0.75;
    status.outputVolumeIsSoft = true;
    status.sampleRate = 48000;
    status.engagedCount = 2;
    status.anyEngaged = true;
    status.soloAppIDs = std::vector<std::string>{"com.apple.Music", "com.example.Gone"};

    auto music = app("com.apple.Music", "Music", 0.5);
    music.engaged = true;
    music.level = 0.42f;
    music.boost = 2;
    music.redirectUID = "HP";
    auto safari = app("com.apple.Safari", "Safari", 1);
    safari.muted = true;
    safari.engaged = true;
    safari.level = 1.5f; // beyond the meter's scale: a full bar, not an overflow
    safari.controlIssue = "Audio control could not attach. Sound is on the direct path; Tonavi is retrying.";
    auto mail = app("com.apple.mail", "Mäil", 1);
    mail.directLocked = true;
    status.apps = {music, safari, mail};

    auto speakers = device("BuiltInSpeakerDevice", "MacBook Pro Speakers", DeviceLiveStatus::Transport::builtin);
    speakers.isDefaultOutput = true;
    auto headphones = device("HP", "USB Headphones", DeviceLiveStatus::Transport::usb);
    headphones.nickname = "Desk";
    headphones.muted = true;
    auto mic = device("BuiltInMicrophoneDevice", "MacBook Pro Microphone", DeviceLiveStatus::Transport::builtin);
    mic.isOutput = false;
    mic.isInput = true;
    mic.isDefaultInput = true;
    mic.hasVolume = false;
    status.devices = {speakers, headphones, mic};

    for (int i = 1; i <= 4; ++i)
        status.health.push_back(HealthEvent{"E" + std::to_string(i), 1000.0 + i, "tapFailed", "event " + std::to_string(i)});

    const std::string expected =
        "output MacBook Pro Speakers | volume 75% (software) | 48000 Hz | 2 engaged | solo Music, com.example.Gone\n"
        "\n"
        "Applications\n"
        "  NAME    ID                VOLUME  MUTED  ENGAGED  LEVEL       OUTPUT   ISSUES\n"
        "  Music   com.apple.Music   50% x2  no     yes      ####......  Desk\n"
        "  Safari  com.apple.Safari  100%    yes    yes      ##########  default  Audio control could not attach. "
        "Sound is on the direct path; Tonavi is retrying.\n"
        "  Mäil    com.apple.mail    100%    no     locked   -           default\n"
        "\n"
        "Devices\n"
        "  NAME                    UID                      TRANSPORT  IO   DEFAULT         VOLUME  MUTED\n"
        "  MacBook Pro Speakers    BuiltInSpeakerDevice     builtin    out  output, alerts  50%     no\n"
        "  Desk (USB Headphones)   HP                       usb        out                  50%     yes\n"
        "  MacBook Pro Microphone  BuiltInMicrophoneDevice  builtin    in   input           -       no\n"
        "\n"
        "Recent health events\n"
        "  tapFailed: event 2\n"
        "  tapFailed: event 3\n"
        "  tapFailed: event 4\n";
    EXPECT_EQ(StatusTable::render(status), expected);
}

TEST(StatusTable, EmptyStatusSaysSoAndTheMeterRoundsDown) {
    TonaviStatus status;
    status.sampleRate = 48000;
    EXPECT_EQ(StatusTable::render(status), "output none | volume 0% | 48000 Hz | 0 engaged\n"
                                           "\n"
                                           "Applications\n"
                                           "  (none)\n"
                                           "\n"
                                           "Devices\n"
                                           "  (none)\n");
    EXPECT_EQ(StatusTable::levelBar(0.0), "..........");
    EXPECT_EQ(StatusTable::levelBar(0.19), "#.........");
    EXPECT_EQ(StatusTable::levelBar(0.2), "##........");
    EXPECT_EQ(StatusTable::levelBar(-1), "..........");
    EXPECT_EQ(StatusTable::levelBar(std::nan("")), "..........");
}
