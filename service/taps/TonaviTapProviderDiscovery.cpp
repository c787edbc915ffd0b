// Process discovery and device helpers of TonaviTapProvider: static reads of Core Audio's view.

#include "service/taps/TonaviTapProvider.hpp"

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace tonavi {

namespace {

bool isRunningOutput(AudioHardware& hardware, AudioObjectID object) {
    std::uint32_t running = 0;
    // A process object may vanish at any time; a failed read counts as not running.
    hardware.get(object, globalAddress(kAudioProcessPropertyIsRunningOutput), running);
    return running == 1;
}

bool isRunningInput(AudioHardware& hardware, AudioObjectID object) {
    std::uint32_t running = 0;
    hardware.get(object, globalAddress(kAudioProcessPropertyIsRunningInput), running);
    return running == 1;
}

void addMember(AudioHardware& hardware, TapProcessIdentity& identity, AudioObjectID object,
               std::int32_t pid) {
    identity.objects.insert(object);
    identity.pids.insert(pid);
    for (auto device : TonaviTapProvider::processOutputDevices(hardware, object))
        identity.outputDevices.insert(device);
    if (isRunningOutput(hardware, object)) {
        identity.activeObjects.insert(object);
        identity.activePids.insert(pid);
    }
}

} // namespace

std::optional<std::vector<TonaviTapProvider::AudioProcess>>
TonaviTapProvider::readAudioProcesses(AudioHardware& hardware) {
    const auto address = globalAddress(kAudioHardwarePropertyProcessObjectList);
    std::uint32_t size = 0;
    if (hardware.getPropertyDataSize(kAudioObjectSystemObject, address, size) != noErr)
        return std::nullopt;
    if (size < sizeof(AudioObjectID))
        return std::vector<AudioProcess>{};
    std::vector<AudioObjectID> objects;
    if (hardware.get(kAudioObjectSystemObject, address, objects) != noErr)
        return std::nullopt;
    std::vector<AudioProcess> processes;
    processes.reserve(objects.size());
    for (auto object : objects) {
        AudioProcess p;
        p.object = object;
        hardware.get(object, globalAddress(kAudioProcessPropertyPID), p.pid);
        p.bundleID = bundleID(hardware, object);
        if (object == kAudioObjectUnknown || p.pid < 1)
            return std::nullopt;
        processes.push_back(std::move(p));
    }
    return processes;
}

std::vector<AudioObjectID> TonaviTapProvider::processOutputDevices(AudioHardware& hardware,
                                                                   AudioObjectID object) {
    std::vector<AudioObjectID> devices;
    if (hardware.get(object, scopedAddress(kAudioProcessPropertyDevices, kAudioObjectPropertyScopeOutput),
                     devices) != noErr)
        return {};
    return devices;
}

std::optional<std::string> TonaviTapProvider::bundleID(AudioHardware& hardware, AudioObjectID object) {
    std::string id;
    if (hardware.get(object, globalAddress(kAudioProcessPropertyBundleID), id) != noErr || id.empty())
        return std::nullopt;
    return id;
}

std::optional<std::string> TonaviTapProvider::ownerBundleID(AudioHardware& hardware, Workspace& workspace,
                                                            AudioObjectID object) {
    std::int32_t pid = -1;
    hardware.get(object, globalAddress(kAudioProcessPropertyPID), pid);
    if (pid >= 1) {
        const pid_t responsible = workspace.responsiblePID(pid);
        if (responsible >= 1)
            if (auto app = workspace.runningApplication(responsible); app && !app->bundleIdentifier.empty())
                return app->bundleIdentifier;
    }
    return bundleID(hardware, object);
}

TonaviTapProvider::ProcessGroup TonaviTapProvider::processGroup(AudioHardware& hardware, Workspace& workspace,
                                                                const std::string& id) {
    const auto processes = readAudioProcesses(hardware).value_or(std::vector<AudioProcess>{});
    std::optional<std::int32_t> ownerPID;
    if (auto apps = workspace.runningApplications(id); !apps.empty()) {
        ownerPID = apps.front().processIdentifier;
    } else {
        for (const auto& p : processes) {
            if (p.bundleID == id && p.pid > 0) {
                ownerPID = p.pid;
                break;
            }
        }
    }
    ProcessGroup group;
    group.identity.ownerPID = ownerPID;
    for (const auto& p : processes) {
        if (p.pid < 1)
            continue;
        const bool member = p.bundleID == id || (ownerPID && workspace.responsiblePID(p.pid) == *ownerPID);
        if (!member)
            continue;
        group.objects.push_back(p.object);
        group.pids.insert(p.pid);
        addMember(hardware, group.identity, p.object, p.pid);
    }
    return group;
}

std::optional<AudioSnapshot> TonaviTapProvider::audioSnapshot(AudioHardware& hardware, Workspace& workspace) {
    const auto processes = readAudioProcesses(hardware);
    if (!processes)
        return std::nullopt;
    AudioSnapshot snapshot;
    // Per snapshot: the app answering for a responsible PID, and the PID of each owning app.
    std::unordered_map<pid_t, std::optional<std::string>> ownerOfPID;
    std::unordered_map<std::string, std::int32_t> pidOfOwner;
    for (const auto& p : *processes) {
        if (p.pid < 1)
            continue;
        const bool playing = isRunningOutput(hardware, p.object);
        const bool capturing = isRunningInput(hardware, p.object);
        if (p.bundleID && !p.bundleID->empty())
            snapshot.processes.push_back({*p.bundleID, p.pid, playing});

        const pid_t responsible = workspace.responsiblePID(p.pid);
        std::optional<std::string> owner;
        if (responsible >= 1) {
            auto it = ownerOfPID.find(responsible);
            if (it == ownerOfPID.end()) {
                std::optional<std::string> found;
                if (auto app = workspace.runningApplication(responsible);
                    app && !app->bundleIdentifier.empty())
                    found = app->bundleIdentifier;
                it = ownerOfPID.emplace(responsible, found).first;
            }
            owner = it->second;
        }
        if (!owner)
            owner = p.bundleID;
        if (!owner || owner->empty())
            continue;

        snapshot.ownersByObject[p.object] = *owner;
        auto pidIt = pidOfOwner.find(*owner);
        if (pidIt == pidOfOwner.end()) {
            std::int32_t ownerPID = p.pid;
            if (auto apps = workspace.runningApplications(*owner); !apps.empty())
                ownerPID = apps.front().processIdentifier;
            else if (responsible > 0)
                ownerPID = responsible;
            pidIt = pidOfOwner.emplace(*owner, ownerPID).first;
        }
        auto [groupIt, created] = snapshot.groups.try_emplace(*owner);
        if (created)
            groupIt->second.ownerPID = pidIt->second;
        addMember(hardware, groupIt->second, p.object, p.pid);
        auto& activity = snapshot.resolved[*owner];
        activity.playing = activity.playing || playing;
        activity.capturing = activity.capturing || capturing;
    }
    return snapshot;
}

AudioObjectID TonaviTapProvider::deviceID(AudioHardware& hardware, const std::string& uid) {
    if (uid.empty())
        return kAudioObjectUnknown;
    std::vector<AudioObjectID> devices;
    if (hardware.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDevices), devices) !=
        noErr)
        return kAudioObjectUnknown;
    for (auto device : devices) {
        std::string candidate;
        if (hardware.get(device, globalAddress(kAudioDevicePropertyDeviceUID), candidate) == noErr &&
            candidate == uid)
            return device;
    }
    return kAudioObjectUnknown;
}

bool TonaviTapProvider::deviceExists(AudioHardware& hardware, const std::string& uid) {
    return deviceID(hardware, uid) != kAudioObjectUnknown;
}

std::string TonaviTapProvider::defaultOutputUID(AudioHardware& hardware) {
    AudioObjectID device = kAudioObjectUnknown;
    if (hardware.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice),
                     device) != noErr ||
        device == kAudioObjectUnknown)
        return {};
    std::string uid;
    hardware.get(device, globalAddress(kAudioDevicePropertyDeviceUID), uid);
    return uid;
}

std::vector<int> TonaviTapProvider::streamChannelCounts(AudioHardware& hardware, AudioObjectID device,
                                                        AudioObjectPropertyScope scope) {
    AudioStreamConfiguration configuration;
    if (hardware.get(device, scopedAddress(kAudioDevicePropertyStreamConfiguration, scope), configuration) !=
        noErr)
        return {};
    std::vector<int> counts;
    for (auto channels : configuration.channelsPerBuffer)
        counts.push_back(static_cast<int>(channels));
    return counts;
}

bool TonaviTapProvider::preservesTransportBuffer(AudioHardware& hardware, AudioObjectID device) {
    std::uint32_t transport = 0;
    if (hardware.get(device, globalAddress(kAudioDevicePropertyTransportType), transport) != noErr)
        return true;
    switch (transport) {
    case kAudioDeviceTransportTypeAirPlay:
    case kAudioDeviceTransportTypeBluetooth:
    case kAudioDeviceTransportTypeBluetoothLE:
    case kAudioDeviceTransportTypeAggregate:
    case kAudioDeviceTransportTypeAutoAggregate:
    case kAudioDeviceTransportTypeVirtual:
        return true;
    default:
        return false;
    }
}

int TonaviTapProvider::preferredTapBufferFrameSize(AudioHardware& hardware, AudioObjectID device) {
    AudioValueRange range;
    if (hardware.get(device, globalAddress(kAudioDevicePropertyBufferFrameSizeRange), range) != noErr ||
        range.mMinimum < 1 || range.mMaximum < range.mMinimum)
        return preferredTapQuantum;
    const double low = std::ceil(range.mMinimum);
    const double high = std::floor(range.mMaximum);
    return static_cast<int>(std::clamp(static_cast<double>(preferredTapQuantum), low, std::max(low, high)));
}

} // namespace tonavi
