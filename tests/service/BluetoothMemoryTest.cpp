#include "core/wire/TonaviPayload.hpp"
#include "tests/service/RuntimeTestSupport.hpp"

namespace tonavi::testing {
namespace {

using R = TonaviRequest;
constexpr const char* budsOut = "AC-DE-48-00-11-22:output";
constexpr const char* budsIn = "AC-DE-48-00-11-22:input";
constexpr const char* builtInMic = "BuiltInMicrophoneDevice";
constexpr const char* usbMic = "usb-mic";

// The harness's start with a slow Bluetooth source of the test's own.
void startReady(RuntimeHarness& h, BluetoothInfo::ProfilerRead profiler = {}) {
    TonaviRuntime::Environment environment;
    environment.store = h.store;
    environment.audio = h.machine;
    environment.workspace = h.workspace;
    environment.tapProvider = h.provider;
    environment.clock = h.clock;
    environment.wallClock = [&h] { return h.wall.load(); };
    environment.bluetoothProfiler = std::move(profiler);
    h.runtime = std::make_unique<TonaviRuntime>(std::move(environment));
    ASSERT_TRUE(waitUntil([&] { return h.runtime->warmUpProbes() >= 1; }));
    h.advance(0.5);
    ASSERT_TRUE(waitUntil([&] { return h.runtime->coreAudioReady(); }));
}

std::string log(RuntimeHarness& h) {
    return readText(h.folder.path() / "service.log");
}

void plugUSBMicrophone(RuntimeHarness& h) {
    h.machine->mutate([](SimWorld& w) {
        SimDevice mic;
        mic.id = w.allocateID();
        mic.uid = usbMic;
        mic.name = "Desk Mic";
        mic.transport = kAudioDeviceTransportTypeUSB;
        mic.inputStreams = {1};
        w.devices.push_back(mic);
        return std::string();
    });
}

void setDefaultInput(RuntimeHarness& h, const std::string& uid) {
    ASSERT_EQ(h.machine->mutate([&](SimWorld& w) { return w.setDefault(SimDefaultRole::input, uid); }), "");
    h.advance(0);
}

BluetoothDeviceMemory memory(std::optional<double> savedVolume, bool outputOnly = false) {
    BluetoothDeviceMemory m;
    m.id = budsOut;
    m.name = "Work Earbuds";
    m.savedVolume = savedVolume;
    m.outputOnlyMode = outputOnly;
    return m;
}

float budsVolume(RuntimeHarness& h) {
    return h.machine->world()->deviceByUID(budsOut)->volumeElements.at(0);
}

// The earbuds as listBluetooth shows them now, past the device status cache.
DeviceLiveStatus listedBuds(RuntimeHarness& h) {
    h.runtime->devices().invalidateDeviceCache();
    const TonaviReply reply = h.send(R::ListBluetooth{});
    EXPECT_TRUE(reply.ok && reply.payload);
    const auto devices = TonaviPayload::decodeDevices(reply.payload.value_or(Bytes{}));
    EXPECT_TRUE(std::all_of(devices.begin(), devices.end(), [](const DeviceLiveStatus& d) {
        return d.transport == DeviceLiveStatus::Transport::bluetooth;
    }));
    const auto it = std::find_if(devices.begin(), devices.end(),
                                 [](const DeviceLiveStatus& d) { return d.id == budsOut; });
    return it == devices.end() ? DeviceLiveStatus{} : *it;
}

TEST(BluetoothMemory, RecalledOnDefaultOutputAndOnReturnWithinTheDeviceLimit) {
    RuntimeHarness h;
    startReady(h);
    ASSERT_TRUE(h.send(R::SetBluetoothMemory{memory(std::nullopt)}).ok);
    EXPECT_EQ(h.onDisk().bluetooth, std::vector<BluetoothDeviceMemory>{memory(std::nullopt)});

    // Without a saved volume the profile is recalled and the volume left alone.
    h.machine->mutate([](SimWorld& w) { return w.setDefault(SimDefaultRole::output, budsOut); });
    ASSERT_TRUE(waitUntil([&] {
        h.advance(0.02);
        return log(h).find("tonavi: recalled bluetooth profile for Work Earbuds") != std::string::npos;
    }));
    EXPECT_FLOAT_EQ(budsVolume(h), 0.5f);

    // A saved volume comes back when the device does, held under its maximum.
    DeviceSettings limit;
    limit.id = budsOut;
    limit.maxVolumePercent = 30;
    ASSERT_TRUE(h.send(R::SetDeviceSettings{limit}).ok);
    ASSERT_TRUE(h.send(R::SetBluetoothMemory{memory(0.8)}).ok);
    ASSERT_EQ(h.onDisk().bluetooth.size(), 1u); // replaced, not added
    h.machine->mutate([](SimWorld& w) { return w.unplug(budsOut); });
    h.advance(0.02);
    h.machine->mutate([](SimWorld& w) { return w.replug(budsOut); });
    ASSERT_TRUE(waitUntil([&] {
        h.advance(0.02);
        return std::abs(budsVolume(h) - 0.3f) < 1e-6;
    })) << budsVolume(h);
}

TEST(BluetoothMemory, OutputOnlyHeadsetGivesUpTheDefaultInputToUSBFirst) {
    RuntimeHarness h;
    startReady(h);
    plugUSBMicrophone(h);
    setDefaultInput(h, budsIn);

    const TonaviReply reply = h.send(R::SetOutputOnlyMode{budsOut, true});
    ASSERT_TRUE(reply.ok);
    EXPECT_EQ(reply.message, "");
    EXPECT_EQ(h.machine->world()->defaultInputUID, usbMic);
    ASSERT_TRUE(reply.status);
    EXPECT_EQ(reply.status->defaultInputUID, usbMic); // the reply already shows the move
    EXPECT_NE(log(h).find(std::string("tonavi: output-only headset input moved to ") + usbMic),
              std::string::npos);
    // A record made here is named after the device until a client names it.
    const auto stored = h.onDisk().bluetooth;
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].name, budsOut);
    EXPECT_TRUE(stored[0].outputOnlyMode);

    // Without a USB microphone the built-in one takes over; a device change triggers the rule too.
    h.machine->mutate([](SimWorld& w) { return w.unplug(usbMic); });
    setDefaultInput(h, budsIn);
    h.machine->mutate([](SimWorld& w) { return w.rename(budsOut, "Earbuds Pro"); });
    ASSERT_TRUE(waitUntil([&] {
        h.advance(0.02);
        return h.machine->world()->defaultInputUID == builtInMic;
    }));

    // Turned off, the headset's microphone may stay.
    ASSERT_TRUE(h.send(R::SetOutputOnlyMode{budsOut, false}).ok);
    setDefaultInput(h, budsIn);
    ASSERT_TRUE(h.send(R::SetBluetoothMemory{memory(std::nullopt, false)}).ok);
    EXPECT_EQ(h.machine->world()->defaultInputUID, budsIn);
}

TEST(BluetoothMemory, AUSBDefaultInputIsLeftAloneWhateverTheRecords) {
    RuntimeHarness h;
    startReady(h);
    plugUSBMicrophone(h);
    setDefaultInput(h, usbMic);
    ASSERT_TRUE(h.send(R::SetBluetoothMemory{memory(std::nullopt, true)}).ok);
    EXPECT_EQ(h.machine->world()->defaultInputUID, usbMic);
    EXPECT_EQ(log(h).find("output-only headset input moved"), std::string::npos);
}

TEST(BluetoothDetails, RegistryFirstThenTheSlowSourceReadOnceEveryThirtySeconds) {
    RuntimeHarness h;
    std::atomic<int> reads{0};
    // Only the codec is in the registry, as on PipeWire: battery and signal come from the slow read.
    h.machine->mutate([](SimWorld& w) {
        auto* d = w.deviceByUID(budsOut);
        d->bluetoothBattery.reset();
        d->bluetoothRSSI.reset();
        return std::string();
    });
    startReady(h, [&] {
        ++reads;
        return std::map<std::string, BluetoothReading>{{"ac:de:48:00:11:22", {40, -80}}};
    });
    // The first snapshot started a read; nothing waits for it.
    DeviceLiveStatus buds;
    ASSERT_TRUE(waitUntil([&] { return (buds = listedBuds(h)).batteryPercent.has_value(); }));
    EXPECT_EQ(buds.codec, "AAC");
    EXPECT_EQ(buds.batteryPercent, 40);
    EXPECT_EQ(buds.connectionQuality, "weak");
    listedBuds(h);
    EXPECT_EQ(reads.load(), 1);

    h.advance(30.0);
    listedBuds(h);
    EXPECT_TRUE(waitUntil([&] { return reads.load() == 2; }));
    listedBuds(h);
    EXPECT_EQ(reads.load(), 2);
}

TEST(BluetoothDetails, ACompleteRegistryAnswerNeedsNoSlowRead) {
    RuntimeHarness h;
    std::atomic<int> reads{0};
    startReady(h, [&] {
        ++reads;
        return std::map<std::string, BluetoothReading>{};
    });
    const DeviceLiveStatus buds = listedBuds(h);
    EXPECT_EQ(buds.batteryPercent, 80);
    EXPECT_EQ(buds.codec, "AAC");
    EXPECT_EQ(buds.connectionQuality, "fair");
    EXPECT_EQ(reads.load(), 0);
}

TEST(DeviceLimits, AVolumeRaisedByAnotherProgramAboveTheMaximumComesDownOnTheNextWatchdogPass) {
    RuntimeHarness h;
    startReady(h);
    DeviceSettings limit;
    limit.id = budsOut;
    limit.maxVolumePercent = 40;
    ASSERT_TRUE(h.send(R::SetDeviceSettings{limit}).ok);
    h.machine->mutate([](SimWorld& w) { return w.setVolume(budsOut, 0.9f); });
    h.advance(0.1);
    EXPECT_NEAR(budsVolume(h), 0.9f, 1e-6); // no listener on volume: the watchdog is the guard
    h.advance(TonaviRuntime::watchdogIntervalSeconds);
    EXPECT_NEAR(budsVolume(h), 0.4f, 1e-6);
}

TEST(BluetoothDetails, TheSlowReadsChildGivesItsOutputOrNothing) {
    EXPECT_EQ(BluetoothInfo::runChild({"sh", "-c", "echo out; echo err >&2"}), "out\n");
    EXPECT_EQ(BluetoothInfo::runChild({"sh", "-c", "echo partial; exit 3"}), std::nullopt);
    EXPECT_EQ(BluetoothInfo::runChild({"tonavi-no-such-program"}), std::nullopt);
    EXPECT_EQ(BluetoothInfo::runChild({}), std::nullopt);
}

} // namespace
} // namespace tonavi::testing
