#include "tests/service/devices/DeviceTestSupport.hpp"

#include <algorithm>

namespace tonavi::testing {
namespace {

using namespace std::chrono_literals;

TEST(TonaviDeviceManager, OutputsNamedAlikeShowOnce) {
    auto a = simDevice("a", "Display", kAudioDeviceTransportTypeUSB, 2);
    auto b = simDevice("b", "Display", kAudioDeviceTransportTypeUSB, 8);
    auto noVolume = simDevice("c", "Display", kAudioDeviceTransportTypeUSB, 8);
    noVolume.volumeElements.clear();
    noVolume.hasVirtualMainVolume = false;
    const auto mic = simDevice("mic", "Display", kAudioDeviceTransportTypeUSB, 0, 1);
    // Rows: why, devices, default output, whether b is hidden, the devices shown.
    const std::vector<
        std::tuple<const char*, std::vector<SimDevice>, std::string, bool, std::vector<std::string>>>
        cases{
            {"the default wins, listed second", {a, b, mic}, "b", false, {"mic", "b"}},
            {"the default wins, listed first", {a, b, mic}, "a", false, {"mic", "a"}},
            {"the visible one wins over more channels", {a, b}, "", true, {"a"}},
            {"volume control wins over more channels", {a, noVolume}, "", false, {"a"}},
            {"otherwise more channels win", {a, b}, "", false, {"b"}},
        };
    for (const auto& [why, devices, defaultOutput, hideB, expected] : cases) {
        DeviceHarness h(worldOf(devices, defaultOutput));
        h.onQueue([&] { h.manager->updateSettingsOnly({deviceSettings("b", 100, hideB)}); });
        std::vector<std::string> shown;
        for (const auto& s : h.manager->liveStatus(noBluetooth))
            shown.push_back(s.id);
        EXPECT_EQ(shown, expected) << why;
    }
}

TEST(TonaviDeviceManager, BluetoothDetailsAreAskedByAddressAndTapAggregatesStayInvisible) {
    auto connecting = simDevice(budsOut, "Earbuds", kAudioDeviceTransportTypeBluetooth, 0);
    auto tap = simDevice("com.brelmoor.tonavi.agg.1", "Tap", kAudioDeviceTransportTypeAggregate, 2);
    DeviceHarness h(
        worldOf({connecting, tap, simDevice("out", "Out", kAudioDeviceTransportTypeUSB, 2)}, "out"));
    std::vector<std::string> asked;
    const auto status = h.manager->liveStatus([&](const std::string& address) {
        asked.push_back(address);
        return TonaviDeviceManager::BluetoothDetails{80, "AAC", "good"};
    });
    ASSERT_EQ(status.size(), 2u);
    EXPECT_EQ(asked, std::vector<std::string>{"ac:de:48:00:11:22"});
    // No streams yet, but present as an output route.
    EXPECT_TRUE(!status[0].isOutput && status[0].batteryPercent == 80 && !status[1].batteryPercent);
    const auto topology = h.manager->outputTopology();
    EXPECT_TRUE(topology.size() == 2u && topology.count(budsOut));
}

TEST(TonaviDeviceManager,
     StatusCacheLastsHalfASecondAndVolumeWritesInvalidateItReachEveryChannelAndRespectTheMaximum) {
    DeviceHarness h;
    const auto first = h.manager->liveStatus(noBluetooth);
    h.machine.mutate([](SimWorld& w) { return w.rename(usb, "Renamed"); });
    h.clock->advance(499ms);
    EXPECT_EQ(h.manager->liveStatus(noBluetooth), first);
    h.clock->advance(1ms); // the half second is strict
    const auto second = h.manager->liveStatus(noBluetooth);
    EXPECT_NE(second, first);
    ASSERT_TRUE(h.manager->setVolume(h.id(usb), 0.25));
    const auto after = h.manager->liveStatus(noBluetooth);
    EXPECT_NEAR(std::ranges::find(after, usb, &DeviceLiveStatus::id)->volume, 0.25, 1e-6);

    // Volume writes reach every channel and respect the maximum.
    // The speakers have a stereo pair and no main element; one failing channel still succeeds.
    h.machine.failNext(SimOperation::setProperty, 1, kAudioHardwareIllegalOperationError,
                       kAudioDevicePropertyVolumeScalar);
    EXPECT_TRUE(h.manager->setVolume(h.id(speakers), 0.3));
    EXPECT_FLOAT_EQ(h.machine.world()->deviceByUID(speakers)->volumeElements.at(2), 0.3f);

    // Maximum percent, volume found, volume enforced.
    for (const auto& c :
         std::vector<std::array<float, 3>>{{100, 1.0f, 1.0f}, {50, 0.501f, 0.501f}, {50, 0.52f, 0.5f}}) {
        const auto [maxPercent, volume, enforced] = c;
        h.machine.mutate([&](SimWorld& w) { return w.setVolume(usb, volume); });
        h.onQueue([&] {
            h.manager->updateSettingsOnly({deviceSettings(usb, maxPercent)});
            h.manager->enforceMaxVolumes();
        });
        EXPECT_NEAR(*h.manager->volume(h.id(usb)), enforced, 1e-6) << maxPercent << " " << volume;
    }
    EXPECT_TRUE(h.manager->setVolume(h.id(usb), 0.8));
    EXPECT_NEAR(*h.manager->volume(h.id(usb)), 0.5, 1e-6);
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
    // Listeners on every output route: four outputs, the streamless Bluetooth input, the dock.
    EXPECT_EQ(h.onQueue([&] { return h.manager->outputListeners().size(); }), 6u);
}

TEST(TonaviDeviceManager, HiddenDevicesNeverHoldASystemRole) {
    DeviceHarness h;
    h.onQueue([&] { h.manager->updateSettingsOnly({deviceSettings(usb, 100, true)}); });
    EXPECT_FALSE(h.manager->setDefaultDevice(h.id(usb), false));
    EXPECT_FALSE(h.manager->setSystemSoundEffectsDevice(h.id(usb)));
    EXPECT_EQ(h.defaultOutput(), speakers);
    // A hidden default gives way to the first visible output, alerts with it, unless there is none.
    for (const auto& [world, hidden, expected] :
         {std::tuple(SimWorld::preset(), speakers, usb),
          std::tuple(worldOf({simDevice("a", "A", kAudioDeviceTransportTypeUSB, 2)}, "a"), std::string("a"),
                     std::string("a"))}) {
        DeviceHarness other(world);
        other.onQueue([&] {
            other.manager->updateSettingsOnly({deviceSettings(hidden, 100, true)});
            other.manager->enforceHiddenDevices();
        });
        EXPECT_EQ(other.defaultOutput() + " " + other.machine.world()->systemOutputUID,
                  std::string(expected) + " " + expected);
    }
}

TEST(TonaviDeviceManager, LocksCaptureOnceAndOnlyEverRestore) {
    DeviceHarness h; // speakers are the default, at 0.5 and unmuted
    GlobalLocks locks;
    locks.volume = locks.sampleRate = locks.mute = true;
    auto lockedVolume = [&] { return h.onQueue([&] { return h.manager->lockedVolume(); }); };
    h.onQueue([&] { h.manager->apply({}, locks, {}); });
    EXPECT_EQ(lockedVolume(), 0.5);
    EXPECT_EQ(h.onQueue([&] { return h.manager->lockedSampleRate().size(); }), 3u); // wired devices only

    h.machine.mutate([](SimWorld& w) { return w.setVolume(speakers, 0.9f); });
    h.machine.setPropertyData(h.id(usb), globalAddress(kAudioDevicePropertyNominalSampleRate), 96000.0);
    h.onQueue([&] { h.manager->apply({}, locks, {}); });
    EXPECT_EQ(lockedVolume(), 0.5); // not re-captured
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
    EXPECT_NEAR(*lockedVolume(), 0.9, 1e-6); // off and on again captures anew
}

TEST(TonaviDeviceManager, PreferredOrderIsEnforcedUnlessTheUserIsSwitchingOrChoseThisSession) {
    // Rows: why, a switch pending, the session's choice, whether USB is hidden, the default after.
    const std::vector<std::tuple<const char*, bool, std::optional<std::string>, bool, std::string>> cases{
        {"moves to the first available preference", false, std::nullopt, false, usb},
        {"a user's switch in flight suppresses it", true, std::nullopt, false, speakers},
        {"the session's choice stands", false, std::string(speakers), false, speakers},
        {"a vanished session choice falls through", false, std::string("gone"), false, usb},
        {"hidden preferences are skipped", false, std::nullopt, true, budsOut},
    };
    for (const auto& [why, pending, session, hideUSB, expected] : cases) {
        DeviceHarness h;
        h.onQueue([&] {
            h.manager->setManualOutputSelectionPending(pending);
            h.manager->setSessionOutputUID(session);
            h.manager->apply({deviceSettings(usb, 100, hideUSB)}, {}, {"missing", usb, budsOut});
        });
        EXPECT_EQ(h.defaultOutput(), expected) << why;
    }
}

} // namespace
} // namespace tonavi::testing
