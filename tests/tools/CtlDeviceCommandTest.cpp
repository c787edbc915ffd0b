// tonavictl's device verbs: the words refused, the request each line becomes, and the devices table.

#include "core/outputs/OutputGroupIdentity.hpp"
#include "core/wire/TonaviStatus.hpp"
#include "tools/tonavictl/CtlCommand.hpp"
#include "tools/tonavictl/StatusTable.hpp"

#include <gtest/gtest.h>

using namespace tonavi;
using R = TonaviRequest;

namespace {

TonaviStatus deviceStatus() {
    TonaviStatus status;
    DeviceLiveStatus speakers;
    speakers.id = "BuiltIn";
    speakers.name = "MacBook Pro Speakers";
    speakers.transport = DeviceLiveStatus::Transport::builtin;
    speakers.isOutput = speakers.isDefaultOutput = speakers.hasVolume = true;
    speakers.volume = 0.5;
    DeviceLiveStatus headphones;
    headphones.id = "USB-HP";
    headphones.name = "USB Headphones";
    headphones.nickname = "Desk cans";
    headphones.transport = DeviceLiveStatus::Transport::usb;
    headphones.isOutput = headphones.muted = true;
    headphones.hidden = true;
    DeviceLiveStatus mic;
    mic.id = "Mic";
    mic.name = "MacBook Pro Microphone";
    mic.transport = DeviceLiveStatus::Transport::builtin;
    mic.isInput = mic.isDefaultInput = true;
    DeviceLiveStatus group;
    group.id = std::string(OutputGroupIdentity::aggregateUIDPrefix) + "g-1";
    group.name = "Living";
    group.transport = DeviceLiveStatus::Transport::aggregate;
    group.isOutput = true;
    status.devices = {speakers, headphones, mic, group};
    status.defaultOutputUID = "BuiltIn";
    status.soundEffectsUID = "BuiltIn";
    return status;
}

} // namespace

TEST(CtlDeviceCommand, DeviceLinesBecomeTheirRequestsWithNamesResolved) {
    struct Case {
        std::vector<std::string> words;
        TonaviRequest request;
    };
    GlobalLocks locks;
    locks.mute = true;
    GlobalLocks volumeToo = locks;
    volumeToo.volume = true;
    GlobalLocks muteOff;
    const Case cases[] = {
        {{"devices"}, R{R::ListDevices{}}},
        {{"output", "desk cans"}, R{R::SetOutputDevice{"USB-HP"}}},
        {{"output", "Living"},
         R{R::SetOutputDevice{std::string(OutputGroupIdentity::aggregateUIDPrefix) + "g-1"}}},
        {{"device-volume", "usb headphones", "40%"}, R{R::SetDeviceVolume{"USB-HP", 0.4}}},
        {{"device-mute", "macbook pro microphone"}, R{R::SetDeviceMuted{"Mic", true}}},
        {{"device-unmute", "BuiltIn"}, R{R::SetDeviceMuted{"BuiltIn", false}}},
        {{"hide", "USB-HP"}, R{R::SetDeviceHidden{"USB-HP", true}}},
        {{"show", "Gone-Device-UID"}, R{R::SetDeviceHidden{"Gone-Device-UID", false}}},
        {{"prefer", "USB Headphones", "BuiltIn"}, R{R::SetPreferredOrder{{"USB-HP", "BuiltIn"}}}},
        {{"lock", "volume", "on"}, R{R::SetLocks{volumeToo}}},
        {{"lock", "mute", "off"}, R{R::SetLocks{muteOff}}},
        {{"group", "delete", "living"}, R{R::DeleteGroup{"g-1"}}},
    };
    const auto status = deviceStatus();
    for (const auto& c : cases) {
        const auto parsed = CtlCommand::parse(c.words);
        ASSERT_TRUE(parsed.command) << parsed.error;
        const auto built = parsed.command->toRequest(&status, &locks);
        ASSERT_TRUE(built.request) << c.words.front() << ": " << built.error;
        EXPECT_EQ(*built.request, c.request) << c.words.front() << " " << c.words.back();
    }

    // A group gets a fresh identifier and its members in the order given.
    const auto built =
        CtlCommand::parse(std::vector<std::string>{"group", "create", "Desk", "BuiltIn", "desk cans"})
            .command->toRequest(&status);
    const auto& saved = std::get<R::SaveGroup>(built.request->value)._0;
    EXPECT_EQ(saved.name, "Desk");
    EXPECT_FALSE(saved.id.empty());
    ASSERT_EQ(saved.members.size(), 2u);
    EXPECT_EQ(saved.members[1].id, "USB-HP");
}

TEST(CtlDeviceCommand, WrongDeviceWordsAreRefusedBeforeAnythingIsSent) {
    struct Case {
        std::vector<std::string> words;
        const char* error;
    };
    const Case cases[] = {
        {{"output"}, "output takes one device (tonavictl help)"},
        {{"device-volume", "USB", "2"}, "device volume \"2\" is not a level; give 0...1 or 0%...100%"},
        {{"prefer"}, "prefer takes one or more devices, most preferred first (tonavictl help)"},
        {{"lock", "balance", "on"}, "lock takes volume, mute or rate, then on or off"},
        {{"lock", "rate", "maybe"}, "lock takes volume, mute or rate, then on or off"},
        {{"group", "create", "Desk", "BuiltIn"}, "group takes create NAME DEVICE DEVICE... or delete NAME"},
        {{"devices", "--all"}, "devices takes no arguments"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(CtlCommand::parse(c.words).error, c.error) << c.words.front();

    const auto status = deviceStatus();
    // Only outputs can be the output; an input named there is no match.
    EXPECT_EQ(CtlCommand::parse(std::vector<std::string>{"output", "MacBook Pro Microphone"})
                  .command->toRequest(&status)
                  .error,
              "no output device matches \"MacBook Pro Microphone\" (tonavictl status lists them)");
    EXPECT_TRUE(CtlCommand::parse(std::vector<std::string>{"lock", "rate", "on"}).command->needsLocks());
    EXPECT_EQ(
        CtlCommand::parse(std::vector<std::string>{"lock", "rate", "on"}).command->toRequest(&status).error,
        "no locks to change");
}

TEST(StatusTable, DevicesTableMarksDefaultsHiddenDevicesAndTheLocksThatHoldThem) {
    GlobalLocks locks;
    locks.volume = true;
    locks.sampleRate = true;
    EXPECT_EQ(StatusTable::renderDevices(deviceStatus(), locks),
              "  NAME                        TRANSPORT  DEFAULT         VOLUME  MUTED  HIDDEN  LOCKS\n"
              "  MacBook Pro Speakers        builtin    output, alerts  50%     no     no      volume, rate\n"
              "  Desk cans (USB Headphones)  usb                        -       yes    yes     rate\n"
              "  MacBook Pro Microphone      builtin    input           -       no     no      rate\n"
              "  Living                      aggregate                  -       no     no      rate\n");
    EXPECT_EQ(StatusTable::outputLine(deviceStatus()), "output is on MacBook Pro Speakers");
    EXPECT_EQ(StatusTable::renderDevices(TonaviStatus{}, locks), "  (no devices)\n");
}
