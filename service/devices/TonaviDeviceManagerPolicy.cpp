// The user's device policy against the system: settings, locks, hidden devices, maximum volumes,
// the preferred order, the listeners that re-apply it, and the verified default-output switch.

#include "service/devices/TonaviDeviceManager.hpp"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cmath>
#include <thread>

#include "core/outputs/PreferredOutputPolicy.hpp"
#include "core/outputs/VerifiedOutputSwitch.hpp"

namespace tonavi {

bool TonaviDeviceManager::keepsItsOwnRate(std::uint32_t word) {
    // Wireless links and aggregates negotiate their rate; a lock must not fight them.
    switch (word) {
    case kAudioDeviceTransportTypeAirPlay:
    case kAudioDeviceTransportTypeBluetoothLE:
    case kAudioDeviceTransportTypeBluetooth:
    case kAudioDeviceTransportTypeAutoAggregate:
    case kAudioDeviceTransportTypeAggregate:
    case kAudioDeviceTransportTypeVirtual:
        return true;
    default:
        return false;
    }
}

void TonaviDeviceManager::updateSettingsOnly(const std::vector<DeviceSettings>& settings) {
    std::map<std::string, DeviceSettings> byUID;
    for (const auto& s : settings) {
        [[maybe_unused]] const bool inserted = byUID.emplace(s.id, s).second;
        assert(inserted && "the configuration keeps device IDs unique");
    }
    {
        std::lock_guard<std::mutex> guard(settingsLock_);
        settings_ = std::move(byUID);
    }
    invalidateDeviceCache();
}

void TonaviDeviceManager::apply(const std::vector<DeviceSettings>& settings, const GlobalLocks& locks,
                                const std::vector<std::string>& preferred) {
    updateSettingsOnly(settings);
    locks_ = locks;
    preferredOrder_ = preferred;

    if (!locks.volume) {
        lockedVolume_.reset();
    } else if (!lockedVolume_) {
        // Captured once, when the lock comes on; never overwritten while it stays on.
        if (auto output = defaultDevice(false))
            lockedVolume_ = volume(*output);
    }

    if (!locks.sampleRate) {
        lockedSampleRate_.clear();
    } else if (lockedSampleRate_.empty()) {
        for (auto id : readDeviceIDs().value_or(std::vector<AudioObjectID>{})) {
            auto uid = deviceUID(id);
            if (!uid || keepsItsOwnRate(transportWord(id)))
                continue;
            if (auto rate = sampleRate(id); rate && *rate > 0)
                lockedSampleRate_[*uid] = *rate;
        }
    }

    enforceMaxVolumes();
    enforcePreferredOrder();
}

void TonaviDeviceManager::rememberSampleRateLock(const std::string& uid, double rate) {
    lockedSampleRate_[uid] = rate;
}

void TonaviDeviceManager::recaptureLockedSampleRates() {
    for (auto& [uid, rate] : lockedSampleRate_)
        if (auto id = deviceID(uid))
            if (auto now = sampleRate(*id); now && *now > 0)
                rate = *now;
}

void TonaviDeviceManager::enforceMaxVolumes() {
    const auto settings = settingsSnapshot();
    if (std::none_of(settings.begin(), settings.end(),
                     [](const auto& e) { return e.second.maxVolumePercent < 100; }))
        return;
    for (auto id : readDeviceIDs().value_or(std::vector<AudioObjectID>{})) {
        auto uid = deviceUID(id);
        if (!uid)
            continue;
        auto it = settings.find(*uid);
        if (it == settings.end() || it->second.maxVolumePercent >= 100)
            continue;
        const double limit = it->second.maxVolumePercent / 100.0;
        // The dead band stops a device that rounds its scalar from being rewritten for ever.
        if (auto v = volume(id); v && limit + 0.001 < *v)
            setVolume(id, limit);
    }
}

void TonaviDeviceManager::enforcePreferredOrder() {
    if (manualOutputSelectionPending_ || preferredOrder_.empty())
        return;
    std::set<std::string> available;
    for (const auto& [uid, signature] : outputTopology())
        if (signature.alive && signature.channels >= 1 && !isHidden(uid))
            available.insert(uid);
    const auto pick = PreferredOutputPolicy::pick(sessionOutputUID_, available, preferredOrder_);
    if (!pick)
        return;
    if (auto current = defaultDevice(false); current && deviceUID(*current) == *pick)
        return;
    setDefaultOutputVerified(*pick);
}

std::vector<AudioObjectID> TonaviDeviceManager::visibleCandidates(bool input) {
    std::vector<AudioObjectID> result;
    for (auto id : readDeviceIDs().value_or(std::vector<AudioObjectID>{})) {
        auto uid = deviceUID(id);
        if (uid && !isHidden(*uid) && channelCount(id, input) > 0)
            result.push_back(id);
    }
    return result;
}

void TonaviDeviceManager::enforceHiddenDevices() {
    // A hidden device stays connected and working, but never holds a system role.
    for (bool input : {false, true}) {
        auto current = defaultDevice(input);
        auto uid = current ? deviceUID(*current) : std::nullopt;
        if (!uid || !isHidden(*uid))
            continue;
        const auto candidates = visibleCandidates(input);
        if (!candidates.empty())
            setDefaultDevice(candidates.front(), input);
    }
    auto alert = systemSoundEffectsDevice();
    auto alertUID = alert ? deviceUID(*alert) : std::nullopt;
    if (!alertUID || !isHidden(*alertUID))
        return;
    std::optional<AudioObjectID> replacement = defaultDevice(false);
    if (!replacement) {
        const auto candidates = visibleCandidates(false);
        if (!candidates.empty())
            replacement = candidates.front();
    }
    if (replacement)
        setSystemSoundEffectsDevice(*replacement);
}

void TonaviDeviceManager::enforceLocks() {
    if (locks_.volume && lockedVolume_) {
        if (auto output = defaultDevice(false)) {
            if (auto v = volume(*output); v && std::abs(*v - *lockedVolume_) > 0.005)
                setVolume(*output, *lockedVolume_);
        }
    }
    if (locks_.sampleRate) {
        for (const auto& [uid, rate] : lockedSampleRate_) {
            auto id = deviceID(uid);
            if (!id || keepsItsOwnRate(transportWord(*id)))
                continue;
            if (std::abs(sampleRate(*id).value_or(0) - rate) > 1.0)
                setSampleRate(*id, rate);
        }
    }
    if (locks_.mute) {
        // A mute lock means the device cannot be muted: it only ever un-mutes.
        if (auto output = defaultDevice(false); output && muted(*output) == true)
            setMuted(*output, false);
    }
}

AudioObjectPropertyListenerBlock
TonaviDeviceManager::makeBlock(std::function<void(TonaviDeviceManager&)> reaction) {
    std::weak_ptr<TonaviDeviceManager> weak = weak_from_this();
    return std::make_shared<const std::function<void(std::span<const AudioObjectPropertyAddress>)>>(
        [weak, reaction = std::move(reaction)](std::span<const AudioObjectPropertyAddress>) {
            if (auto self = weak.lock())
                reaction(*self);
        });
}

void TonaviDeviceManager::onDeviceListChanged() {
    refreshOutputListeners();
    invalidateDeviceCache();
    enforcePreferredOrder();
    enforceHiddenDevices();
    enforceMaxVolumes();
    enforceLocks();
    if (onDevicesChanged_)
        onDevicesChanged_();
}

void TonaviDeviceManager::onDefaultOutputChangedProperty() {
    enforceHiddenDevices();
    enforceLocks();
    if (auto output = defaultDevice(false))
        if (auto uid = deviceUID(*output); uid && onDefaultOutputChanged_)
            onDefaultOutputChanged_(*uid);
    if (onDevicesChanged_)
        onDevicesChanged_();
}

void TonaviDeviceManager::installListeners() {
    const std::pair<AudioObjectPropertySelector, std::function<void(TonaviDeviceManager&)>> reactions[] = {
        {kAudioHardwarePropertyDevices, [](TonaviDeviceManager& m) { m.onDeviceListChanged(); }},
        {kAudioHardwarePropertyDefaultOutputDevice,
         [](TonaviDeviceManager& m) { m.onDefaultOutputChangedProperty(); }},
        {kAudioHardwarePropertyDefaultInputDevice,
         [](TonaviDeviceManager& m) {
             if (m.onDevicesChanged_)
                 m.onDevicesChanged_();
         }},
    };
    for (const auto& [selector, reaction] : reactions) {
        OutputListener l{globalAddress(selector), makeBlock(reaction)};
        if (hardware_.addPropertyListener(kAudioObjectSystemObject, l.address, stateQueue_, l.block) == noErr)
            systemListeners_.push_back(std::move(l));
    }
}

void TonaviDeviceManager::refreshOutputListeners() {
    std::map<AudioObjectID, std::string> current;
    for (const auto& [uid, signature] : outputTopology())
        current[signature.objectID] = uid;

    for (auto it = outputListeners_.begin(); it != outputListeners_.end();) {
        auto now = current.find(it->first);
        // A changed UID on the same object ID is a new device.
        if (now != current.end() && now->second == it->second.first) {
            ++it;
            continue;
        }
        for (const auto& l : it->second.second)
            hardware_.removePropertyListener(it->first, l.address, stateQueue_, l.block);
        it = outputListeners_.erase(it);
    }
    for (const auto& [id, uid] : current) {
        if (outputListeners_.count(id))
            continue;
        std::vector<OutputListener> installed;
        for (const auto& address :
             {globalAddress(kAudioDevicePropertyNominalSampleRate),
              globalAddress(kAudioDevicePropertyDeviceIsAlive),
              scopedAddress(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeOutput)}) {
            OutputListener l{address, makeBlock([](TonaviDeviceManager& m) {
                                 m.invalidateDeviceCache();
                                 if (m.onDevicesChanged_)
                                     m.onDevicesChanged_();
                             })};
            // A device that refused some keeps what it got, until it leaves and comes back.
            if (hardware_.addPropertyListener(id, address, stateQueue_, l.block) == noErr)
                installed.push_back(std::move(l));
        }
        outputListeners_[id] = {uid, std::move(installed)};
    }
}

bool TonaviDeviceManager::setDefaultOutputVerified(const std::string& uid) {
    const auto target = deviceID(uid);
    const auto kind = target ? transport(*target) : Transport::other;
    const int attempts = kind == Transport::bluetooth || kind == Transport::airplay ? 50 : 20;
    std::weak_ptr<TonaviDeviceManager> weak = weak_from_this();
    return VerifiedOutputSwitch::perform(
        uid, attempts,
        [weak, uid] {
            auto self = weak.lock();
            if (!self)
                return false;
            auto id = self->deviceID(uid);
            return id && self->channelCount(*id, false) >= 1 && self->setDefaultDevice(*id, false);
        },
        [weak]() -> std::optional<std::string> {
            auto self = weak.lock();
            if (!self)
                return std::nullopt;
            auto id = self->defaultDevice(false);
            return id ? self->deviceUID(*id) : std::nullopt;
        },
        [this] {
            if (options_.verifiedWait)
                options_.verifiedWait();
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
        });
}

void TonaviDeviceManager::setDefaultOutputVerifiedAsync(const std::string& uid,
                                                        std::function<bool()> isCurrent,
                                                        std::function<void(bool)> completion) {
    if (isHidden(uid))
        return completion(false);
    // A Bluetooth or AirPlay device takes its time to come up: its switch gets the longer window.
    const auto target = deviceID(uid);
    const auto kind = target ? transport(*target) : Transport::other;
    const int attempts = kind == Transport::bluetooth || kind == Transport::airplay ? slowSwitchAttempts
                                                                                    : asyncSwitchAttempts;
    std::weak_ptr<TonaviDeviceManager> weak = weak_from_this();
    // A switch that fails must not leave its request behind: a system that remembers a wanted default
    // (PipeWire's configured default) would otherwise move the output there later, unasked.
    auto written = std::make_shared<std::atomic<bool>>(false);
    // The write back lands before the reply, so it can never overtake a later switch.
    auto finished = [weak, written, isCurrent, completion = std::move(completion)](bool succeeded) {
        auto self = weak.lock();
        if (succeeded || !written->load() || !isCurrent() || !self)
            return completion(succeeded);
        self->outputIOQueue_.async([weak, completion] {
            auto self = weak.lock();
            if (!self)
                return;
            if (auto current = self->defaultDevice(false))
                (void)self->hardware_.set(kAudioObjectSystemObject,
                                          globalAddress(kAudioHardwarePropertyDefaultOutputDevice), *current);
            self->stateQueue_.async([weak, completion] {
                if (weak.lock())
                    completion(false);
            });
        });
    };
    VerifiedOutputSwitch::performNonblocking(
        uid, attempts,
        [weak, uid, written](std::function<void(bool)> done) {
            auto self = weak.lock();
            if (!self)
                return;
            self->outputIOQueue_.async([weak, uid, done, written] {
                auto self = weak.lock();
                if (!self)
                    return;
                bool result = false;
                auto id = self->deviceID(uid);
                auto current = self->defaultDevice(false);
                if (current && self->deviceUID(*current) == uid) {
                    result = true; // already there: nothing to write
                } else if (id && self->channelCount(*id, false) >= 1) {
                    // Direct, not setDefaultDevice: the hidden refusal was made before the switch.
                    const OSStatus status = self->hardware_.set(
                        kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice), *id);
                    // "what": the system took the request but had not followed it when the write's own
                    // short wait ended. It is still switching; the polls decide, within this window.
                    result = status == noErr || status == kAudioHardwareUnspecifiedError;
                    written->store(result);
                }
                self->stateQueue_.async([weak, done, result] {
                    if (auto self = weak.lock()) {
                        self->invalidateDeviceCache();
                        done(result);
                    }
                });
            });
        },
        [weak](std::function<void(std::optional<std::string>)> done) {
            auto self = weak.lock();
            if (!self)
                return;
            self->outputIOQueue_.async([weak, done] {
                auto self = weak.lock();
                if (!self)
                    return;
                auto id = self->defaultDevice(false);
                auto uid = id ? self->deviceUID(*id) : std::nullopt;
                self->stateQueue_.async([weak, done, uid] {
                    if (weak.lock())
                        done(uid);
                });
            });
        },
        std::move(isCurrent),
        [weak](std::function<void()> step) {
            if (auto self = weak.lock())
                self->stateQueue_.after(asyncSwitchInterval, std::move(step));
        },
        std::move(finished));
}

} // namespace tonavi
