// Bluetooth memories in TonaviRuntime: a remembered device's volume recalled when it comes back
// or becomes the default output, and the microphone of a headset the user wants for output only
// kept from being the default input, since an open headset microphone drops its audio to the
// call profile. Everything here runs on serialQueue (or in the constructor, before any hook).

#include "service/TonaviRuntime.hpp"

#include "base/Log.hpp"
#include "core/smart/MicFollowPolicy.hpp"

#include <algorithm>

namespace tonavi {

namespace {

BundleIDSet asIDSet(const std::set<std::string>& uids) {
    return BundleIDSet(uids.begin(), uids.end());
}

} // namespace

void TonaviRuntime::applyBluetoothMemory(const std::string& uid) {
    const TonaviConfig config = engine_->config();
    const auto memory = std::find_if(config.bluetooth.begin(), config.bluetooth.end(),
                                     [&](const BluetoothDeviceMemory& m) { return m.id == uid; });
    if (memory == config.bluetooth.end())
        return;
    const auto device = devices_->deviceID(uid);
    if (!device)
        return;
    // The device's own volume limit still applies inside setVolume.
    if (memory->savedVolume)
        devices_->setVolume(*device, *memory->savedVolume);
    Log::info("tonavi: recalled bluetooth profile for " + memory->name);
}

void TonaviRuntime::enforceBluetoothOutputOnly() {
    using Transport = DeviceLiveStatus::Transport;
    BundleIDSet outputOnly;
    for (const auto& memory : engine_->config().bluetooth)
        if (memory.outputOnlyMode)
            outputOnly.insert(memory.id);
    if (outputOnly.empty())
        return;
    const auto input = devices_->defaultDevice(true);
    if (!input || devices_->transport(*input) != Transport::bluetooth)
        return;
    const auto inputUID = devices_->deviceUID(*input);
    if (!inputUID)
        return;
    const MicFollowPolicy::InputCandidate current{*inputUID, Transport::bluetooth,
                                                  asIDSet(devices_->relatedUIDs(*input))};
    if (MicFollowPolicy::pick({current}, outputOnly))
        return; // the current microphone is not an output-only headset's

    const auto settings = devices_->settingsSnapshot();
    std::vector<MicFollowPolicy::InputCandidate> candidates;
    for (const auto id : devices_->readDeviceIDs().value_or(std::vector<AudioObjectID>{})) {
        const Transport transport = devices_->transport(id);
        if (transport != Transport::builtin && transport != Transport::usb)
            continue;
        if (devices_->channelCount(id, true) < 1)
            continue;
        const auto uid = devices_->deviceUID(id);
        if (!uid)
            continue;
        if (auto it = settings.find(*uid); it != settings.end() && it->second.hidden)
            continue;
        candidates.push_back({*uid, transport, {}});
    }
    const auto pick = MicFollowPolicy::pick(candidates, outputOnly);
    if (!pick)
        return; // no other microphone: the headset's stays
    const auto target = devices_->deviceID(*pick);
    if (!target || !devices_->setDefaultDevice(*target, true))
        return;
    hardwareSnapshotAt_ = DispatchTime::min();
    Log::info("tonavi: output-only headset input moved to " + *pick);
}

TonaviReply TonaviRuntime::setBluetoothMemory(const BluetoothDeviceMemory& memory) {
    TonaviConfig config = engine_->config();
    std::erase_if(config.bluetooth, [&](const BluetoothDeviceMemory& m) { return m.id == memory.id; });
    config.bluetooth.push_back(memory);
    engine_->apply(config);
    persist();
    enforceBluetoothOutputOnly();
    return success();
}

TonaviReply TonaviRuntime::setOutputOnlyMode(const std::string& deviceUID, bool on) {
    TonaviConfig config = engine_->config();
    auto memory = std::find_if(config.bluetooth.begin(), config.bluetooth.end(),
                               [&](const BluetoothDeviceMemory& m) { return m.id == deviceUID; });
    if (memory == config.bluetooth.end()) {
        BluetoothDeviceMemory fresh;
        fresh.id = deviceUID;
        fresh.name = deviceUID;
        memory = config.bluetooth.insert(config.bluetooth.end(), std::move(fresh));
    }
    memory->outputOnlyMode = on;
    engine_->apply(config);
    persist();
    enforceBluetoothOutputOnly();
    // The reply's status shows the devices as they are after the change.
    applyHardwareSnapshot(captureHardwareSnapshot());
    return success();
}

} // namespace tonavi
