// Devices and outputs in TonaviRuntime: the device manager's hooks, the cached hardware snapshot,
// verified output selection, output groups and the device requests. Everything runs on serialQueue
// except the hardware probe, which runs on its own queue and hands its result back.

#include "service/TonaviRuntime.hpp"
#include "service/RuntimeCallbacks.hpp"
#include "service/taps/TonaviTapProvider.hpp"

#include "base/Log.hpp"
#include "core/outputs/AudioEndpointResolver.hpp"
#include "core/outputs/AutomaticOutputPolicy.hpp"
#include "core/outputs/OutputGroupIdentity.hpp"
#include "core/outputs/OutputGroupValidationError.hpp"
#include "core/outputs/VerifiedOutputSwitch.hpp"
#include "core/wire/TonaviPayload.hpp"
#include "service/PayloadReply.hpp"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <climits>
#include <type_traits>

namespace tonavi {

namespace {

constexpr const char* supersededText = "superseded by a newer output selection";

// What the reconnection pass and output resolution ask of Bluetooth devices: nothing, so that
// they never wait on a slow source.
TonaviDeviceManager::BluetoothDetails noBluetooth(const std::string&) {
    return {};
}

DeviceSettings& settingsEntry(TonaviConfig& config, const std::string& uid) {
    for (auto& d : config.devices)
        if (d.id == uid)
            return d;
    DeviceSettings fresh;
    fresh.id = uid;
    config.devices.push_back(fresh);
    return config.devices.back();
}

std::string joined(const std::vector<std::string>& names) {
    std::string out;
    for (const auto& n : names)
        out += (out.empty() ? "" : ", ") + n;
    return out;
}

std::string removalBlockedMessage(const std::vector<std::string>& names) {
    return "Choose another " + joined(names) + " device first, then remove this device from Tonavi.";
}

} // namespace

// MARK: Start-up and hooks

void TonaviRuntime::createDeviceManager() {
    devices_ = TonaviDeviceManager::make(*audio_, *serialQueue_);
    bluetoothInfo_ = BluetoothInfo::make(*audio_, bluetoothProfiler_, clock_);
    hardwareProbeQueue_ = std::make_unique<DispatchQueue>("tonavi.hardware-probe", clock_);
}

OutputGroupManager& TonaviRuntime::outputGroups() {
    if (!outputGroups_)
        outputGroups_ = std::make_unique<OutputGroupManager>(*audio_, devices_);
    return *outputGroups_;
}

void TonaviRuntime::installDeviceListeners() {
    serialQueue_->sync([this] {
        std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
        devices_->setOnDevicesChanged(
            [weak] { withRuntime(weak, [](TonaviRuntime& rt) { rt.handleDevicesChanged(); }); });
        devices_->setOnDefaultOutputChanged([weak](const std::string& uid) {
            withRuntime(weak, [&](TonaviRuntime& rt) { rt.handleConfirmedDefaultOutput(uid); });
        });
        // What is connected now is the baseline: only later arrivals count as reconnections.
        const auto topology = devices_->outputTopology();
        for (const auto& [uid, signature] : topology)
            if (signature.alive)
                lastConnectedUIDs_.insert(uid);
        (void)outputTopology_.update(topology);
        // Device reads stay off this queue: until the first probe lands, a status lists no devices.
        refreshHardwareSnapshotIfNeeded(true);
        devices_->installListeners();
        devices_->refreshOutputListeners();
    });
}

void TonaviRuntime::handleDevicesChanged() {
    assert(serialQueue_->isCurrent());
    refreshHardwareSnapshotIfNeeded(true);
    if (coreAudioReady_.load())
        outputGroups().reconcile(engine_->config().groups, false);
    applyDevicePolicies();
    handleReconnectedDevices();
    handleOutputTopologyChange();
    enforceBluetoothOutputOnly();
    const TonaviConfig config = engine_->config();
    if (config.smart.micFollow || config.smart.loudnessGuard)
        nudgeSmart();
}

void TonaviRuntime::reconcileOutputGroups(bool forceRecreate) {
    outputGroups().reconcile(engine_->config().groups, forceRecreate);
}

void TonaviRuntime::applyDevicePolicies() {
    const TonaviConfig config = engine_->config();
    std::vector<const DeviceSettings*> ranked;
    for (const auto& d : config.devices)
        if (d.preferredRank)
            ranked.push_back(&d);
    std::stable_sort(ranked.begin(), ranked.end(), [](const DeviceSettings* a, const DeviceSettings* b) {
        return *a->preferredRank < *b->preferredRank;
    });
    std::vector<std::string> ids;
    for (const auto* d : ranked)
        ids.push_back(d->id);
    devices_->apply(config.devices, config.locks, ids);
}

void TonaviRuntime::enforceDeviceLimits() {
    devices_->enforceHiddenDevices();
    devices_->enforceMaxVolumes();
    devices_->enforceLocks();
}

// MARK: Hardware snapshot

std::optional<TonaviRuntime::HardwareSnapshot> TonaviRuntime::captureHardwareSnapshot() {
    auto ids = devices_->readDeviceIDs();
    if (!ids)
        return std::nullopt;
    HardwareSnapshot snapshot;
    snapshot.devices = devices_->liveStatus(bluetoothInfo_->closure(), ids);
    if (auto output = devices_->defaultDevice(false)) {
        snapshot.defaultOutputUID = devices_->deviceUID(*output).value_or("");
        if (auto rate = devices_->sampleRate(*output); rate && *rate > 0)
            snapshot.sampleRate = *rate;
        snapshot.bufferFrames = devices_->bufferFrameSize(*output).value_or(0);
        snapshot.outputHardwareVolume = devices_->volume(*output);
        snapshot.outputMuted = devices_->muted(*output).value_or(false);
    }
    if (auto input = devices_->defaultDevice(true))
        snapshot.defaultInputUID = devices_->deviceUID(*input).value_or("");
    if (auto effects = devices_->systemSoundEffectsDevice())
        snapshot.soundEffectsUID = devices_->deviceUID(*effects).value_or("");
    for (const auto& d : snapshot.devices)
        snapshot.deviceUIDs.insert(d.id);
    return snapshot;
}

void TonaviRuntime::applyHardwareSnapshot(std::optional<HardwareSnapshot> snapshot) {
    // The watchdog trusts the picture only while reads succeed and are recent.
    const double t = now();
    hardwareDiscoveryHealth_.lastAttempt = t;
    hardwareDiscoveryHealth_.latestReadSucceeded = snapshot.has_value();
    if (!snapshot)
        return; // a failed probe keeps the last good picture
    hardwareDiscoveryHealth_.lastSuccessfulRead = t;
    // Our own tap aggregates are plumbing, not devices anybody picks.
    std::erase_if(snapshot->devices,
                  [](const DeviceLiveStatus& d) { return d.id.starts_with(TonaviTapProvider::aggregateUIDPrefix); });
    std::erase_if(snapshot->deviceUIDs,
                  [](const std::string& uid) { return uid.starts_with(TonaviTapProvider::aggregateUIDPrefix); });
    hardwareSnapshot_ = std::move(*snapshot);
    hardwareSnapshotAt_ = clock_->now();
    statusInputsChanged();
}

void TonaviRuntime::refreshHardwareSnapshotIfNeeded(bool force, std::function<void()> then) {
    assert(serialQueue_->isCurrent());
    // Young by both clocks: the queue's (which tests drive) and the wall's (which dates discovery health).
    const double wallAge = now() - hardwareDiscoveryHealth_.lastSuccessfulRead;
    if (!force && (hardwareProbeInFlight_ ||
                   (clock_->now() - hardwareSnapshotAt_ < seconds(hardwareSnapshotLifetimeSeconds) &&
                    wallAge >= 0 && wallAge < hardwareSnapshotLifetimeSeconds))) {
        if (then)
            then();
        return;
    }
    const std::uint64_t generation = ++hardwareSnapshotGeneration_;
    hardwareProbeInFlight_ = true;
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    hardwareProbeQueue_->async([weak, generation, then = std::move(then)]() mutable {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            auto snapshot = rt.captureHardwareSnapshot();
            rt.serialQueue_->async(
                [weak, generation, snapshot = std::move(snapshot), then = std::move(then)]() mutable {
                    withRuntime(weak, [&](TonaviRuntime& rt) {
                        // A newer probe owns the snapshot; this one's picture is dropped.
                        if (rt.hardwareSnapshotGeneration_ == generation) {
                            rt.hardwareProbeInFlight_ = false;
                            rt.applyHardwareSnapshot(std::move(snapshot));
                        }
                        if (then)
                            then();
                    });
                });
        });
    });
}

// MARK: Output selection

std::optional<AudioObjectID> TonaviRuntime::defaultOutputID() {
    return devices_->defaultDevice(false);
}

bool TonaviRuntime::handleOutputSelectionAsync(const TonaviRequest& request,
                                               std::function<void(TonaviReply)> completion) {
    const auto* plain = std::get_if<TonaviRequest::SetOutputDevice>(&request.value);
    const auto* ordered = std::get_if<TonaviRequest::SetOutputDeviceOrdered>(&request.value);
    if (!plain && !ordered)
        return false;
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    serialQueue_->async([weak, request, completion = std::move(completion)] {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            if (const auto* o = std::get_if<TonaviRequest::SetOutputDeviceOrdered>(&request.value)) {
                // Refused before anything is looked at: the reply carries no status.
                if (!rt.outputSelectionOrder_.accept(o->clientID, o->generation))
                    return completion(TonaviReply::failure(supersededText));
                return rt.selectOutputAsync(o->uid, true, completion);
            }
            rt.selectOutputAsync(std::get<TonaviRequest::SetOutputDevice>(request.value).uid, true,
                                 completion);
        });
    });
    return true;
}

void TonaviRuntime::selectOutputAsync(const std::string& query, bool rememberPreference,
                                      std::function<void(TonaviReply)> completion) {
    assert(serialQueue_->isCurrent());
    const std::uint64_t generation = ++outputSelectionGeneration_;
    // A newer selection cancels the intents of an older one at once, before it is even resolved.
    manualOutputIntentPending_ = false;
    devices_->setManualOutputSelectionPending(false);
    if (AudioEndpointResolver::resolve(query, hardwareSnapshot_.devices, AudioEndpointRole::output))
        return switchOutput(generation, query, rememberPreference, std::move(completion));
    // The snapshot may predate a device that has just appeared (a group saved a moment ago, a device
    // that reconnected): look once more at the hardware, off this queue, before saying there is none.
    refreshHardwareSnapshotIfNeeded(true, [this, generation, query, rememberPreference,
                                           completion = std::move(completion)]() mutable {
        if (outputSelectionGeneration_ != generation)
            return completion(failure(supersededText));
        switchOutput(generation, query, rememberPreference, std::move(completion));
    });
}

void TonaviRuntime::switchOutput(std::uint64_t generation, const std::string& query, bool rememberPreference,
                                 std::function<void(TonaviReply)> completion) {
    assert(serialQueue_->isCurrent());
    const auto uid = AudioEndpointResolver::resolve(query, hardwareSnapshot_.devices, AudioEndpointRole::output);
    const auto settings = devices_->settingsSnapshot();
    if (!uid || (settings.contains(*uid) && settings.at(*uid).hidden))
        return completion(failure("no available output device matching " + query));
    std::string name = *uid;
    for (const auto& d : hardwareSnapshot_.devices)
        if (d.id == *uid) {
            name = d.name;
            break;
        }

    manualOutputIntentPending_ = rememberPreference;
    devices_->setManualOutputSelectionPending(true);

    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    auto isCurrent = [weak, generation] {
        bool current = false;
        withRuntime(weak, [&](TonaviRuntime& rt) { current = rt.outputSelectionGeneration_ == generation; });
        return current;
    };
    auto switched = [weak, generation, uid = *uid, name, rememberPreference,
                     completion = std::move(completion)](bool succeeded) {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            if (rt.outputSelectionGeneration_ != generation)
                return completion(rt.failure(supersededText)); // the flags belong to the newer one
            rt.devices_->setManualOutputSelectionPending(false);
            rt.manualOutputIntentPending_ = false;
            if (succeeded) {
                rt.handleConfirmedDefaultOutput(uid);
                if (rememberPreference)
                    rt.promotePreferredOutput(uid);
                rt.recordDeviceUse(uid, rt.now());
            }
            rt.completeOutputSelection(generation, name, succeeded, completion);
        });
    };
    devices_->setDefaultOutputVerifiedAsync(*uid, std::move(isCurrent), std::move(switched));
}

void TonaviRuntime::completeOutputSelection(std::uint64_t generation, const std::string& name, bool succeeded,
                                            std::function<void(TonaviReply)> completion) {
    const std::uint64_t probe = ++hardwareSnapshotGeneration_;
    hardwareProbeInFlight_ = true;
    devices_->invalidateDeviceCache();
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    hardwareProbeQueue_->async([weak, probe, generation, name, succeeded,
                                completion = std::move(completion)] {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            auto snapshot = rt.captureHardwareSnapshot();
            rt.serialQueue_->async([weak, probe, generation, name, succeeded, completion,
                                    snapshot = std::move(snapshot)]() mutable {
                withRuntime(weak, [&](TonaviRuntime& rt) {
                    if (rt.hardwareSnapshotGeneration_ == probe) {
                        rt.hardwareProbeInFlight_ = false;
                        if (rt.outputSelectionGeneration_ == generation) {
                            const bool captured = snapshot.has_value();
                            rt.applyHardwareSnapshot(std::move(snapshot));
                            if (!captured && succeeded) {
                                // The switch was seen; a probe that failed just after must not
                                // make the reply claim otherwise.
                                auto& hw = rt.hardwareSnapshot_;
                                hw.defaultOutputUID = rt.engine_->currentDefaultOutputUID();
                                for (auto& d : hw.devices)
                                    d.isDefaultOutput = d.id == hw.defaultOutputUID;
                            }
                        }
                    }
                    if (rt.outputSelectionGeneration_ != generation) {
                        rt.refreshHardwareSnapshotIfNeeded(true);
                        return completion(rt.failure(supersededText));
                    }
                    std::string current = rt.hardwareSnapshot_.defaultOutputUID;
                    for (const auto& d : rt.hardwareSnapshot_.devices)
                        if (d.isDefaultOutput) {
                            current = d.name;
                            break;
                        }
                    TonaviReply reply = succeeded
                                            ? rt.success()
                                            : rt.failure(VerifiedOutputSwitch::failureText(name, current));
                    completion(std::move(reply));
                });
            });
        });
    });
}

void TonaviRuntime::handleConfirmedDefaultOutput(const std::string& uid) {
    assert(serialQueue_->isCurrent());
    if (uid.empty() || uid == lastHandledDefaultOutputUID_)
        return; // the listener and a verified switch both report one change
    Log::info("tonavi: confirmed system output " + lastHandledDefaultOutputUID_ + " -> " + uid);
    devices_->setSessionOutputUID(uid);
    lastHandledDefaultOutputUID_ = uid;
    const std::uint64_t generation = ++defaultOutputGeneration_;

    std::vector<std::string> engaged = engine_->engagedBundleIDs();
    engine_->defaultOutputChanged(uid, false);
    hardwareSnapshotAt_ = DispatchTime::min();
    devices_->invalidateDeviceCache();
    if (engine_->config().systemRows.soundEffectsFollowsOutput)
        if (auto id = devices_->deviceID(uid))
            devices_->setSystemSoundEffectsDevice(*id);
    engine_->refreshTaps(engaged);
    applyBluetoothMemory(uid);
    restoreLanes(uid);

    // Helper processes often attach to the old route a moment after a switch; catch them.
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    serialQueue_->after(seconds(settlingPassSeconds), [weak, generation, uid] {
        withRuntime(weak, [&](TonaviRuntime& rt) { rt.settleDefaultRoute(generation, uid); });
    });
}

void TonaviRuntime::settleDefaultRoute(std::uint64_t generation, const std::string& uid) {
    if (defaultOutputGeneration_ != generation)
        return;
    const std::string systemDefault = engine_->currentDefaultOutputUID();
    std::vector<std::string> outOfStep;
    for (const auto& id : engine_->engagedBundleIDs()) {
        if (!engine_->hasTap(id))
            continue;
        std::string expected = engine_->routeFor(id);
        if (expected.empty() || !hardwareSnapshot_.deviceUIDs.contains(expected))
            expected = systemDefault;
        const auto source = tapProvider_->sourceDevice(id);
        const auto target = tapProvider_->targetDevice(id);
        const auto group = audioGroups_.find(id);
        const bool clientChanged = group != audioGroups_.end() && !group->second.objects.empty() &&
                                   tapProvider_->processGroupChanged(id, group->second);
        if (tapProvider_->ioStale(id, ioStaleSeconds) || clientChanged || (source && *source != systemDefault) ||
            (target && *target != expected))
            outOfStep.push_back(id);
    }
    if (outOfStep.empty())
        return;
    Log::info("tonavi: settling late default-route helpers onto " + uid);
    engine_->refreshTaps(outOfStep);
}

void TonaviRuntime::promotePreferredOutput(const std::string& uid) {
    TonaviConfig config = engine_->config();
    for (auto& d : config.devices)
        d.preferredRank.reset();
    settingsEntry(config, uid).preferredRank = 0;
    engine_->setConfigWithoutReconcile(config);
    applyDevicePolicies();
    persist();
}

bool TonaviRuntime::recordDeviceUse(const std::string& uid, double at) {
    if (uid.empty())
        return false;
    if (auto last = lastRecordedDeviceUse_.find(uid);
        last != lastRecordedDeviceUse_.end() && at - last->second < deviceUseDebounceSeconds)
        return false;
    lastRecordedDeviceUse_[uid] = at;
    TonaviConfig config = engine_->config();
    DeviceSettings& entry = settingsEntry(config, uid);
    if (entry.useCount < LLONG_MAX)
        ++entry.useCount;
    entry.lastUsedAt = at;
    engine_->setConfigWithoutReconcile(config);
    devices_->updateSettingsOnly(config.devices);
    return true;
}

// MARK: Reconnection and topology

void TonaviRuntime::handleReconnectedDevices() {
    std::set<std::string> keys;
    for (const auto& [uid, signature] : devices_->outputTopology())
        keys.insert(uid);
    std::set<std::string> appeared;
    std::set_difference(keys.begin(), keys.end(), lastConnectedUIDs_.begin(), lastConnectedUIDs_.end(),
                        std::inserter(appeared, appeared.end()));
    lastConnectedUIDs_ = keys;
    if (appeared.empty())
        return;
    for (const auto& uid : appeared) {
        applyBluetoothMemory(uid);
        restoreLanes(uid);
    }
    const TonaviConfig config = engine_->config();
    const std::string& effectsUID = config.systemRows.soundEffectsDeviceUID;
    if (!effectsUID.empty() && appeared.contains(effectsUID))
        if (auto id = devices_->deviceID(effectsUID)) {
            devices_->setSystemSoundEffectsDevice(*id);
            Log::info("tonavi: alert-sound device returned; re-pinned " + effectsUID);
        }
    if (config.locks.source || manualOutputIntentPending_)
        return; // no automatic move against a source lock or a user's choice in flight

    devices_->invalidateDeviceCache();
    std::vector<AutomaticOutputCandidate> candidates;
    std::optional<AutomaticOutputCandidate> current;
    for (const auto& d : devices_->liveStatus(noBluetooth)) {
        AutomaticOutputCandidate c{d.id, d.name, d.transport, d.isOutput, d.hidden.value_or(false)};
        if (d.isDefaultOutput && !current)
            current = c;
        candidates.push_back(std::move(c));
    }
    const auto target =
        AutomaticOutputPolicy::pick(appeared, current, candidates, devices_->preferredOrder());
    if (!target || (current && *target == current->uid))
        return;
    // A snapshot that predates the arrival makes the selection look again, off this queue.
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    selectOutputAsync(*target, false, [weak, uid = *target](TonaviReply reply) {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            if (!reply.ok) {
                Log::info("tonavi: reconnected output did not settle: " + reply.message);
                return;
            }
            Log::info("tonavi: automatically switched output to reconnected device " + uid);
            for (const auto& device : rt.hardwareSnapshot_.devices)
                if (device.id == uid)
                    rt.noteOutputMove(uid, device.name);
        });
    });
}

void TonaviRuntime::restoreLanes(const std::string& reconnectedUID) {
    const std::vector<std::string> waiting = engine_->deviceReconnected(reconnectedUID);
    for (const auto& id : waiting)
        Log::info("tonavi: lane restored, " + id + " back on " + reconnectedUID);
    if (!waiting.empty())
        engine_->refreshTaps(waiting);
}

void TonaviRuntime::handleOutputTopologyChange() {
    std::set<std::string> changed = outputTopology_.update(devices_->outputTopology());
    if (!coreAudioReady_.load() || changed.empty())
        return;
    for (const auto& group : engine_->config().groups)
        for (const auto& member : group.members)
            if (changed.contains(member.id)) {
                changed.insert(OutputGroupIdentity::aggregateDeviceUID(group));
                break;
            }
    const bool defaultChanged = changed.contains(engine_->currentDefaultOutputUID());
    std::vector<std::string> affected;
    for (const auto& id : engine_->engagedBundleIDs()) {
        const auto source = tapProvider_->sourceDevice(id);
        const auto target = tapProvider_->targetDevice(id);
        if (defaultChanged || (source && changed.contains(*source)) ||
            (target && changed.contains(*target)) || changed.contains(engine_->routeFor(id)))
            affected.push_back(id);
    }
    if (affected.empty())
        return;
    Log::info("tonavi: output format/topology changed; refreshing " + std::to_string(affected.size()) +
              " affected tap(s)");
    for (const auto& id : affected)
        scheduleTapRefresh(id, true);
    tapProvider_->resetCreationBackoff();
}

// MARK: Device requests

std::optional<TonaviReply> TonaviRuntime::handleDeviceRequestLocked(const TonaviRequest& request) {
    using R = TonaviRequest;
    return std::visit(
        [&](const auto& c) -> std::optional<TonaviReply> {
            using T = std::decay_t<decltype(c)>;
            auto unknown = [&](const std::string& uid) { return failure("no device with uid " + uid); };
            if constexpr (std::is_same_v<T, R::ListDevices> || std::is_same_v<T, R::ListBluetooth>) {
                // A list carries its payload and no status.
                auto list = devices_->liveStatus(bluetoothInfo_->closure());
                if constexpr (std::is_same_v<T, R::ListBluetooth>)
                    std::erase_if(list, [](const DeviceLiveStatus& d) {
                        return d.transport != DeviceLiveStatus::Transport::bluetooth;
                    });
                return payloadReply(list);
            } else if constexpr (std::is_same_v<T, R::SetOutputDevice> ||
                                 std::is_same_v<T, R::SetOutputDeviceOrdered>) {
                // One switch path: it waits for the system's confirmation and can be superseded, so it
                // answers through handleAsync only.
                return failure(std::string(request.caseName()) + " completes later; send it asynchronously");
            } else if constexpr (std::is_same_v<T, R::SetOutputVolume>) {
                return setOutputVolume(c.volume);
            } else if constexpr (std::is_same_v<T, R::SetOutputMuted>) {
                return setOutputMuted(c.muted);
            } else if constexpr (std::is_same_v<T, R::SetDeviceVolume>) {
                auto id = devices_->deviceID(c.uid);
                if (!id)
                    return unknown(c.uid);
                return devices_->setVolume(*id, c.volume) ? success() : failure("");
            } else if constexpr (std::is_same_v<T, R::SetDeviceMuted>) {
                auto id = devices_->deviceID(c.uid);
                if (!id)
                    return unknown(c.uid);
                return devices_->setMuted(*id, c.muted) ? success() : failure("");
            } else if constexpr (std::is_same_v<T, R::SetDeviceSampleRate>) {
                auto id = devices_->deviceID(c.uid);
                if (!id)
                    return unknown(c.uid);
                const bool locked = engine_->config().locks.sampleRate;
                if (locked)
                    devices_->rememberSampleRateLock(c.uid, c.rate);
                const bool ok = devices_->setSampleRate(*id, c.rate);
                if (ok && locked)
                    devices_->recaptureLockedSampleRates();
                return ok ? success() : failure("");
            } else if constexpr (std::is_same_v<T, R::SetInputDevice>) {
                return setInputDevice(c.uid);
            } else if constexpr (std::is_same_v<T, R::SetSoundEffectsDevice>) {
                return setSoundEffectsDevice(c.uid);
            } else if constexpr (std::is_same_v<T, R::SetDeviceHidden>) {
                return setDeviceHidden(c.uid, c.hidden);
            } else if constexpr (std::is_same_v<T, R::SetDeviceSettings>) {
                return setDeviceSettings(c._0);
            } else if constexpr (std::is_same_v<T, R::SetPreferredOrder>) {
                return setPreferredOrder(c.uids);
            } else if constexpr (std::is_same_v<T, R::SetDeviceDisplayOrder>) {
                return setDeviceDisplayOrder(c.uids);
            } else if constexpr (std::is_same_v<T, R::SetLocks>) {
                TonaviConfig config = engine_->config();
                config.locks = c._0;
                engine_->apply(config);
                applyDevicePolicies();
                persist();
                return success();
            } else if constexpr (std::is_same_v<T, R::SetBluetoothMemory>) {
                return setBluetoothMemory(c._0);
            } else if constexpr (std::is_same_v<T, R::SetOutputOnlyMode>) {
                return setOutputOnlyMode(c.deviceUID, c.on);
            } else if constexpr (std::is_same_v<T, R::SaveGroup>) {
                return saveGroup(c._0);
            } else if constexpr (std::is_same_v<T, R::DeleteGroup>) {
                return deleteGroup(c.id);
            } else {
                return std::nullopt;
            }
        },
        request.value);
}

TonaviReply TonaviRuntime::setOutputVolume(double volume) {
    auto id = defaultOutputID();
    if (!id)
        return failure("no default output");
    if (devices_->volume(*id)) {
        // The lock keeps what the user set here, not what it was when the lock came on.
        devices_->setLockedVolume(engine_->config().locks.volume ? std::optional<double>(volume)
                                                                 : std::nullopt);
        const bool ok = devices_->setVolume(*id, volume);
        return ok ? success() : failure("");
    }
    double limit = 100.0;
    const auto settings = devices_->settingsSnapshot();
    if (auto uid = devices_->deviceUID(*id); uid && settings.contains(*uid))
        limit = settings.at(*uid).maxVolumePercent;
    TonaviConfig config = engine_->config();
    config.softMasterPercent = std::max(0.0, std::min(volume * 100.0, std::min(limit, 100.0)));
    engine_->apply(config);
    // The reply already shows the new level; the render path hears it with the state persist sends.
    applySoftMasterNow();
    persist();
    return success();
}

TonaviReply TonaviRuntime::setOutputMuted(bool muted) {
    auto id = defaultOutputID();
    if (!id)
        return failure("no default output");
    if (devices_->volume(*id))
        return devices_->setMuted(*id, muted) ? success() : failure("");
    TonaviConfig config = engine_->config();
    config.softMasterMuted = muted;
    engine_->apply(config);
    applySoftMasterNow();
    persist();
    return success();
}

TonaviReply TonaviRuntime::setInputDevice(const std::string& uid) {
    auto id = devices_->deviceID(uid);
    if (!id)
        return failure("no device with uid " + uid);
    if (!devices_->setDefaultDevice(*id, true))
        return failure("device refused or hidden");
    recordDeviceUse(uid, now());
    // The user's choice wins over microphone follow.
    if (TonaviConfig config = engine_->config(); config.smart.micFollow) {
        config.smart.preferMic(uid);
        engine_->apply(config);
        persist();
    }
    return success();
}

TonaviReply TonaviRuntime::setSoundEffectsDevice(const std::string& uid) {
    bool ok = false;
    std::string resolved = uid;
    if (!uid.empty()) {
        auto id = devices_->deviceID(uid);
        if (!id)
            return failure("no device with uid " + uid);
        ok = devices_->setSystemSoundEffectsDevice(*id);
    } else if (auto output = defaultOutputID()) {
        ok = devices_->setSystemSoundEffectsDevice(*output);
        resolved = devices_->deviceUID(*output).value_or("");
    }
    TonaviConfig config = engine_->config();
    config.systemRows.soundEffectsDeviceUID = uid;
    config.systemRows.soundEffectsFollowsOutput = uid.empty();
    engine_->apply(config);
    if (!ok)
        return failure("HAL refused the sound effects device");
    recordDeviceUse(resolved, now());
    persist();
    return success();
}

TonaviReply TonaviRuntime::setDeviceHidden(const std::string& uid, bool hidden) {
    if (hidden)
        if (auto names = currentSystemRouteNames(uid); !names.empty())
            return failure(removalBlockedMessage(names));
    TonaviConfig config = engine_->config();
    const bool known = std::any_of(config.devices.begin(), config.devices.end(),
                                   [&](const DeviceSettings& d) { return d.id == uid; });
    if (!devices_->deviceID(uid) && !known)
        return failure("no device with uid " + uid);
    settingsEntry(config, uid).hidden = hidden;
    if (hidden) {
        for (auto& app : config.apps)
            if (app.redirectUID == uid)
                app.redirectUID.clear();
        std::erase_if(config.lanes, [&](const WorkspaceLane& lane) { return lane.deviceUID == uid; });
        for (auto& group : config.groups)
            std::erase_if(group.members, [&](const OutputGroupMember& m) { return m.id == uid; });
        std::erase_if(config.groups, [](const OutputGroup& g) { return g.members.size() < 2; });
    }
    engine_->apply(config);
    applyDevicePolicies();
    if (hidden)
        outputGroups().reconcile(engine_->config().groups, false);
    persist();
    refreshHardwareSnapshotIfNeeded(true);
    return success(hidden ? "Removed from Tonavi. The macOS driver was left installed."
                          : "Device restored to Tonavi.");
}

TonaviReply TonaviRuntime::setDeviceSettings(const DeviceSettings& settings) {
    if (settings.hidden)
        if (auto names = currentSystemRouteNames(settings.id); !names.empty())
            return failure(removalBlockedMessage(names));
    TonaviConfig config = engine_->config();
    settingsEntry(config, settings.id) = settings;
    engine_->apply(config);
    applyDevicePolicies();
    persist();
    return success();
}

TonaviReply TonaviRuntime::setPreferredOrder(const std::vector<std::string>& uids) {
    if (std::set<std::string>(uids.begin(), uids.end()).size() != uids.size())
        return failure("Preferred-device order contains duplicates.");
    TonaviConfig config = engine_->config();
    for (auto& d : config.devices)
        d.preferredRank.reset();
    for (std::size_t i = 0; i < uids.size(); ++i)
        settingsEntry(config, uids[i]).preferredRank = static_cast<std::int64_t>(i);
    engine_->apply(config);
    applyDevicePolicies();
    persist();
    return success();
}

TonaviReply TonaviRuntime::setDeviceDisplayOrder(const std::vector<std::string>& uids) {
    TonaviConfig config = engine_->config();
    for (auto& d : config.devices)
        d.displayRank.reset();
    for (std::size_t i = 0; i < uids.size(); ++i)
        settingsEntry(config, uids[i]).displayRank = static_cast<std::int64_t>(i); // a later place wins
    engine_->setConfigWithoutReconcile(config);
    devices_->updateSettingsOnly(config.devices);
    persist();
    refreshHardwareSnapshotIfNeeded(true);
    return success();
}

// A group exists twice, as a record in the configuration and as an aggregate in the system: both
// change, or neither.
TonaviReply TonaviRuntime::saveGroup(const OutputGroup& group) {
    const TonaviConfig kept = engine_->config();
    const auto found = std::find_if(kept.groups.begin(), kept.groups.end(),
                                    [&](const OutputGroup& g) { return g.id == group.id; });
    const std::optional<OutputGroup> previous =
        found == kept.groups.end() ? std::nullopt : std::optional<OutputGroup>(*found);
    // Puts the hardware back as it was; the text says what that rollback could not do.
    auto rollBack = [&](bool deleteNew) -> std::string {
        try {
            if (previous)
                outputGroups().save(*previous);
            else if (deleteNew)
                outputGroups().remove(group.id);
        } catch (const std::exception& r) {
            return std::string(previous ? "; previous group restore also failed: "
                                        : "; hardware rollback also failed: ") +
                   r.what();
        }
        return {};
    };
    try {
        outputGroups().save(group);
    } catch (const std::exception& e) {
        const std::string suffix = previous ? rollBack(false) : std::string();
        return failure(std::string("could not create output group: ") + e.what() + suffix);
    }
    TonaviConfig config = kept;
    if (auto existing = std::find_if(config.groups.begin(), config.groups.end(),
                                     [&](const OutputGroup& g) { return g.id == group.id; });
        existing != config.groups.end())
        *existing = group;
    else
        config.groups.push_back(group);
    engine_->apply(config);
    try {
        saveConfigToDisk(engine_->config());
    } catch (const std::exception& e) {
        engine_->apply(kept);
        return failure(std::string("could not save output group: ") + e.what() + rollBack(true));
    }
    // The status lists the new aggregate as an output at once.
    devices_->invalidateDeviceCache();
    applyHardwareSnapshot(captureHardwareSnapshot());
    return success();
}

TonaviReply TonaviRuntime::deleteGroup(const std::string& id) {
    const TonaviConfig kept = engine_->config();
    const auto found = std::find_if(kept.groups.begin(), kept.groups.end(),
                                    [&](const OutputGroup& g) { return g.id == id; });
    try {
        outputGroups().remove(id);
    } catch (const std::exception& e) {
        return failure(std::string("could not remove output group: ") + e.what());
    }
    TonaviConfig config = kept;
    std::erase_if(config.groups, [&](const OutputGroup& g) { return g.id == id; });
    engine_->apply(config);
    try {
        saveConfigToDisk(engine_->config());
    } catch (const std::exception& e) {
        engine_->apply(kept);
        std::string suffix;
        if (found != kept.groups.end()) {
            try {
                outputGroups().save(*found);
            } catch (const std::exception& r) {
                suffix = std::string("; hardware rollback also failed: ") + r.what();
            }
        }
        return failure(std::string("could not save group deletion: ") + e.what() + suffix);
    }
    devices_->invalidateDeviceCache();
    applyHardwareSnapshot(captureHardwareSnapshot());
    return success();
}

} // namespace tonavi
