// Construction and the plain hardware access: reads, writes, the topology and the status cache.

#include "service/devices/TonaviDeviceManager.hpp"

#include "core/outputs/BluetoothFacts.hpp"

#include <algorithm>
#include <cctype>
#include <cmath>

namespace tonavi {

namespace {

AudioObjectPropertyAddress
outputAddress(AudioObjectPropertySelector selector,
              AudioObjectPropertyElement element = kAudioObjectPropertyElementMain) {
    return scopedAddress(selector, kAudioObjectPropertyScopeOutput, element);
}

bool isTapAggregate(const std::string& uid) {
    return uid.starts_with(TonaviDeviceManager::tapAggregateUIDPrefix);
}


// Which of two outputs of one name is shown: the default, then the visible one, then the one with a
// volume control, then the one with more channels (the later one on a tie).
bool replaces(const DeviceLiveStatus& next, const DeviceLiveStatus& kept) {
    if (next.isDefaultOutput)
        return true;
    if (kept.isDefaultOutput)
        return false;
    const bool nextHidden = next.hidden.value_or(false), keptHidden = kept.hidden.value_or(false);
    if (nextHidden != keptHidden)
        return !nextHidden;
    if (next.hasVolume != kept.hasVolume)
        return next.hasVolume;
    return next.channels >= kept.channels;
}

} // namespace

std::shared_ptr<TonaviDeviceManager> TonaviDeviceManager::make(AudioHardware& hardware,
                                                               DispatchQueue& stateQueue, Options options) {
    return std::shared_ptr<TonaviDeviceManager>(
        new TonaviDeviceManager(hardware, stateQueue, std::move(options)));
}

TonaviDeviceManager::TonaviDeviceManager(AudioHardware& hardware, DispatchQueue& stateQueue, Options options)
    : hardware_(hardware), options_(std::move(options)), stateQueue_(stateQueue),
      outputIOQueue_(outputIOQueueLabel) {}

TonaviDeviceManager::~TonaviDeviceManager() {
    // The platform posts to stateQueue for as long as a registration lasts; the runtime's queue may
    // go before the platform does (tests), so nothing is left registered.
    for (const auto& l : systemListeners_)
        hardware_.removePropertyListener(kAudioObjectSystemObject, l.address, stateQueue_, l.block);
    for (const auto& [id, entry] : outputListeners_)
        for (const auto& l : entry.second)
            hardware_.removePropertyListener(id, l.address, stateQueue_, l.block);
}

std::optional<std::vector<AudioObjectID>> TonaviDeviceManager::readDeviceIDs() {
    std::vector<AudioObjectID> ids;
    if (hardware_.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDevices), ids) != noErr)
        return std::nullopt;
    return ids;
}

std::optional<std::string> TonaviDeviceManager::stringProperty(AudioObjectID object,
                                                               AudioObjectPropertySelector selector) {
    std::string value;
    if (hardware_.get(object, globalAddress(selector), value) != noErr)
        return std::nullopt;
    return value;
}

std::optional<std::string> TonaviDeviceManager::deviceUID(AudioObjectID device) {
    return stringProperty(device, kAudioDevicePropertyDeviceUID);
}

std::optional<AudioObjectID> TonaviDeviceManager::deviceID(const std::string& uid) {
    for (auto id : readDeviceIDs().value_or(std::vector<AudioObjectID>{}))
        if (deviceUID(id) == uid)
            return id;
    return std::nullopt;
}

std::optional<AudioObjectID> TonaviDeviceManager::defaultDevice(bool input) {
    AudioObjectID id = 0;
    const auto selector =
        input ? kAudioHardwarePropertyDefaultInputDevice : kAudioHardwarePropertyDefaultOutputDevice;
    if (hardware_.get(kAudioObjectSystemObject, globalAddress(selector), id) != noErr || id == 0)
        return std::nullopt;
    return id;
}

std::optional<AudioObjectID> TonaviDeviceManager::systemSoundEffectsDevice() {
    AudioObjectID id = 0;
    if (hardware_.get(kAudioObjectSystemObject,
                      globalAddress(kAudioHardwarePropertyDefaultSystemOutputDevice), id) != noErr ||
        id == 0)
        return std::nullopt;
    return id;
}

std::uint32_t TonaviDeviceManager::transportWord(AudioObjectID device) {
    std::uint32_t word = kAudioDeviceTransportTypeUnknown;
    hardware_.get(device, globalAddress(kAudioDevicePropertyTransportType), word);
    return word;
}

TonaviDeviceManager::Transport TonaviDeviceManager::transportOfWord(std::uint32_t word) {
    switch (word) {
    case kAudioDeviceTransportTypeBuiltIn:
        return Transport::builtin;
    case kAudioDeviceTransportTypeUSB:
        return Transport::usb;
    case kAudioDeviceTransportTypeBluetooth:
    case kAudioDeviceTransportTypeBluetoothLE:
        return Transport::bluetooth;
    case kAudioDeviceTransportTypeAirPlay:
        return Transport::airplay;
    case kAudioDeviceTransportTypeAggregate:
    case kAudioDeviceTransportTypeAutoAggregate:
        return Transport::aggregate;
    case kAudioDeviceTransportTypeVirtual:
        return Transport::virtual_;
    default:
        return Transport::other;
    }
}

TonaviDeviceManager::Transport TonaviDeviceManager::transport(AudioObjectID device) {
    return transportOfWord(transportWord(device));
}

int TonaviDeviceManager::channelCount(AudioObjectID device, bool input) {
    const auto address =
        scopedAddress(kAudioDevicePropertyStreamConfiguration,
                      input ? kAudioObjectPropertyScopeInput : kAudioObjectPropertyScopeOutput);
    std::uint32_t size = 0;
    if (hardware_.getPropertyDataSize(device, address, size) != noErr || size == 0)
        return 0;
    AudioStreamConfiguration configuration;
    if (hardware_.get(device, address, configuration) != noErr)
        return 0;
    int channels = 0;
    for (auto n : configuration.channelsPerBuffer)
        channels += static_cast<int>(n);
    return channels;
}

std::set<std::string> TonaviDeviceManager::relatedUIDs(AudioObjectID device) {
    std::vector<AudioObjectID> ids;
    std::set<std::string> uids;
    if (hardware_.get(device, globalAddress(kAudioDevicePropertyRelatedDevices), ids) != noErr)
        return uids;
    for (auto id : ids)
        if (auto uid = deviceUID(id))
            uids.insert(*uid);
    return uids;
}

std::vector<AudioObjectPropertyElement> TonaviDeviceManager::volumeScalarElements(AudioObjectID device) {
    std::vector<AudioObjectPropertyElement> elements;
    for (AudioObjectPropertyElement e = 0; e <= 4; ++e)
        if (hardware_.hasProperty(device, outputAddress(kAudioDevicePropertyVolumeScalar, e)))
            elements.push_back(e);
    return elements;
}

std::optional<double> TonaviDeviceManager::volume(AudioObjectID device) {
    const auto elements = volumeScalarElements(device);
    if (!elements.empty()) {
        double sum = 0;
        int read = 0;
        for (auto e : elements) {
            float v = 0;
            if (hardware_.get(device, outputAddress(kAudioDevicePropertyVolumeScalar, e), v) == noErr) {
                sum += v;
                ++read;
            }
        }
        return read > 0 ? std::optional<double>(sum / read) : std::nullopt;
    }
    const auto main = outputAddress(kAudioHardwareServiceDeviceProperty_VirtualMainVolume);
    float v = 0;
    if (hardware_.hasProperty(device, main) && hardware_.get(device, main, v) == noErr)
        return v;
    return std::nullopt;
}

double TonaviDeviceManager::clampToMax(AudioObjectID device, double value) {
    auto uid = deviceUID(device);
    if (!uid)
        return value;
    if (auto s = settingsFor(*uid))
        return std::min(s->maxVolumePercent / 100.0, value);
    return value;
}

bool TonaviDeviceManager::setVolume(AudioObjectID device, double value) {
    invalidateDeviceCache();
    value = clampToMax(device, std::isfinite(value) ? std::clamp(value, 0.0, 1.0) : 0.0);
    bool wrote = false;
    for (auto e : volumeScalarElements(device))
        wrote = hardware_.set(device, outputAddress(kAudioDevicePropertyVolumeScalar, e),
                              static_cast<float>(value)) == noErr ||
                wrote;
    if (wrote)
        return true;
    const auto main = outputAddress(kAudioHardwareServiceDeviceProperty_VirtualMainVolume);
    if (hardware_.hasProperty(device, main))
        return hardware_.set(device, main, static_cast<float>(value)) == noErr;
    return false;
}

std::optional<bool> TonaviDeviceManager::muted(AudioObjectID device) {
    std::uint32_t value = 0;
    if (hardware_.get(device, outputAddress(kAudioDevicePropertyMute), value) != noErr)
        return std::nullopt;
    return value == 1;
}

bool TonaviDeviceManager::setMuted(AudioObjectID device, bool muted) {
    invalidateDeviceCache();
    return hardware_.set(device, outputAddress(kAudioDevicePropertyMute), std::uint32_t(muted ? 1 : 0)) ==
           noErr;
}

std::optional<double> TonaviDeviceManager::sampleRate(AudioObjectID device) {
    double rate = 0;
    if (hardware_.get(device, globalAddress(kAudioDevicePropertyNominalSampleRate), rate) != noErr)
        return std::nullopt;
    return rate;
}

std::optional<std::uint32_t> TonaviDeviceManager::bufferFrameSize(AudioObjectID device) {
    std::uint32_t frames = 0;
    if (hardware_.get(device, globalAddress(kAudioDevicePropertyBufferFrameSize), frames) != noErr)
        return std::nullopt;
    return frames;
}

bool TonaviDeviceManager::setSampleRate(AudioObjectID device, double rate) {
    invalidateDeviceCache();
    return hardware_.set(device, globalAddress(kAudioDevicePropertyNominalSampleRate), rate) == noErr;
}

bool TonaviDeviceManager::setDefaultDevice(AudioObjectID device, bool input) {
    if (auto uid = deviceUID(device); uid && isHidden(*uid))
        return false;
    invalidateDeviceCache();
    const auto selector =
        input ? kAudioHardwarePropertyDefaultInputDevice : kAudioHardwarePropertyDefaultOutputDevice;
    return hardware_.set(kAudioObjectSystemObject, globalAddress(selector), device) == noErr;
}

bool TonaviDeviceManager::setSystemSoundEffectsDevice(AudioObjectID device) {
    if (auto uid = deviceUID(device); uid && isHidden(*uid))
        return false;
    invalidateDeviceCache();
    return hardware_.set(kAudioObjectSystemObject,
                         globalAddress(kAudioHardwarePropertyDefaultSystemOutputDevice), device) == noErr;
}

void TonaviDeviceManager::invalidateDeviceCache() {
    std::lock_guard<std::mutex> guard(cacheLock_);
    cachedDeviceStatusAt_ = DispatchTime::min();
}

std::map<std::string, OutputRouteSignature> TonaviDeviceManager::outputTopology() {
    std::map<std::string, OutputRouteSignature> topology;
    for (auto id : readDeviceIDs().value_or(std::vector<AudioObjectID>{})) {
        auto uid = deviceUID(id);
        if (!uid || isTapAggregate(*uid))
            continue;
        const int channels = channelCount(id, false);
        // A Bluetooth endpoint that is connecting reports no streams yet, and is still there.
        if (channels < 1 && transport(id) != Transport::bluetooth)
            continue;
        std::uint32_t alive = 0;
        hardware_.get(id, globalAddress(kAudioDevicePropertyDeviceIsAlive), alive);
        topology[*uid] = OutputRouteSignature{id, sampleRate(id).value_or(0), channels, alive != 0};
    }
    return topology;
}

std::vector<DeviceLiveStatus>
TonaviDeviceManager::liveStatus(const BluetoothInfo& bluetoothInfo,
                                const std::optional<std::vector<AudioObjectID>>& ids) {
    {
        std::lock_guard<std::mutex> guard(cacheLock_);
        if (!cachedDeviceStatus_.empty() &&
            stateQueue_.clock().now() < cachedDeviceStatusAt_ + statusCacheLifetime)
            return cachedDeviceStatus_;
    }
    const auto settings = settingsSnapshot();
    const auto defaultOutput = defaultDevice(false).value_or(0);
    const auto defaultInput = defaultDevice(true).value_or(0);

    std::vector<DeviceLiveStatus> result, outputs;
    for (auto id : ids ? *ids : readDeviceIDs().value_or(std::vector<AudioObjectID>{})) {
        auto uid = deviceUID(id);
        auto name = stringProperty(id, kAudioObjectPropertyName);
        if (!uid || !name || isTapAggregate(*uid))
            continue;
        DeviceLiveStatus s;
        s.id = *uid;
        s.name = *name;
        const int outputChannels = channelCount(id, false), inputChannels = channelCount(id, true);
        s.transport = transport(id);
        if (s.transport == Transport::bluetooth && bluetoothInfo) {
            const auto details = bluetoothInfo(BluetoothFacts::macFromUID(*uid));
            s.batteryPercent = details.battery;
            s.codec = details.codec;
            s.connectionQuality = details.quality;
        }
        const auto record = settings.find(*uid);
        const bool known = record != settings.end();
        s.nickname = known ? record->second.nickname : "";
        s.isDefaultOutput = id == defaultOutput;
        s.isDefaultInput = id == defaultInput;
        s.volume = volume(id).value_or(0);
        s.muted = muted(id).value_or(false);
        s.sampleRate = sampleRate(id).value_or(0);
        s.channels = std::max(outputChannels, inputChannels);
        s.hasVolume =
            !volumeScalarElements(id).empty() ||
            hardware_.hasProperty(id, outputAddress(kAudioHardwareServiceDeviceProperty_VirtualMainVolume));
        s.isInput = inputChannels > 0;
        s.isOutput = outputChannels > 0;
        s.level = 0;
        s.hidden = known && record->second.hidden;
        s.displayRank = known ? record->second.displayRank : std::nullopt;
        s.useCount = known ? record->second.useCount : 0;
        s.lastUsedAt = known ? record->second.lastUsedAt : std::nullopt;
        if (!s.isOutput) {
            result.push_back(std::move(s));
            continue;
        }
        // One physical output can surface as several objects of one name.
        auto same =
            std::find_if(outputs.begin(), outputs.end(), [&](const auto& o) { return o.name == s.name; });
        if (same == outputs.end())
            outputs.push_back(std::move(s));
        else if (replaces(s, *same))
            *same = std::move(s);
    }
    result.insert(result.end(), outputs.begin(), outputs.end());

    std::lock_guard<std::mutex> guard(cacheLock_);
    cachedDeviceStatus_ = result;
    cachedDeviceStatusAt_ = stateQueue_.clock().now();
    return result;
}

std::map<std::string, DeviceSettings> TonaviDeviceManager::settingsSnapshot() const {
    std::lock_guard<std::mutex> guard(settingsLock_);
    return settings_;
}

std::optional<DeviceSettings> TonaviDeviceManager::settingsFor(const std::string& uid) const {
    std::lock_guard<std::mutex> guard(settingsLock_);
    auto it = settings_.find(uid);
    return it == settings_.end() ? std::nullopt : std::optional<DeviceSettings>(it->second);
}

bool TonaviDeviceManager::isHidden(const std::string& uid) const {
    auto s = settingsFor(uid);
    return s && s->hidden;
}

} // namespace tonavi
