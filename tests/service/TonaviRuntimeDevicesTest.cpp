// Devices and outputs through the runtime's requests, over the simulated machine.

#include "core/outputs/OutputGroupIdentity.hpp"
#include "core/wire/TonaviPayload.hpp"
#include "tests/service/RuntimeTestSupport.hpp"

#include <future>
#include <optional>

namespace tonavi::testing {
namespace {

using R = TonaviRequest;


TEST(OutputSelection, ANewerSelectionSupersedesAnOlderOneWhichRepliesSo) {
    RuntimeHarness h;
    // A Bluetooth route that is still settling when the user changes their mind.
    h.edit([](SimWorld& w) {
        w.deviceByUID(budsOut)->settleReads = 1000;
        return std::string();
    });
    h.startReady();
    const Late first = sendLate(h, R::SetOutputDevice{"Earbuds"});
    const Late second = sendLate(h, R::SetOutputDeviceOrdered{"USB Headphones", "ui", 1});
    ASSERT_TRUE(h.advanceUntil([&] { return arrived(first) && arrived(second); }));

    EXPECT_EQ(std::pair(first.get().ok, first.get().message),
              std::pair(false, std::string("superseded by a newer output selection")));
    ASSERT_TRUE(second.get().ok) << second.get().message;
    EXPECT_EQ(second.get().status->defaultOutputUID, usb);
    EXPECT_EQ(h.machine->world()->defaultOutputUID, usb);
    // The newer choice is remembered as the one preferred output.
    const TonaviConfig live =
        h.runtime->serialQueue().syncResult([&] { return h.runtime->engine().config(); });
    ASSERT_EQ(live.devices.size(), 1u);
    EXPECT_EQ(std::tuple(live.devices[0].id, live.devices[0].preferredRank, live.devices[0].useCount),
              std::tuple(std::string(usb), std::optional<std::int64_t>(0), std::int64_t(1)));
    EXPECT_EQ(h.onDisk().devices[0].preferredRank, 0);

    // The same client's stale generation is refused at once, with nothing switched and no status.
    const TonaviReply stale = sendAndWait(h, R::SetOutputDeviceOrdered{"Earbuds", "ui", 1});
    EXPECT_EQ(std::pair(stale.message, stale.status.has_value()),
              std::pair(std::string("superseded by a newer output selection"), false));
    EXPECT_EQ(h.machine->world()->defaultOutputUID, usb);
}

// The listener and a verified switch both report one change; the output found at start was only
// read, so its first confirmation still does the work, once.
TEST(OutputSelection, TheConfirmedOutputWorkRunsOncePerDeviceStartingOneIncluded) {
    RuntimeHarness h;
    h.startReady();
    const std::string line = "tonavi: confirmed system output  -> " + std::string(speakers);
    EXPECT_EQ(h.timesLogged(line), 1);
    // A tapped app on the right devices whose tap has stopped carrying audio is caught by the settling
    // pass that follows the confirmation.
    ASSERT_TRUE(h.send(R::SetAppVolume{music, 0.5}).ok);
    ASSERT_TRUE(waitUntil([&] { return h.runtime->engine().hasTap(music); }));
    h.provider->source[music] = h.provider->target[music] = speakers;
    h.provider->stale.insert(music);
    h.runtime->serialQueue().sync([&] {
        h.runtime->handleConfirmedDefaultOutput(speakers);
        h.runtime->handleConfirmedDefaultOutput(speakers);
    });
    EXPECT_EQ(h.timesLogged(line), 2);
    h.advance(0.8);
    EXPECT_TRUE(h.logged("tonavi: settling late default-route helpers onto " + std::string(speakers)));
}

// Headphones that come back take the output from the speakers, with the move among the onsets, unless
// the source lock holds the output.
TEST(OutputSelection, ReconnectedHeadphonesTakeTheOutputUnlessTheSourceIsLocked) {
    RuntimeHarness h;
    h.startReady();
    // Unplugged and back, then as many clock steps as the unlocked switch is given to land.
    const std::string switched = "automatically switched output to reconnected device " + std::string(usb);
    auto reconnectAndWait = [&] {
        const int before = h.timesLogged(switched);
        h.edit([](SimWorld& w) { return w.unplug(usb); });
        h.advance(0.1);
        h.edit([](SimWorld& w) { return w.replug(usb); });
        int steps = 0;
        h.advanceUntil([&] { return h.timesLogged(switched) > before || ++steps > 150; });
    };
    reconnectAndWait();
    EXPECT_EQ(h.machine->world()->defaultOutputUID, usb);
    EXPECT_TRUE(h.logged(switched));
    const auto onsets = h.send(R::Status{}).status->recentOnsets.value_or(std::vector<AudioOnset>{});
    EXPECT_TRUE(std::ranges::any_of(onsets, [](const AudioOnset& o) {
        return o.kind == AudioOnset::Kind::output && o.id == "output:" + std::string(usb);
    }));

    const TonaviReply back = sendAndWait(h, R::SetOutputDevice{"MacBook Pro Speakers"});
    ASSERT_TRUE(back.ok) << back.message;
    GlobalLocks locks;
    locks.source = true;
    ASSERT_TRUE(h.send(R::SetLocks{locks}).ok);
    reconnectAndWait();
    EXPECT_EQ(h.machine->world()->defaultOutputUID, speakers);
}

TEST(DeviceRequests, DroppedSwitchesHiddenDevicesAndSavedGroups) {
    RuntimeHarness h;
    h.startReady();
    // The system accepts the write and never acts on it; no preference is learnt from the failure.
    h.machine->failNext(SimOperation::setProperty, 1, noErr, kAudioHardwarePropertyDefaultOutputDevice);
    EXPECT_EQ(sendAndWait(h, R::SetOutputDevice{"USB Headphones"}).message,
              "macOS did not switch to USB Headphones; output remains on MacBook Pro Speakers");
    EXPECT_EQ(h.machine->world()->defaultOutputUID, speakers);
    const TonaviReply blocked = h.send(R::SetDeviceHidden{speakers, true});
    EXPECT_TRUE(!blocked.ok && blocked.message.starts_with("Choose another system output") &&
                blocked.message.ends_with(" device first, then remove this device from Tonavi."))
        << blocked.message;
    EXPECT_TRUE(h.onDisk().devices.empty());
    // The system takes its time to follow: a switch reads the default 200 times for a wired output and
    // 500 for Bluetooth. The one that fails leaves no switch pending behind it.
    h.edit([](SimWorld& w) {
        w.deviceByUID(usb)->settleReads = 350;
        w.deviceByUID(budsOut)->settleReads = 450;
        return std::string();
    });
    EXPECT_FALSE(sendAndWait(h, R::SetOutputDevice{"USB Headphones"}).ok);
    EXPECT_EQ(std::pair(h.machine->world()->defaultOutputUID, h.machine->world()->pendingDefaultOutput.has_value()),
              std::pair(std::string(speakers), false));
    EXPECT_TRUE(sendAndWait(h, R::SetOutputDevice{"Earbuds"}).ok);
    h.edit([](SimWorld& w) {
        w.deviceByUID(usb)->settleReads = w.deviceByUID(budsOut)->settleReads = 0;
        return std::string();
    });
    ASSERT_TRUE(sendAndWait(h, R::SetOutputDevice{"MacBook Pro Speakers"}).ok);
    // A write the system answers "what" is still under way: the switch waits out its window for it.
    h.machine->failNext(SimOperation::setProperty, 1, kAudioHardwareUnspecifiedError,
                        kAudioHardwarePropertyDefaultOutputDevice);
    const Late late = sendLate(h, R::SetOutputDevice{"USB Headphones"});
    ASSERT_TRUE(h.advanceUntil([&] { return h.machine->world()->faults.empty(); })); // the write was made
    EXPECT_FALSE(arrived(late));
    h.edit([](SimWorld& w) { return w.setDefault(SimDefaultRole::output, usb); });
    EXPECT_TRUE(h.advanceUntil([&] { return arrived(late); }));
    EXPECT_TRUE(late.get().ok) << late.get().message;
    const TonaviReply back = sendAndWait(h, R::SetOutputDevice{"MacBook Pro Speakers"});
    ASSERT_TRUE(back.ok) << encodeReply(back).substr(0, 300);

    EXPECT_EQ(h.send(R::SetDeviceHidden{usb, true}).message,
              "Removed from Tonavi. The macOS driver was left installed.");
    EXPECT_EQ(sendAndWait(h, R::SetOutputDevice{"USB Headphones"}).message,
              "no available output device matching USB Headphones");
    EXPECT_EQ(h.machine->world()->defaultOutputUID, speakers);

    EXPECT_EQ(h.send(R::SetDeviceHidden{usb, false}).message, "Device restored to Tonavi.");
    EXPECT_EQ(h.send(R::SetDeviceVolume{"nope", 0.3}).message, "no device with uid nope");
    EXPECT_EQ(h.send(R::SetPreferredOrder{{usb, usb}}).message,
              "Preferred-device order contains duplicates.");
    EXPECT_TRUE(h.send(R::SetDeviceDisplayOrder{{usb, usb}}).ok);

    // A saved group is an output that can be chosen; a refused change keeps the old one.
    OutputGroup group{.id = "desk", .name = "Desk", .members = {{speakers, 1.0, false}, {usb, 1.0, false}}};
    const TonaviReply saved = h.send(R::SaveGroup{group});
    ASSERT_TRUE(saved.ok) << saved.message;
    const std::string uid = OutputGroupIdentity::aggregateDeviceUID(group);
    const auto found = std::ranges::find(saved.status->devices, uid, &DeviceLiveStatus::id);
    ASSERT_NE(found, saved.status->devices.end());
    EXPECT_TRUE(found->isOutput && found->transport == DeviceLiveStatus::Transport::aggregate);
    EXPECT_EQ(h.onDisk().groups.size(), 1u);

    const TonaviReply chosen = sendAndWait(h, R::SetOutputDevice{"Desk"});
    EXPECT_TRUE(chosen.ok) << chosen.message;
    EXPECT_EQ(h.machine->world()->defaultOutputUID, uid);
    // The group has no hardware volume: the software master stands in, and is heard at once, not at
    // the next smart pass.
    ASSERT_TRUE(h.send(R::SetAppVolume{music, 0.8}).ok);
    const auto softMaster = [&] { return h.runtime->engine().tapWorkerState(music).value().softMasterGain; };
    EXPECT_TRUE(h.send(R::SetOutputVolume{0.3}).ok);
    EXPECT_EQ(softMaster(), 0.3);
    EXPECT_TRUE(h.send(R::SetOutputMuted{true}).ok);
    EXPECT_EQ(softMaster(), 0.0);
    EXPECT_TRUE(h.send(R::SetOutputMuted{false}).ok);
    // A member of the group that is the system output carries that route: hiding it is refused, and
    // the group stays.
    DeviceSettings hiddenUSB{.id = usb};
    hiddenUSB.hidden = true;
    EXPECT_EQ(h.send(R::SetDeviceSettings{hiddenUSB}).message,
              "Choose another active output group device first, then remove this device from Tonavi.");
    EXPECT_EQ(h.onDisk().groups.size(), 1u);

    group.members.resize(1);
    const TonaviReply refused = h.send(R::SaveGroup{group}); // one member is no group; the old one stays
    EXPECT_TRUE(!refused.ok && refused.message.starts_with("could not create output group: "))
        << refused.message;
    EXPECT_EQ(h.onDisk().groups[0].members.size(), 2u);

    const TonaviReply listed = h.send(R::ListDevices{});
    ASSERT_TRUE(listed.payload && !listed.status);
    EXPECT_EQ(TonaviPayload::decodeDevices(*listed.payload).size(), 7u);

    // Under the rate lock, a rate set on one of two devices with one clock is the rate both keep: the
    // lock does not set the other's old rate back, and with it undo the change, pass after pass.
    h.edit([](SimWorld& w) {
        w.deviceByUID(speakers)->clock = w.deviceByUID(usb)->clock = "graph";
        return std::string();
    });
    GlobalLocks locks;
    locks.sampleRate = true;
    ASSERT_TRUE(h.send(R::SetLocks{locks}).ok);
    ASSERT_TRUE(h.send(R::SetDeviceSampleRate{usb, 44100.0}).ok);
    for (int pass = 0; pass < 3; ++pass) {
        h.runtime->serialQueue().sync([&] { h.runtime->watchdogPass(); });
        EXPECT_EQ(h.machine->world()->deviceByUID(speakers)->sampleRate, 44100.0) << "pass " << pass;
    }
}

} // namespace
} // namespace tonavi::testing
