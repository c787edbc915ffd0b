#include "platform/sim/SimProperties.hpp"

#include <algorithm>
#include <cmath>
#include <set>

namespace tonavi {

namespace {

bool isScope(AudioObjectPropertyScope scope) {
    return scope == kAudioObjectPropertyScopeGlobal || scope == kAudioObjectPropertyScopeInput ||
           scope == kAudioObjectPropertyScopeOutput;
}

bool deviceVisible(const SimDevice& d, pid_t viewer) {
    return !d.isAggregate || !d.aggregate.isPrivate || d.ownerPID == viewer;
}
bool tapVisible(const SimWorld::Tap& t, pid_t viewer) {
    return !t.description.isPrivate || t.ownerPID == viewer;
}

const SimDevice* visibleDevice(const SimWorld& w, pid_t viewer, AudioObjectID id) {
    const auto* d = w.device(id);
    return d && deviceVisible(*d, viewer) ? d : nullptr;
}

AudioObjectID idOfUID(const SimWorld& w, const std::string& uid) {
    const auto* d = w.deviceByUID(uid);
    return d ? d->id : kAudioObjectUnknown;
}

OSStatus readSystem(const SimWorld& w, pid_t viewer, const AudioObjectPropertyAddress& a,
                    AudioPropertyValue& v) {
    if (a.mElement != kAudioObjectPropertyElementMain)
        return kAudioHardwareUnknownPropertyError;
    switch (a.mSelector) {
    case kAudioHardwarePropertyDevices:
        v = SimProperties::deviceList(w, viewer);
        return noErr;
    case kAudioHardwarePropertyDefaultOutputDevice:
        v = idOfUID(w, w.defaultOutputUID);
        return noErr;
    case kAudioHardwarePropertyDefaultInputDevice:
        v = idOfUID(w, w.defaultInputUID);
        return noErr;
    case kAudioHardwarePropertyDefaultSystemOutputDevice:
        v = idOfUID(w, w.systemOutputUID);
        return noErr;
    case kAudioHardwarePropertyProcessObjectList: {
        std::vector<AudioObjectID> ids;
        for (const auto& p : w.processes)
            ids.push_back(p.id);
        v = ids;
        return noErr;
    }
    default:
        return kAudioHardwareUnknownPropertyError;
    }
}

OSStatus readDevice(const SimWorld& w, const SimDevice& d, const AudioObjectPropertyAddress& a,
                    AudioPropertyValue& v) {
    const bool output = a.mScope == kAudioObjectPropertyScopeOutput;
    const bool input = a.mScope == kAudioObjectPropertyScopeInput;
    if (a.mSelector == kAudioDevicePropertyVolumeScalar) {
        if (!output || d.isAggregate)
            return kAudioHardwareUnknownPropertyError;
        auto it = d.volumeElements.find(a.mElement);
        if (it == d.volumeElements.end())
            return kAudioHardwareUnknownPropertyError;
        v = it->second;
        return noErr;
    }
    if (a.mElement != kAudioObjectPropertyElementMain)
        return kAudioHardwareUnknownPropertyError;
    switch (a.mSelector) {
    case kAudioDevicePropertyDeviceUID:
        v = d.uid;
        return noErr;
    case kAudioObjectPropertyName:
        v = d.name;
        return noErr;
    case kAudioDevicePropertyTransportType:
        v = d.isAggregate ? kAudioDeviceTransportTypeAggregate : d.transport;
        return noErr;
    case kAudioDevicePropertyStreamConfiguration:
        if (!output && !input)
            return kAudioHardwareUnknownPropertyError;
        v = AudioStreamConfiguration{SimProperties::streams(w, d, input)};
        return noErr;
    case kAudioDevicePropertyNominalSampleRate:
        v = d.sampleRate;
        return noErr;
    case kAudioDevicePropertyBufferFrameSize:
        v = d.bufferFrameSize;
        return noErr;
    case kAudioDevicePropertyBufferFrameSizeRange:
        v = AudioValueRange{static_cast<double>(d.bufferFrameSizeMin),
                            static_cast<double>(d.bufferFrameSizeMax)};
        return noErr;
    case kAudioDevicePropertyDeviceIsAlive:
        v = static_cast<std::uint32_t>(d.alive ? 1 : 0);
        return noErr;
    case kAudioDevicePropertyRelatedDevices: {
        // A device is always related to itself.
        std::vector<AudioObjectID> ids{d.id};
        for (const auto& uid : d.relatedUIDs)
            if (auto id = idOfUID(w, uid))
                ids.push_back(id);
        v = ids;
        return noErr;
    }
    case kAudioHardwareServiceDeviceProperty_VirtualMainVolume: {
        if (!output || !d.hasVirtualMainVolume)
            return kAudioHardwareUnknownPropertyError;
        if (d.volumeElements.empty()) {
            v = d.virtualMainVolume;
        } else {
            double sum = 0;
            for (auto& [e, value] : d.volumeElements)
                sum += value;
            v = static_cast<float>(sum / static_cast<double>(d.volumeElements.size()));
        }
        return noErr;
    }
    case kAudioDevicePropertyMute:
        if (!output || !d.hasMute)
            return kAudioHardwareUnknownPropertyError;
        v = static_cast<std::uint32_t>(d.muted ? 1 : 0);
        return noErr;
    default:
        return kAudioHardwareUnknownPropertyError;
    }
}

OSStatus readProcess(const SimWorld& w, const SimProcess& p, const AudioObjectPropertyAddress& a,
                     AudioPropertyValue& v) {
    if (a.mElement != kAudioObjectPropertyElementMain)
        return kAudioHardwareUnknownPropertyError;
    switch (a.mSelector) {
    case kAudioProcessPropertyPID:
        v = static_cast<std::int32_t>(p.pid);
        return noErr;
    case kAudioProcessPropertyBundleID:
        v = p.bundleID;
        return noErr;
    case kAudioProcessPropertyIsRunningOutput:
        v = static_cast<std::uint32_t>(p.runningOutput ? 1 : 0);
        return noErr;
    case kAudioProcessPropertyIsRunningInput:
        v = static_cast<std::uint32_t>(p.runningInput ? 1 : 0);
        return noErr;
    case kAudioProcessPropertyDevices: {
        std::vector<AudioObjectID> ids;
        auto add = [&](bool input) {
            if (!(input ? p.runningInput : p.runningOutput))
                return;
            if (auto id = idOfUID(w, w.effectiveDeviceUID(p, input)))
                ids.push_back(id);
        };
        if (a.mScope != kAudioObjectPropertyScopeInput)
            add(false);
        if (a.mScope != kAudioObjectPropertyScopeOutput)
            add(true);
        v = ids;
        return noErr;
    }
    default:
        return kAudioHardwareUnknownPropertyError;
    }
}

OSStatus readTap(const SimWorld::Tap& t, const AudioObjectPropertyAddress& a, AudioPropertyValue& v) {
    if (a.mElement != kAudioObjectPropertyElementMain)
        return kAudioHardwareUnknownPropertyError;
    if (a.mSelector == kAudioTapPropertyUID) {
        v = t.description.uuid;
        return noErr;
    }
    if (a.mSelector == kAudioObjectPropertyName) {
        v = t.description.name;
        return noErr;
    }
    return kAudioHardwareUnknownPropertyError;
}

std::vector<AudioObjectPropertyAddress> addressesOfDevice() {
    std::vector<AudioObjectPropertyAddress> list;
    for (auto s : {kAudioDevicePropertyDeviceUID, kAudioObjectPropertyName, kAudioDevicePropertyTransportType,
                   kAudioDevicePropertyNominalSampleRate, kAudioDevicePropertyBufferFrameSize,
                   kAudioDevicePropertyBufferFrameSizeRange, kAudioDevicePropertyDeviceIsAlive,
                   kAudioDevicePropertyRelatedDevices})
        list.push_back(globalAddress(s));
    list.push_back(scopedAddress(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeInput));
    list.push_back(scopedAddress(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeOutput));
    for (std::uint32_t e = 0; e <= 4; ++e)
        list.push_back(scopedAddress(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, e));
    list.push_back(scopedAddress(kAudioHardwareServiceDeviceProperty_VirtualMainVolume,
                                 kAudioObjectPropertyScopeOutput));
    list.push_back(scopedAddress(kAudioDevicePropertyMute, kAudioObjectPropertyScopeOutput));
    return list;
}

std::vector<AudioObjectPropertyAddress> addressesOfProcess() {
    std::vector<AudioObjectPropertyAddress> list;
    for (auto s : {kAudioProcessPropertyPID, kAudioProcessPropertyBundleID,
                   kAudioProcessPropertyIsRunningOutput, kAudioProcessPropertyIsRunningInput})
        list.push_back(globalAddress(s));
    for (auto scope :
         {kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyScopeOutput, kAudioObjectPropertyScopeInput})
        list.push_back(scopedAddress(kAudioProcessPropertyDevices, scope));
    return list;
}

} // namespace

bool SimProperties::isVisible(const SimWorld& w, pid_t viewer, AudioObjectID object) {
    if (object == kAudioObjectSystemObject)
        return true;
    if (const auto* d = w.device(object))
        return deviceVisible(*d, viewer);
    if (w.process(object))
        return true;
    if (const auto* t = w.tap(object))
        return tapVisible(*t, viewer);
    return false;
}

std::vector<AudioObjectID> SimProperties::deviceList(const SimWorld& w, pid_t viewer) {
    std::vector<AudioObjectID> ids;
    for (const auto& d : w.devices)
        if (deviceVisible(d, viewer))
            ids.push_back(d.id);
    return ids;
}

std::uint32_t SimProperties::tapChannels(const SimWorld& w, const TapDescription& desc) {
    if (desc.mixdown)
        return 2;
    if (const auto* source = w.deviceByUID(desc.deviceUID)) {
        const auto out = streams(w, *source, false);
        if (desc.stream < out.size() && out[desc.stream] > 0)
            return out[desc.stream];
    }
    return 2;
}

std::vector<std::uint32_t> SimProperties::streams(const SimWorld& w, const SimDevice& d, bool input) {
    if (!d.isAggregate)
        return input ? d.inputStreams : d.outputStreams;
    std::vector<std::uint32_t> result;
    const auto& a = d.aggregate;
    for (const auto& sub : a.subDevices) {
        const auto* member = w.deviceByUID(sub.uid);
        if (!member || member->isAggregate)
            continue;
        // A mirroring (unstacked) aggregate plays the channels of its main device only.
        if (!input && !a.isStacked && sub.uid != a.mainSubDevice)
            continue;
        const auto& s = input ? member->inputStreams : member->outputStreams;
        result.insert(result.end(), s.begin(), s.end());
    }
    if (input) {
        for (const auto& st : a.taps)
            if (const auto* t = w.tapByUUID(st.uid))
                result.push_back(tapChannels(w, t->description));
    }
    return result;
}

OSStatus SimProperties::read(const SimWorld& w, pid_t viewer, AudioObjectID object,
                             const AudioObjectPropertyAddress& a, AudioPropertyValue& v) {
    if (!isScope(a.mScope))
        return kAudioHardwareUnknownPropertyError;
    if (object == kAudioObjectSystemObject)
        return readSystem(w, viewer, a, v);
    if (const auto* d = visibleDevice(w, viewer, object))
        return readDevice(w, *d, a, v);
    if (const auto* p = w.process(object))
        return readProcess(w, *p, a, v);
    if (const auto* t = w.tap(object); t && tapVisible(*t, viewer))
        return readTap(*t, a, v);
    return kAudioHardwareBadObjectError;
}

OSStatus SimProperties::settable(const SimWorld& w, pid_t viewer, AudioObjectID object,
                                 const AudioObjectPropertyAddress& a, bool& isSettable) {
    AudioPropertyValue probe;
    const OSStatus status = read(w, viewer, object, a, probe);
    if (status != noErr)
        return status;
    isSettable = false;
    if (object == kAudioObjectSystemObject) {
        isSettable = a.mSelector == kAudioHardwarePropertyDefaultOutputDevice ||
                     a.mSelector == kAudioHardwarePropertyDefaultInputDevice ||
                     a.mSelector == kAudioHardwarePropertyDefaultSystemOutputDevice;
    } else if (const auto* d = w.device(object)) {
        switch (a.mSelector) {
        case kAudioDevicePropertyNominalSampleRate:
            isSettable = d->availableSampleRates.size() != 1;
            break;
        case kAudioDevicePropertyBufferFrameSize:
            isSettable = d->bufferFrameSizeMin < d->bufferFrameSizeMax;
            break;
        case kAudioDevicePropertyVolumeScalar:
        case kAudioHardwareServiceDeviceProperty_VirtualMainVolume:
        case kAudioDevicePropertyMute:
            isSettable = true;
            break;
        default:
            break;
        }
        if (d->isReadOnly(a.mSelector))
            isSettable = false;
    }
    return noErr;
}

OSStatus SimProperties::write(SimWorld& w, pid_t viewer, AudioObjectID object,
                              const AudioObjectPropertyAddress& a, const AudioPropertyValue& v) {
    bool canSet = false;
    if (const OSStatus status = settable(w, viewer, object, a, canSet); status != noErr)
        return status;
    if (!canSet)
        return kAudioHardwareIllegalOperationError;

    if (object == kAudioObjectSystemObject) {
        const auto* id = std::get_if<std::uint32_t>(&v);
        if (!id)
            return kAudioHardwareBadPropertySizeError;
        const auto* d = visibleDevice(w, viewer, *id);
        if (!d)
            return kAudioHardwareBadDeviceError;
        const bool input = a.mSelector == kAudioHardwarePropertyDefaultInputDevice;
        // The system's roles belong to devices every program can see.
        if ((d->isAggregate && d->aggregate.isPrivate) || streams(w, *d, input).empty())
            return kAudioHardwareIllegalOperationError;
        const SimDefaultRole role = input ? SimDefaultRole::input
                                    : a.mSelector == kAudioHardwarePropertyDefaultOutputDevice
                                        ? SimDefaultRole::output
                                        : SimDefaultRole::systemOutput;
        if (role == SimDefaultRole::output) {
            w.pendingDefaultOutput.reset();
            if (d->settleReads > 0 && d->uid != w.defaultOutputUID) {
                w.pendingDefaultOutput = SimWorld::PendingDefault{d->uid, d->settleReads};
                return noErr;
            }
        }
        (role == SimDefaultRole::output  ? w.defaultOutputUID
         : role == SimDefaultRole::input ? w.defaultInputUID
                                         : w.systemOutputUID) = d->uid;
        return noErr;
    }

    SimDevice* d = w.device(object);
    if (!d)
        return kAudioHardwareIllegalOperationError;
    switch (a.mSelector) {
    case kAudioDevicePropertyNominalSampleRate: {
        const auto* rate = std::get_if<double>(&v);
        if (!rate)
            return kAudioHardwareBadPropertySizeError;
        if (!(std::isfinite(*rate) && *rate > 0.0))
            return kAudioDeviceUnsupportedFormatError;
        const auto& rates = d->availableSampleRates;
        if (!rates.empty() && std::find(rates.begin(), rates.end(), *rate) == rates.end())
            return kAudioDeviceUnsupportedFormatError;
        d->sampleRate = *rate;
        for (auto& other : w.devices)
            if (!d->clock.empty() && other.clock == d->clock)
                other.sampleRate = *rate;
        return noErr;
    }
    case kAudioDevicePropertyBufferFrameSize: {
        const auto* frames = std::get_if<std::uint32_t>(&v);
        if (!frames)
            return kAudioHardwareBadPropertySizeError;
        if (*frames < d->bufferFrameSizeMin || *frames > d->bufferFrameSizeMax)
            return kAudioHardwareIllegalOperationError;
        d->bufferFrameSize = *frames;
        return noErr;
    }
    case kAudioDevicePropertyVolumeScalar:
    case kAudioHardwareServiceDeviceProperty_VirtualMainVolume: {
        const auto* volume = std::get_if<float>(&v);
        if (!volume)
            return kAudioHardwareBadPropertySizeError;
        if (!std::isfinite(*volume))
            return kAudio_ParamError;
        const float clamped = std::clamp(*volume, 0.0f, 1.0f);
        if (a.mSelector == kAudioDevicePropertyVolumeScalar) {
            d->volumeElements[a.mElement] = clamped;
        } else {
            for (auto& [e, value] : d->volumeElements)
                value = clamped;
            d->virtualMainVolume = clamped;
        }
        return noErr;
    }
    case kAudioDevicePropertyMute: {
        const auto* muted = std::get_if<std::uint32_t>(&v);
        if (!muted)
            return kAudioHardwareBadPropertySizeError;
        d->muted = *muted != 0;
        return noErr;
    }
    default:
        return kAudioHardwareIllegalOperationError;
    }
}

std::vector<SimProperties::Change> SimProperties::changes(const SimWorld& before, const SimWorld& after,
                                                          pid_t viewer) {
    std::vector<Change> result;
    auto compare = [&](AudioObjectID object, const std::vector<AudioObjectPropertyAddress>& addresses) {
        for (const auto& a : addresses) {
            AudioPropertyValue v0, v1;
            const OSStatus s0 = read(before, viewer, object, a, v0);
            const OSStatus s1 = read(after, viewer, object, a, v1);
            if (s0 != s1 || (s0 == noErr && !(v0 == v1)))
                result.emplace_back(object, a);
        }
    };
    std::vector<AudioObjectPropertyAddress> system;
    for (auto s : {kAudioHardwarePropertyDevices, kAudioHardwarePropertyDefaultOutputDevice,
                   kAudioHardwarePropertyDefaultInputDevice, kAudioHardwarePropertyDefaultSystemOutputDevice,
                   kAudioHardwarePropertyProcessObjectList})
        system.push_back(globalAddress(s));
    compare(kAudioObjectSystemObject, system);

    std::set<AudioObjectID> devices, processes;
    for (const auto* w : {&before, &after}) {
        for (const auto& d : w->devices)
            devices.insert(d.id);
        for (const auto& p : w->processes)
            processes.insert(p.id);
    }
    const auto deviceAddresses = addressesOfDevice();
    for (auto id : devices)
        compare(id, deviceAddresses);
    const auto processAddresses = addressesOfProcess();
    for (auto id : processes)
        compare(id, processAddresses);
    return result;
}

bool SimProperties::matches(const AudioObjectPropertyAddress& l, const AudioObjectPropertyAddress& c) {
    const bool selector = l.mSelector == c.mSelector || l.mSelector == kAudioObjectPropertyScopeWildcard;
    const bool scope = l.mScope == c.mScope || l.mScope == kAudioObjectPropertyScopeWildcard ||
                       // A global-scope listener hears a property whatever scope changed.
                       l.mScope == kAudioObjectPropertyScopeGlobal;
    const bool element = l.mElement == c.mElement || l.mElement == kAudioObjectPropertyElementWildcard;
    return selector && scope && element;
}

} // namespace tonavi
