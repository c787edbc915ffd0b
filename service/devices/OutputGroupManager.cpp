#include "service/devices/OutputGroupManager.hpp"

#include <set>

#include "base/Log.hpp"
#include "core/outputs/OutputGroupIdentity.hpp"

namespace tonavi {

OutputGroupManager::GroupError OutputGroupManager::GroupError::memberUnavailable(const std::string& uid) {
    return {Kind::memberUnavailable, "output device " + uid + " is not connected"};
}
OutputGroupManager::GroupError OutputGroupManager::GroupError::memberHasNoOutput(const std::string& name) {
    return {Kind::memberHasNoOutput, name + " is not an output device"};
}
OutputGroupManager::GroupError OutputGroupManager::GroupError::memberIsNotPhysical(const std::string& name) {
    return {Kind::memberIsNotPhysical, name + " is an aggregate or virtual device and cannot be grouped"};
}
OutputGroupManager::GroupError OutputGroupManager::GroupError::createFailed(OSStatus status) {
    return {Kind::createFailed, "Core Audio could not create the output group (" + statusText(status) + ")"};
}
OutputGroupManager::GroupError OutputGroupManager::GroupError::destroyFailed(OSStatus status) {
    return {Kind::destroyFailed, "Core Audio could not remove the output group (" + statusText(status) + ")"};
}

std::string OutputGroupManager::statusText(OSStatus status) {
    const auto code = static_cast<std::uint32_t>(status);
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const auto byte = static_cast<unsigned char>((code >> shift) & 0xFF);
        if (byte < 32 || byte > 126)
            return std::to_string(status);
        text += static_cast<char>(byte);
    }
    return "'" + text + "'";
}

OutputGroupManager::OutputGroupManager(AudioHardware& hardware, std::shared_ptr<TonaviDeviceManager> devices)
    : hardware_(hardware), devices_(std::move(devices)) {}

std::vector<std::string> OutputGroupManager::validateLiveMembers(const OutputGroup& group) {
    auto uids = OutputGroupIdentity::validatedMemberUIDs(group);
    for (const auto& uid : uids) {
        auto id = devices_->deviceID(uid);
        if (!id)
            throw GroupError::memberUnavailable(uid);
        const auto name = devices_->stringProperty(*id, kAudioObjectPropertyName).value_or(uid);
        if (devices_->channelCount(*id, false) < 1)
            throw GroupError::memberHasNoOutput(name);
        const auto transport = devices_->transport(*id);
        if (transport == TonaviDeviceManager::Transport::aggregate ||
            transport == TonaviDeviceManager::Transport::virtual_)
            throw GroupError::memberIsNotPhysical(name);
    }
    return uids;
}

AudioObjectID OutputGroupManager::create(const OutputGroup& group,
                                         const std::vector<std::string>& memberUIDs) {
    AggregateDeviceDescription description;
    description.uid = OutputGroupIdentity::aggregateDeviceUID(group);
    description.name = std::string(OutputGroupIdentity::aggregateNamePrefix) + group.name;
    description.isPrivate = false; // other software must see the group
    description.isStacked = false; // mirrors the sound on every member rather than adding channels
    description.mainSubDevice = memberUIDs.front();
    // The first member is the clock; the others are drift-corrected against it.
    for (std::size_t i = 0; i < memberUIDs.size(); ++i)
        description.subDevices.push_back({memberUIDs[i], i > 0});
    AudioObjectID device = 0;
    const OSStatus status = hardware_.createAggregateDevice(description, device);
    if (status != noErr || device == 0)
        throw GroupError::createFailed(status);
    return device;
}

void OutputGroupManager::destroy(const std::string& groupID, bool missingIsSuccess) {
    const auto uid = OutputGroupIdentity::aggregateDeviceUID(groupID);
    auto id = devices_->deviceID(uid);
    if (!id) {
        installed_.erase(groupID);
        if (missingIsSuccess)
            return;
        throw GroupError::destroyFailed(kAudioHardwareBadDeviceError);
    }
    if (const OSStatus status = hardware_.destroyAggregateDevice(*id); status != noErr)
        throw GroupError::destroyFailed(status);
    installed_.erase(groupID);
    Log::info("tonavi: removed output group " + uid);
}

void OutputGroupManager::save(const OutputGroup& group) {
    const auto members = validateLiveMembers(group);
    destroy(group.id, true);
    AudioObjectID device = 0;
    try {
        device = create(group, members);
    } catch (...) {
        // The old aggregate is gone and is not restored (the system cannot hold two of one UID);
        // the next reconcile tries again.
        installed_.erase(group.id);
        throw;
    }
    installed_[group.id] = device;
    applyMemberLevels(group);
    devices_->invalidateDeviceCache();
    Log::info("tonavi: output group " + group.name + " installed as " +
              OutputGroupIdentity::aggregateDeviceUID(group));
}

void OutputGroupManager::remove(const std::string& groupID) {
    destroy(groupID, true);
    devices_->invalidateDeviceCache();
}

void OutputGroupManager::applyMemberLevels(const OutputGroup& group) {
    for (const auto& member : group.members) {
        auto id = devices_->deviceID(member.id);
        if (!id)
            continue;
        const bool muteWritten = devices_->setMuted(*id, member.muted);
        if (!member.muted)
            devices_->setVolume(*id, member.volume);
        else if (!muteWritten)
            devices_->setVolume(*id, 0.0); // a device with no mute control still falls silent
    }
}

void OutputGroupManager::reconcile(const std::vector<OutputGroup>& groups, bool forceRecreate) {
    std::set<std::string> wanted;
    for (const auto& g : groups)
        wanted.insert(OutputGroupIdentity::aggregateDeviceUID(g));

    // Aggregates left behind by a crash, or by a group deleted while the service was down.
    for (auto id : devices_->readDeviceIDs().value_or(std::vector<AudioObjectID>{})) {
        auto uid = devices_->deviceUID(id);
        if (!uid || !uid->starts_with(OutputGroupIdentity::aggregateUIDPrefix) || wanted.count(*uid))
            continue;
        if (const OSStatus status = hardware_.destroyAggregateDevice(id); status == noErr)
            Log::info("tonavi: removed output group " + *uid);
        else
            Log::info("tonavi: could not remove stale output group " + *uid + " (" + statusText(status) +
                      ")");
    }

    std::set<std::string> seen;
    for (const auto& group : groups) {
        if (!seen.insert(group.id).second)
            continue;
        try {
            // A group with a disconnected member is left as it stands.
            validateLiveMembers(group);
            const auto device = devices_->deviceID(OutputGroupIdentity::aggregateDeviceUID(group));
            auto it = installed_.find(group.id);
            if (forceRecreate || !device || it == installed_.end() || it->second != *device)
                save(group);
            else
                applyMemberLevels(group); // rebuilding would interrupt everything playing through it
        } catch (const std::exception& e) {
            Log::info("tonavi: output group " + group.name + ": " + e.what());
        }
    }
    devices_->invalidateDeviceCache();
}

} // namespace tonavi
