// Holds a tap of one application in its own process, on whichever backend the environment names,
// until it is killed: the tests kill it to see the application come back on its own path.
//   platform_tap_holder <bundle-id>    prints "ready <pid>" once the tap's IO runs

#include <iostream>
#include <string>
#include <unistd.h>

#include "platform/PlatformBackend.hpp"

using namespace tonavi;

int main(int argc, char** argv) {
    std::string error;
    auto* backend = argc == 2 ? PlatformBackend::current(&error) : nullptr;
    if (!backend) {
        std::cerr << error << "\n";
        return 64;
    }
    auto& audio = backend->audio();
    std::vector<AudioObjectID> processes, tapped;
    audio.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyProcessObjectList), processes);
    for (AudioObjectID p : processes) {
        std::string bundleID;
        if (audio.get(p, globalAddress(kAudioProcessPropertyBundleID), bundleID) == noErr &&
            bundleID == argv[1])
            tapped.push_back(p);
    }
    AudioObjectID output = 0;
    std::string outputUID;
    audio.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice), output);
    audio.get(output, globalAddress(kAudioDevicePropertyDeviceUID), outputUID);
    auto description = TapDescription::stereoMixdown(tapped);
    description.isPrivate = true;
    description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
    AggregateDeviceDescription aggregate;
    aggregate.uid = "holder.aggregate." + std::to_string(::getpid());
    aggregate.isPrivate = true;
    aggregate.mainSubDevice = outputUID;
    aggregate.subDevices = {{outputUID, true}};
    aggregate.taps = {{description.uuid, true}};
    AudioObjectID tap = 0, device = 0;
    AudioDeviceIOProcID proc = 0;
    if (tapped.empty() || outputUID.empty() || audio.createProcessTap(description, tap) != noErr ||
        audio.createAggregateDevice(aggregate, device) != noErr ||
        audio.createIOProcIDWithBlock(
            device, nullptr, [](const auto&, auto&, const auto&) {}, proc) != noErr ||
        audio.deviceStart(device, proc) != noErr)
        return 2;
    std::cout << "ready " << ::getpid() << std::endl;
    ::pause();
}
