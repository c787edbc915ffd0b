// Holds a tap of one application in its own process, on whichever backend the environment names,
// until it is killed: the tests kill it to see the application come back on its own path.
//   platform_tap_holder <bundle-id>    prints "ready" once the tap's IO runs
//   platform_tap_holder --group <uid> <member-uid>...   holds an output group of the members instead

#include <csignal>
#include <iostream>
#include <string>
#include <unistd.h>

#include "platform/PlatformBackend.hpp"

using namespace tonavi;

int main(int argc, char** argv) {
    if (argc < 2 || (std::string(argv[1]) == "--group" ? argc < 4 : argc != 2))
        return 64;
    std::string error;
    auto* backend = PlatformBackend::current(&error);
    if (!backend) {
        std::cerr << error << "\n";
        return 69;
    }
    auto& audio = backend->audio();
    if (std::string(argv[1]) == "--group") {
        AggregateDeviceDescription group;
        group.uid = argv[2];
        group.name = "Held group";
        group.mainSubDevice = argv[3];
        for (int i = 3; i < argc; ++i)
            group.subDevices.push_back({argv[i], i > 3});
        AudioObjectID device = 0;
        if (audio.createAggregateDevice(group, device) != noErr)
            return 5;
        std::cout << "ready" << std::endl;
        ::pause();
        return 0;
    }
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
    if (tapped.empty() || outputUID.empty())
        return 2;
    auto description = TapDescription::stereoMixdown(tapped);
    description.isPrivate = true;
    description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
    AudioObjectID tap = 0;
    if (audio.createProcessTap(description, tap) != noErr)
        return 3;
    AggregateDeviceDescription aggregate;
    aggregate.uid = "holder.aggregate." + std::to_string(::getpid());
    aggregate.isPrivate = true;
    aggregate.mainSubDevice = outputUID;
    aggregate.subDevices = {{outputUID, true}};
    aggregate.taps = {{description.uuid, true}};
    AudioObjectID device = 0;
    AudioDeviceIOProcID proc = 0;
    if (audio.createAggregateDevice(aggregate, device) != noErr ||
        audio.createIOProcIDWithBlock(
            device, nullptr, [](const AudioBufferList&, AudioBufferList&, const AudioTimeStamp&) {}, proc) !=
            noErr ||
        audio.deviceStart(device, proc) != noErr)
        return 4;
    std::cout << "ready" << std::endl;
    ::pause();
    return 0;
}
