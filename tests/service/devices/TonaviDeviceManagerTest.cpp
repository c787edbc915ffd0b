#include "tests/service/devices/DeviceTestSupport.hpp"

#include <algorithm>

#include "core/outputs/VerifiedOutputSwitch.hpp"

namespace tonavi::testing {
namespace {

using namespace std::chrono_literals;
using Transport = DeviceLiveStatus::Transport;

constexpr const char* speakers = "BuiltInSpeakerDevice";
constexpr const char* usb = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
constexpr const char* buds = "AC-DE-48-00-11-22:output";

const TonaviDeviceManager::BluetoothInfo noBluetooth = [](const std::string&) {
    return TonaviDeviceManager::BluetoothDetails{};
};

std::vector<std::string> outputIDs(const std::vector<DeviceLiveStatus>& list) {
    std::vector<std::string> ids;
    for (const auto& s : list)
        if (s.isOutput)
            ids.push_back(s.id);
    return ids;
}

TEST(TonaviDeviceManager, OutputsNamedAlikeShowOnce) {
    struct Case {
        const char* why;
        std::vector<SimDevice> devices;
        std::string defaultOutput;
        std::vector<DeviceSettings> settings;
        std::vector<std::string> outputs;
    };
    auto a = simDevice("a", "Display Audio", kAudioDeviceTransportTypeUSB, 2);
    auto b = simDevice("b", "Display Audio", kAudioDeviceTransportTypeUSB, 8);
    auto noVolume = simDevice("c", "Display Audio", kAudioDeviceTransportTypeUSB, 8);
    noVolume.volumeElements.clear();
    noVolume.hasVirtualMainVolume = false;
    auto other = simDevice("o", "Other", kAudioDeviceTransportTypeUSB, 2);
    const std::vector<Case> cases{
        {"the default wins, listed second", {a, b, other}, "b", {}, {"b", "o"}},
        {"the default wins, listed first", {a, b, other}, "a", {}, {"a", "o"}},
        {"the visible one wins over more channels", {a, b, other}, "o", {deviceSettings("b", 100, true)}, {"a", "o"}},
        {"volume control wins over more channels", {a, noVolume, other}, "o", {}, {"a", "o"}},
        {"more channels win", {a, b, other}, "o", {}, {"b", "o"}},
    };
    for (const auto& c : cases) {
        DeviceHarness h(worldOf(c.devices, c.defaultOutput));
        h.onQueue([&] { h.manager->updateSettingsOnly(c.settings); });
        EXPECT_EQ(outputIDs(h.manager->liveStatus(noBluetooth)), c.outputs) << c.why;
    }
}

TEST(TonaviDeviceManager, StatusRecordsInputsBluetoothAndTapAggregates) {
    auto mic = simDevice("mic", "Earbuds", kAudioDeviceTransportTypeBluetooth, 0, 1);
    auto connecting = simDevice("AC-DE-48-00-11-22:output", "Earbuds", kAudioDeviceTransportTypeBluetooth, 0);
    auto out = simDevice("out", "Earbuds", kAudioDeviceTransportTypeUSB, 2);
    auto tapAggregate = simDevice("com.brelmoor.tonavi.agg.1", "Tap", kAudioDeviceTransportTypeAggregate, 2);
    DeviceHarness h(worldOf({mic, connecting, out, tapAggregate}, "out"));
    std::vector<std::string> asked;
    const auto status = h.manager->liveStatus([&](const std::string& address) {
        asked.push_back(address);
        return TonaviDeviceManager::BluetoothDetails{80, "AAC", "good"};
    });
    ASSERT_EQ(status.size(), 3u); // the input and the streamless endpoint are not de-duplicated
    EXPECT_EQ(asked, (std::vector<std::string>{"mic", "ac:de:48:00:11:22"}));
    EXPECT_FALSE(status[1].isOutput);
    EXPECT_EQ(status[1].batteryPercent, 80);
    EXPECT_EQ(status[2].id, "out");
    EXPECT_FALSE(status[2].batteryPercent);
    // Any Bluetooth endpoint counts as present, streams or not; tap aggregates never appear.
    std::set<std::string> present;
    for (const auto& [uid, signature] : h.manager->outputTopology())
        present.insert(uid);
    EXPECT_EQ(present, (std::set<std::string>{"AC-DE-48-00-11-22:output", "mic", "out"}));
}

TEST(TonaviDeviceManager, StatusCacheLastsHalfASecondAndOwnWritesInvalidateIt) {
    DeviceHarness h;
    const auto first = h.manager->liveStatus(noBluetooth);
    h.machine.mutate([](SimWorld& w) { return w.rename(usb, "Renamed"); });
    h.clock->advance(499ms);
    EXPECT_EQ(h.manager->liveStatus(noBluetooth), first);
    h.clock->advance(1ms); // the half second is strict
    EXPECT_NE(h.manager->liveStatus(noBluetooth), first);

    const auto cached = h.manager->liveStatus(noBluetooth);
    ASSERT_TRUE(h.manager->setVolume(h.id(usb), 0.25));
    const auto after = h.manager->liveStatus(noBluetooth);
    const auto row = std::find_if(after.begin(), after.end(), [](const auto& s) { return s.id == usb; });
    EXPECT_NEAR(row->volume, 0.25, 1e-6);
    EXPECT_NE(after, cached);
}

TEST(TonaviDeviceManager, VolumeWritesReachEveryChannelAndRespectTheMaximum) {
    DeviceHarness h;
    // The speakers have a stereo pair and no main element; one failing channel still succeeds.
    h.machine.failNext(SimOperation::setProperty, 1, kAudioHardwareIllegalOperationError,
                       kAudioDevicePropertyVolumeScalar);
    EXPECT_TRUE(h.manager->setVolume(h.id(speakers), 0.3));
    const auto* d = h.machine.world()->deviceByUID(speakers);
    EXPECT_FLOAT_EQ(d->volumeElements.at(1), 0.5f);
    EXPECT_FLOAT_EQ(d->volumeElements.at(2), 0.3f);

    h.onQueue([&] { h.manager->updateSettingsOnly({deviceSettings(usb, 50)}); });
    EXPECT_TRUE(h.manager->setVolume(h.id(usb), 0.8));
    EXPECT_NEAR(*h.manager->volume(h.id(usb)), 0.5, 1e-6);
    EXPECT_TRUE(h.manager->setVolume(h.id(usb), 7.0));
    EXPECT_NEAR(*h.manager->volume(h.id(usb)), 0.5, 1e-6);
}

TEST(TonaviDeviceManager, MaximumVolumeIsEnforcedOutsideItsDeadBand) {
    struct Case {
        double maxPercent;
        float volume;
        float expected;
    };
    for (const auto& c : std::vector<Case>{{100, 1.0f, 1.0f}, {50, 0.501f, 0.501f}, {50, 0.52f, 0.5f}, {20, 0.1f, 0.1f}}) {
        DeviceHarness h;
        h.machine.mutate([&](SimWorld& w) { return w.setVolume(usb, c.volume); });
        h.onQueue([&] {
            h.manager->updateSettingsOnly({deviceSettings(usb, c.maxPercent)});
            h.manager->enforceMaxVolumes();
        });
        EXPECT_NEAR(h.machine.world()->deviceByUID(usb)->volumeElements.at(0), c.expected, 1e-6) << c.maxPercent;
    }
}

TEST(TonaviDeviceManager, ADeviceArrivingAboveItsMaximumIsBroughtDownByTheListener) {
    DeviceHarness h;
    h.onQueue([&] {
        h.manager->apply({deviceSettings("dock", 50)}, {}, {});
        h.manager->installListeners();
    });
    auto dock = simDevice("dock", "Desk Dock", kAudioDeviceTransportTypeUSB, 2);
    dock.volumeElements = {{0, 0.8f}};
    h.machine.mutate([&](SimWorld& w) { return w.plug(dock); });
    ASSERT_TRUE(h.waitForDevicesChanged(1));
    EXPECT_NEAR(h.machine.world()->deviceByUID("dock")->volumeElements.at(0), 0.5, 1e-6);
    // Four outputs, the streamless Bluetooth input, and the dock.
    EXPECT_EQ(h.onQueue([&] { return h.manager->outputListeners().size(); }), 6u);
}

TEST(TonaviDeviceManager, HiddenDevicesNeverHoldASystemRole) {
    {
        DeviceHarness h;
        h.onQueue([&] { h.manager->updateSettingsOnly({deviceSettings(usb, 100, true)}); });
        EXPECT_FALSE(h.manager->setDefaultDevice(h.id(usb), false));
        EXPECT_FALSE(h.manager->setSystemSoundEffectsDevice(h.id(usb)));
        EXPECT_FALSE(h.manager->setDefaultOutputVerified(usb));
        EXPECT_EQ(h.defaultOutput(), speakers);
    }
    {
        DeviceHarness h;
        h.onQueue([&] {
            h.manager->updateSettingsOnly({deviceSettings(speakers, 100, true)});
            h.manager->enforceHiddenDevices();
        });
        EXPECT_EQ(h.defaultOutput(), usb); // the first visible output in list order
        EXPECT_EQ(h.machine.world()->systemOutputUID, usb); // alerts follow the default output
    }
    {
        DeviceHarness h(worldOf({simDevice("a", "A", kAudioDeviceTransportTypeUSB, 2),
                                 simDevice("b", "B", kAudioDeviceTransportTypeUSB, 2)},
                                "a"));
        h.onQueue([&] {
            h.manager->updateSettingsOnly({deviceSettings("a", 100, true), deviceSettings("b", 100, true)});
            h.manager->enforceHiddenDevices();
        });
        EXPECT_EQ(h.defaultOutput(), "a"); // nowhere visible to go
    }
}

TEST(TonaviDeviceManager, LocksCaptureOnceAndOnlyEverRestore) {
    DeviceHarness h; // speakers default at 0.5, unmuted
    GlobalLocks locks;
    locks.volume = locks.mute = locks.sampleRate = true;
    h.onQueue([&] { h.manager->apply({}, locks, {}); });
    EXPECT_EQ(h.onQueue([&] { return h.manager->lockedVolume(); }), 0.5);
    // Only the wired devices' rates are held.
    EXPECT_EQ(h.onQueue([&] { return h.manager->lockedSampleRate(); }),
              (std::map<std::string, double>{{"BuiltInMicrophoneDevice", 48000}, {speakers, 48000}, {usb, 48000}}));

    h.machine.mutate([](SimWorld& w) { return w.setVolume(speakers, 0.9f); });
    h.onQueue([&] { h.manager->apply({}, locks, {}); });
    EXPECT_EQ(h.onQueue([&] { return h.manager->lockedVolume(); }), 0.5); // not re-captured

    h.machine.setPropertyData(h.id(usb), globalAddress(kAudioDevicePropertyNominalSampleRate), 96000.0);
    h.onQueue([&] { h.manager->enforceLocks(); });
    EXPECT_NEAR(*h.manager->volume(h.id(speakers)), 0.5, 1e-6);
    EXPECT_EQ(h.machine.world()->deviceByUID(usb)->sampleRate, 48000);
    EXPECT_EQ(h.manager->muted(h.id(speakers)), false); // the mute lock never mutes

    h.manager->setMuted(h.id(speakers), true);
    h.onQueue([&] { h.manager->enforceLocks(); });
    EXPECT_EQ(h.manager->muted(h.id(speakers)), false);

    h.onQueue([&] { h.manager->apply({}, GlobalLocks{}, {}); });
    h.machine.mutate([](SimWorld& w) { return w.setVolume(speakers, 0.9f); });
    h.onQueue([&] { h.manager->apply({}, locks, {}); });
    EXPECT_NEAR(*h.onQueue([&] { return h.manager->lockedVolume(); }), 0.9, 1e-6); // off and on captures anew
}

TEST(TonaviDeviceManager, PreferredOrderIsEnforcedUnlessTheUserIsSwitchingOrChoseThisSession) {
    struct Case {
        const char* why;
        bool pending;
        std::optional<std::string> session;
        std::vector<DeviceSettings> settings;
        std::string expected;
    };
    const std::vector<Case> cases{
        {"moves to the first available preference", false, std::nullopt, {}, usb},
        {"a user's switch in flight suppresses it", true, std::nullopt, {}, speakers},
        {"the session's choice stands", false, std::string(speakers), {}, speakers},
        {"a vanished session choice falls through", false, std::string("gone"), {}, usb},
        {"hidden preferences are skipped", false, std::nullopt, {deviceSettings(usb, 100, true)}, buds},
    };
    for (const auto& c : cases) {
        DeviceHarness h;
        h.onQueue([&] {
            h.manager->setManualOutputSelectionPending(c.pending);
            h.manager->setSessionOutputUID(c.session);
            h.manager->apply(c.settings, {}, {"missing", usb, buds});
        });
        EXPECT_EQ(h.defaultOutput(), c.expected) << c.why;
    }
}

TEST(TonaviDeviceManager, BlockingSwitchWaitsForABluetoothRouteAndSeesADroppedWrite) {
    {
        DeviceHarness h;
        h.machine.mutate([](SimWorld& w) {
            w.deviceByUID(buds)->settleReads = 45; // beyond a wired switch's 20 polls, within Bluetooth's 50
            return std::string();
        });
        EXPECT_TRUE(h.manager->setDefaultOutputVerified(buds));
        EXPECT_EQ(h.defaultOutput(), buds);
    }
    {
        DeviceHarness h;
        h.machine.mutate([](SimWorld& w) {
            w.deviceByUID(usb)->settleReads = 45;
            return std::string();
        });
        EXPECT_FALSE(h.manager->setDefaultOutputVerified(usb));
    }
    {
        DeviceHarness h;
        h.machine.failNext(SimOperation::setProperty, 1, noErr, kAudioHardwarePropertyDefaultOutputDevice);
        EXPECT_FALSE(h.manager->setDefaultOutputVerified(usb));
        EXPECT_EQ(h.defaultOutput(), speakers);
    }
}

// Runs a non-blocking switch on the state queue, advancing the manual clock poll by poll.
std::optional<bool> switchAsync(DeviceHarness& h, const std::string& uid) {
    std::mutex m;
    std::condition_variable cv;
    std::optional<bool> result;
    h.queue.async([&] {
        h.manager->setDefaultOutputVerifiedAsync(uid, [] { return true; }, [&](bool ok) {
            std::lock_guard<std::mutex> guard(m);
            result = ok;
            cv.notify_all();
        });
    });
    std::unique_lock<std::mutex> lock(m);
    for (int i = 0; i < 2000 && !result; ++i) {
        lock.unlock();
        h.clock->advance(TonaviDeviceManager::asyncSwitchInterval);
        lock.lock();
        cv.wait_for(lock, 2ms, [&] { return result.has_value(); });
    }
    return result;
}

TEST(TonaviDeviceManager, NonblockingSwitchConfirmsOrNamesWhereTheOutputStayed) {
    {
        DeviceHarness h;
        h.machine.mutate([](SimWorld& w) {
            w.deviceByUID(buds)->settleReads = 120;
            return std::string();
        });
        EXPECT_EQ(switchAsync(h, buds), true);
        EXPECT_EQ(h.defaultOutput(), buds);
    }
    {
        DeviceHarness h;
        h.machine.failNext(SimOperation::setProperty, 1, noErr, kAudioHardwarePropertyDefaultOutputDevice);
        EXPECT_EQ(switchAsync(h, usb), false);
        const auto status = h.manager->liveStatus(noBluetooth);
        const auto stayed = std::find_if(status.begin(), status.end(), [](const auto& s) { return s.isDefaultOutput; });
        ASSERT_NE(stayed, status.end());
        EXPECT_EQ(VerifiedOutputSwitch::failureText("USB Headphones", stayed->name),
                  "macOS did not switch to USB Headphones; output remains on MacBook Pro Speakers");
    }
    {
        DeviceHarness h;
        h.onQueue([&] { h.manager->updateSettingsOnly({deviceSettings(usb, 100, true)}); });
        EXPECT_EQ(switchAsync(h, usb), false);
        EXPECT_EQ(h.defaultOutput(), speakers);
    }
}

TEST(TonaviDeviceManager, PerDeviceListenersFollowTheOutputs) {
    DeviceHarness h;
    h.onQueue([&] { h.manager->installListeners(); h.manager->refreshOutputListeners(); });
    const auto usbID = h.id(usb);
    EXPECT_EQ(h.onQueue([&] { return h.manager->outputListeners().at(usbID).second.size(); }), 3u);

    h.machine.setPropertyData(usbID, globalAddress(kAudioDevicePropertyNominalSampleRate), 96000.0);
    ASSERT_TRUE(h.waitForDevicesChanged(1));

    h.machine.mutate([](SimWorld& w) { return w.unplug(usb); });
    ASSERT_TRUE(h.waitForDevicesChanged(2));
    h.machine.mutate([](SimWorld& w) { return w.replug(usb); });
    ASSERT_TRUE(h.waitForDevicesChanged(3));
    h.onQueue([] {}); // the list listener has finished its pass
    const auto listeners = h.onQueue([&] { return h.manager->outputListeners(); });
    EXPECT_FALSE(listeners.count(usbID));
    ASSERT_TRUE(listeners.count(h.id(usb)));
    EXPECT_EQ(listeners.at(h.id(usb)).first, usb);
}

} // namespace
} // namespace tonavi::testing
