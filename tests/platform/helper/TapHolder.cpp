// Holds a tap of one application in its own process, on whichever backend the environment names,
// until it is killed: the tests kill it to see the application come back on its own path.
//   platform_tap_holder <bundle-id>    prints "ready <pid>" once the tap's IO runs
//   platform_tap_holder --group <uid> <member-uid>...   holds an output group of the members instead
//   platform_tap_holder --listen <selector>   prints "armed", then "fired <n> on-queue <0|1>" when the
//                                             system object's property changes; exit 1 after 10 s

#include <future>
#include <iostream>
#include <string>
#include <unistd.h>

#include "platform/PlatformBackend.hpp"
#include "tests/platform/SimTestSupport.hpp"

using namespace tonavi;

int main(int argc, char** argv) {
    const bool group = argc >= 4 && std::string(argv[1]) == "--group";
    const bool listen = argc == 3 && std::string(argv[1]) == "--listen";
    std::string error;
    auto* backend = argc == 2 || group || listen ? PlatformBackend::current(&error) : nullptr;
    if (!backend) {
        std::cerr << error << "\n";
        return 64;
    }
    auto& audio = backend->audio();
    if (listen) {
        DispatchQueue queue("holder.listener");
        std::atomic<int> fired{0};
        std::promise<bool> first;
        auto block = std::make_shared<const std::function<void(std::span<const AudioObjectPropertyAddress>)>>(
            [&](std::span<const AudioObjectPropertyAddress>) {
                if (fired.fetch_add(1) == 0)
                    first.set_value(queue.isCurrent());
            });
        const auto address = globalAddress(fourCharCodeFromString(argv[2]));
        if (audio.addPropertyListener(kAudioObjectSystemObject, address, queue, block) != noErr)
            return 64;
        std::cout << "armed" << std::endl;
        auto onQueue = first.get_future();
        if (onQueue.wait_for(std::chrono::seconds(10)) != std::future_status::ready)
            return 1;
        std::cout << "fired " << fired.load() << " on-queue " << (onQueue.get() ? 1 : 0) << std::endl;
        audio.removePropertyListener(kAudioObjectSystemObject, address, queue, block);
        queue.sync([] {});
        return 0;
    }
    if (group) {
        const auto description = test::groupOf(argv[2], std::vector<std::string>(argv + 3, argv + argc));
        AudioObjectID device = 0;
        if (audio.createAggregateDevice(description, device) != noErr)
            return 5;
        std::cout << "ready " << ::getpid() << std::endl;
        ::pause();
    }
    std::vector<AudioObjectID> processes, tapped;
    audio.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyProcessObjectList), processes);
    for (AudioObjectID p : processes)
        if (test::read<std::string>(audio, p, globalAddress(kAudioProcessPropertyBundleID)) == argv[1])
            tapped.push_back(p);
    const auto output = test::read<AudioObjectID>(audio, kAudioObjectSystemObject,
                                                  globalAddress(kAudioHardwarePropertyDefaultOutputDevice));
    const auto outputUID =
        test::read<std::string>(audio, output.value_or(0), globalAddress(kAudioDevicePropertyDeviceUID));
    auto description = TapDescription::stereoMixdown(tapped);
    description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
    const auto device =
        tapped.empty() || !outputUID ? 0 : test::tapAggregate(audio, description, {*outputUID});
    if (!device || !test::startIO(audio, device, [](const auto&, auto&, const auto&) {}))
        return 2;
    std::cout << "ready " << ::getpid() << std::endl;
    ::pause();
}
