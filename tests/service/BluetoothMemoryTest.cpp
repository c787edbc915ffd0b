#include "core/wire/TonaviPayload.hpp"
#include "tests/service/RuntimeTestSupport.hpp"

namespace tonavi::testing {
namespace {

using R = TonaviRequest;
constexpr const char* usbMic = "usb-mic";

void setDefaultInput(RuntimeHarness& h, const std::string& uid) {
    h.edit([&](SimWorld& w) { return w.setDefault(SimDefaultRole::input, uid); });
    h.advance(0);
}

void setMaximum(RuntimeHarness& h, double percent) {
    ASSERT_TRUE(h.send(R::SetDeviceSettings{{.id = budsOut, .maxVolumePercent = percent}}).ok);
}

BluetoothDeviceMemory memory(std::optional<double> savedVolume, bool outputOnly = false) {
    return {.id = budsOut, .name = "Work Earbuds", .savedVolume = savedVolume, .outputOnlyMode = outputOnly};
}

float budsVolume(RuntimeHarness& h) {
    return h.machine->world()->deviceByUID(budsOut)->volumeElements.at(0);
}

// The earbuds as listBluetooth shows them now, past the device status cache.
DeviceLiveStatus listedBuds(RuntimeHarness& h) {
    h.runtime->devices().invalidateDeviceCache();
    const TonaviReply reply = h.send(R::ListBluetooth{});
    const auto devices = TonaviPayload::decodeDevices(reply.payload.value_or(Bytes{}));
    EXPECT_TRUE(std::all_of(devices.begin(), devices.end(), [](const DeviceLiveStatus& d) {
        return d.transport == DeviceLiveStatus::Transport::bluetooth;
    }));
    const auto it = std::ranges::find(devices, budsOut, &DeviceLiveStatus::id);
    return it == devices.end() ? DeviceLiveStatus{} : *it;
}

TEST(BluetoothMemory, RecalledOnDefaultOutputAndOnReturnWithinTheDeviceLimitWhichTheWatchdogHolds) {
    RuntimeHarness h;
    h.startReady();
    ASSERT_TRUE(h.send(R::SetBluetoothMemory{memory(std::nullopt)}).ok);
    EXPECT_EQ(h.onDisk().bluetooth, std::vector<BluetoothDeviceMemory>{memory(std::nullopt)});

    // Without a saved volume the profile is recalled and the volume left alone.
    h.edit([](SimWorld& w) { return w.setDefault(SimDefaultRole::output, budsOut); });
    ASSERT_TRUE(
        h.advanceUntil([&] { return h.logged("tonavi: recalled bluetooth profile for Work Earbuds"); }));
    EXPECT_FLOAT_EQ(budsVolume(h), 0.5f);

    // Nothing listens on volume: a level another program raises above the maximum comes down on the
    // next watchdog pass.
    setMaximum(h, 40);
    h.edit([](SimWorld& w) { return w.setVolume(budsOut, 0.9f); });
    h.advance(0.1);
    EXPECT_NEAR(budsVolume(h), 0.9f, 1e-6);
    h.advance(TonaviRuntime::watchdogIntervalSeconds);
    EXPECT_NEAR(budsVolume(h), 0.4f, 1e-6);

    // A saved volume comes back when the device does, held under its maximum.
    setMaximum(h, 30);
    ASSERT_TRUE(h.send(R::SetBluetoothMemory{memory(0.8)}).ok);
    ASSERT_EQ(h.onDisk().bluetooth.size(), 1u); // replaced, not added
    h.edit([](SimWorld& w) { return w.unplug(budsOut); });
    h.advance(0.02);
    h.edit([](SimWorld& w) { return w.replug(budsOut); });
    ASSERT_TRUE(h.advanceUntil([&] { return std::abs(budsVolume(h) - 0.3f) < 1e-6; })) << budsVolume(h);
}

TEST(BluetoothMemory, OutputOnlyHeadsetGivesUpTheDefaultInputToUSBFirst) {
    RuntimeHarness h;
    h.startReady();
    h.edit([](SimWorld& w) {
        return w.plug({.uid = usbMic, .name = "Desk Mic", .transport = kAudioDeviceTransportTypeUSB, .inputStreams = {1}});
    });
    setDefaultInput(h, budsIn);

    const TonaviReply reply = h.send(R::SetOutputOnlyMode{budsOut, true});
    ASSERT_TRUE(reply.ok && reply.status);
    EXPECT_EQ(h.machine->world()->defaultInputUID, usbMic);
    EXPECT_EQ(reply.status->defaultInputUID, usbMic); // the reply already shows the move
    EXPECT_TRUE(h.logged(std::string("tonavi: output-only headset input moved to ") + usbMic));
    // A record made here is named after the device until a client names it.
    BluetoothDeviceMemory made{.id = budsOut, .name = budsOut, .outputOnlyMode = true};
    EXPECT_EQ(h.onDisk().bluetooth, std::vector<BluetoothDeviceMemory>{made});

    // Without a USB microphone the built-in one takes over; a device change triggers the rule too.
    h.edit([](SimWorld& w) { return w.unplug(usbMic); });
    setDefaultInput(h, budsIn);
    h.edit([](SimWorld& w) { return w.rename(budsOut, "Earbuds Pro"); });
    ASSERT_TRUE(
        h.advanceUntil([&] { return h.machine->world()->defaultInputUID == "BuiltInMicrophoneDevice"; }));

    // Turned off, the headset's microphone may stay.
    ASSERT_TRUE(h.send(R::SetOutputOnlyMode{budsOut, false}).ok);
    setDefaultInput(h, budsIn);
    ASSERT_TRUE(h.send(R::SetBluetoothMemory{memory(std::nullopt, false)}).ok);
    EXPECT_EQ(h.machine->world()->defaultInputUID, budsIn);

    // A USB default input is left alone whatever the records say.
    h.edit([](SimWorld& w) { return w.replug(usbMic); });
    setDefaultInput(h, usbMic);
    const std::size_t logged = h.log().size();
    ASSERT_TRUE(h.send(R::SetBluetoothMemory{memory(std::nullopt, true)}).ok);
    EXPECT_EQ(h.machine->world()->defaultInputUID, usbMic);
    EXPECT_EQ(h.log().find("output-only headset input moved", logged), std::string::npos);
}

TEST(BluetoothDetails, RegistryFirstThenTheSlowSourceReadOnceEveryThirtySecondsAndOnlyIfNeeded) {
    for (const bool registryComplete : {true, false}) {
        SCOPED_TRACE(registryComplete ? "complete registry" : "codec only in the registry");
        RuntimeHarness h;
        std::atomic<int> reads{0};
        // Only the codec in the registry, as on PipeWire: battery and signal come from the slow read.
        if (!registryComplete)
            h.edit([](SimWorld& w) {
                w.deviceByUID(budsOut)->bluetoothBattery.reset();
                w.deviceByUID(budsOut)->bluetoothRSSI.reset();
                return std::string();
            });
        h.startReady([&] {
            ++reads;
            return std::map<std::string, BluetoothReading>{{"ac:de:48:00:11:22", {40, -80}}};
        });
        // The first snapshot started any read; nothing waits for it.
        DeviceLiveStatus buds;
        ASSERT_TRUE(waitUntil([&] { return (buds = listedBuds(h)).batteryPercent.has_value(); }));
        EXPECT_EQ(std::tuple(buds.codec, buds.batteryPercent, buds.connectionQuality),
                  registryComplete ? std::tuple("AAC", 80, "fair") : std::tuple("AAC", 40, "weak"));
        listedBuds(h);
        EXPECT_EQ(reads.load(), registryComplete ? 0 : 1);
        if (registryComplete)
            continue;
        h.advance(30.0);
        listedBuds(h);
        EXPECT_TRUE(waitUntil([&] { return reads.load() == 2; }));
        listedBuds(h);
        EXPECT_EQ(reads.load(), 2);
    }
}

TEST(BluetoothDetails, TheSlowReadsChildGivesItsOutputOrNothing) {
    EXPECT_EQ(BluetoothInfo::runChild({"sh", "-c", "echo out; echo err >&2"}), "out\n");
    EXPECT_EQ(BluetoothInfo::runChild({"sh", "-c", "echo partial; exit 3"}), std::nullopt);
    EXPECT_EQ(BluetoothInfo::runChild({"tonavi-no-such-program"}), std::nullopt);
    EXPECT_EQ(BluetoothInfo::runChild({}), std::nullopt);
}

} // namespace
} // namespace tonavi::testing
