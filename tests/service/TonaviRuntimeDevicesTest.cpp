// Devices and outputs through the runtime's requests, over the simulated machine.

#include "core/outputs/OutputGroupIdentity.hpp"
#include "core/wire/TonaviPayload.hpp"
#include "tests/service/RuntimeTestSupport.hpp"

#include <mutex>
#include <optional>

namespace tonavi::testing {
namespace {

using R = TonaviRequest;
constexpr const char* speakers = "BuiltInSpeakerDevice";
constexpr const char* usb = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
constexpr const char* buds = "AC-DE-48-00-11-22:output";

// A reply that arrives later, on the runtime's queue.
struct LateReply {
    std::mutex lock;
    std::optional<TonaviReply> reply;
    std::function<void(TonaviReply)> sink() {
        return [this](TonaviReply r) {
            std::lock_guard guard(lock);
            reply = std::move(r);
        };
    }
    bool arrived() {
        std::lock_guard guard(lock);
        return reply.has_value();
    }
};

// Moves the manual clock in poll-sized steps until `done`. The polls hop through a hardware queue
// between steps, so the bound is real time, not clock time.
bool advanceUntil(RuntimeHarness& h, const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        h.advance(0.02);
        std::this_thread::yield();
    }
    return true;
}

std::string defaultOutput(RuntimeHarness& h) {
    return h.machine->world()->defaultOutputUID;
}

TEST(OutputSelection, ANewerSelectionSupersedesAnOlderOneWhichRepliesSo) {
    RuntimeHarness h;
    // A Bluetooth route that is still settling when the user changes their mind.
    h.machine->mutate([](SimWorld& w) {
        for (auto& d : w.devices)
            if (d.uid == buds)
                d.settleReads = 1000;
        return std::string();
    });
    h.startReady();
    LateReply first, second;
    h.runtime->handleAsync(TonaviRequest{R::SetOutputDevice{"Earbuds"}}, first.sink());
    h.runtime->handleAsync(TonaviRequest{R::SetOutputDeviceOrdered{"USB Headphones", "ui", 1}},
                           second.sink());
    ASSERT_TRUE(advanceUntil(h, [&] { return first.arrived() && second.arrived(); }));

    EXPECT_FALSE(first.reply->ok);
    EXPECT_EQ(first.reply->message, "superseded by a newer output selection");
    EXPECT_TRUE(second.reply->ok) << second.reply->message;
    EXPECT_EQ(second.reply->status->defaultOutputUID, usb);
    EXPECT_EQ(defaultOutput(h), usb);
    // The newer choice is remembered as the one preferred output.
    const TonaviConfig live =
        h.runtime->serialQueue().syncResult([&] { return h.runtime->engine().config(); });
    ASSERT_EQ(live.devices.size(), 1u);
    EXPECT_EQ(live.devices[0].id, usb);
    EXPECT_EQ(live.devices[0].preferredRank, 0);
    EXPECT_EQ(live.devices[0].useCount, 1);
    EXPECT_EQ(h.onDisk().devices[0].preferredRank, 0);

    // The same client's stale generation is refused at once, with nothing switched.
    LateReply stale;
    h.runtime->handleAsync(TonaviRequest{R::SetOutputDeviceOrdered{"Earbuds", "ui", 1}}, stale.sink());
    ASSERT_TRUE(advanceUntil(h, [&] { return stale.arrived(); }));
    EXPECT_EQ(stale.reply->message, "superseded by a newer output selection");
    EXPECT_EQ(defaultOutput(h), usb);
}

TEST(OutputSelection, ADroppedWriteFailsNamingTheOutputThatStayed) {
    RuntimeHarness h;
    h.startReady();
    // The system accepts the write and never acts on it.
    h.machine->failNext(SimOperation::setProperty, 1, noErr, kAudioHardwarePropertyDefaultOutputDevice);
    LateReply reply;
    h.runtime->handleAsync(TonaviRequest{R::SetOutputDevice{"USB Headphones"}}, reply.sink());
    ASSERT_TRUE(advanceUntil(h, [&] { return reply.arrived(); }));
    EXPECT_FALSE(reply.reply->ok);
    EXPECT_EQ(reply.reply->message,
              "macOS did not switch to USB Headphones; output remains on MacBook Pro Speakers");
    EXPECT_EQ(defaultOutput(h), speakers);
    EXPECT_TRUE(h.onDisk().devices.empty()); // no preference learnt from a failure
}

TEST(OutputSelection, HeadphonesThatArriveTakeTheOutputWithoutBecomingThePreference) {
    RuntimeHarness h;
    h.startReady();
    h.machine->mutate([](SimWorld& w) {
        SimDevice phones;
        phones.id = w.allocateID();
        phones.uid = "11-22-33-44-55-66:output";
        phones.name = "Studio Headphones";
        phones.transport = kAudioDeviceTransportTypeBluetooth;
        phones.outputStreams = {2};
        w.devices.push_back(phones);
        return std::string();
    });
    ASSERT_TRUE(advanceUntil(h, [&] { return defaultOutput(h) == "11-22-33-44-55-66:output"; }))
        << readText(h.folder.path() / "service.log");
    EXPECT_TRUE(waitUntil([&] {
        return readText(h.folder.path() / "service.log")
                   .find("tonavi: automatically switched output to reconnected device "
                         "11-22-33-44-55-66:output") != std::string::npos;
    }));
    const TonaviConfig live =
        h.runtime->serialQueue().syncResult([&] { return h.runtime->engine().config(); });
    for (const auto& d : live.devices)
        EXPECT_FALSE(d.preferredRank.has_value()) << d.id;
}

TEST(DeviceRequests, HiddenDevicesAreRefusedAndTheDefaultCannotBeHidden) {
    RuntimeHarness h;
    h.startReady();
    const TonaviReply blocked = h.send(R::SetDeviceHidden{speakers, true});
    EXPECT_FALSE(blocked.ok);
    EXPECT_EQ(blocked.message.rfind("Choose another system output", 0), 0u) << blocked.message;
    EXPECT_NE(blocked.message.find(" device first, then remove this device from Tonavi."), std::string::npos);
    EXPECT_TRUE(h.onDisk().devices.empty());

    const TonaviReply hidden = h.send(R::SetDeviceHidden{usb, true});
    ASSERT_TRUE(hidden.ok);
    EXPECT_EQ(hidden.message, "Removed from Tonavi. The macOS driver was left installed.");
    LateReply choose;
    h.runtime->handleAsync(TonaviRequest{R::SetOutputDevice{"USB Headphones"}}, choose.sink());
    ASSERT_TRUE(advanceUntil(h, [&] { return choose.arrived(); }));
    EXPECT_EQ(choose.reply->message, "no available output device matching USB Headphones");
    EXPECT_EQ(defaultOutput(h), speakers);

    EXPECT_EQ(h.send(R::SetDeviceHidden{usb, false}).message, "Device restored to Tonavi.");
    EXPECT_EQ(h.send(R::SetDeviceVolume{"nope", 0.3}).message, "no device with uid nope");
    EXPECT_EQ(h.send(R::SetPreferredOrder{{usb, usb}}).message,
              "Preferred-device order contains duplicates.");
    EXPECT_TRUE(h.send(R::SetDeviceDisplayOrder{{usb, usb}}).ok);
}

TEST(DeviceRequests, ASavedGroupIsAnOutputThatCanBeChosenAndDeleted) {
    RuntimeHarness h;
    h.startReady();
    OutputGroup group;
    group.id = "desk";
    group.name = "Desk";
    group.members = {{speakers, 1.0, false}, {usb, 1.0, false}};
    const TonaviReply saved = h.send(R::SaveGroup{group});
    ASSERT_TRUE(saved.ok) << saved.message;
    const std::string uid = OutputGroupIdentity::aggregateDeviceUID(group);
    const auto& devices = saved.status->devices;
    const auto found =
        std::find_if(devices.begin(), devices.end(), [&](const auto& d) { return d.id == uid; });
    ASSERT_NE(found, devices.end());
    EXPECT_TRUE(found->isOutput);
    EXPECT_EQ(found->transport, DeviceLiveStatus::Transport::aggregate);
    EXPECT_EQ(h.onDisk().groups.size(), 1u);

    LateReply choose;
    h.runtime->handleAsync(TonaviRequest{R::SetOutputDevice{"Desk"}}, choose.sink());
    ASSERT_TRUE(advanceUntil(h, [&] { return choose.arrived(); }));
    EXPECT_TRUE(choose.reply->ok) << choose.reply->message;
    EXPECT_EQ(defaultOutput(h), uid);

    group.members.resize(1);
    const TonaviReply refused = h.send(R::SaveGroup{group}); // one member is no group; the old one stays
    EXPECT_FALSE(refused.ok);
    EXPECT_EQ(refused.message.rfind("could not create output group: ", 0), 0u) << refused.message;
    EXPECT_EQ(h.onDisk().groups[0].members.size(), 2u);

    const TonaviReply listed = h.send(R::ListDevices{});
    ASSERT_TRUE(listed.payload);
    EXPECT_FALSE(listed.status);
    EXPECT_EQ(TonaviPayload::decodeDevices(*listed.payload).size(), 7u);
}

} // namespace
} // namespace tonavi::testing
