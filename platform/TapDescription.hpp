#pragma once
// What a process tap captures, in CATapDescription's terms: a set of process objects, either on
// one stream of one device or as a stereo mixdown of everything they play.

#include <cstdint>
#include <string>
#include <vector>

#include "platform/AudioHardwareTypes.hpp"

namespace tonavi {

enum class TapMuteBehavior : std::uint32_t {
    unmuted = 0,         // the processes stay audible on their own path
    muted = 1,           // silent on their own path while the tap exists
    mutedWhenTapped = 2, // silent while an IO proc reads the tap
};

struct TapDescription {
    std::vector<AudioObjectID> processes;
    bool mixdown = false;  // stereo mixdown of all the processes' output
    std::string deviceUID; // device-stream form: the device whose stream is tapped
    std::uint32_t stream = 0;
    std::string name;
    bool isPrivate = false;
    TapMuteBehavior muteBehavior = TapMuteBehavior::unmuted;
    // Created with the description; an aggregate names the tap by it.
    std::string uuid;

    // initWithProcesses:andDeviceUID:withStream:
    static TapDescription deviceStream(std::vector<AudioObjectID> processes, std::string deviceUID,
                                       std::uint32_t stream);
    // stereoMixdownOfProcesses
    static TapDescription stereoMixdown(std::vector<AudioObjectID> processes);
};

} // namespace tonavi
