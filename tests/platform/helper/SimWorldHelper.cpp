// A second process on a shared simulated world, driven by the platform tests.
//   helper <world> listen <selector>          prints "armed", then "fired <n> on-queue <0|1>" when the
//                                             system object's property changes; exit 1 after 10 s
//   helper <world> set-default-output <uid>   writes the default output through the property

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <string>
#include <unistd.h>

#include "base/Dispatch.hpp"
#include "platform/sim/SimMachine.hpp"

using namespace tonavi;

namespace {

int listen(SimMachine& machine, const std::string& selector) {
    DispatchQueue queue("helper.listener");
    std::mutex mutex;
    std::condition_variable changed;
    int fired = 0;
    bool onQueue = false;
    auto block = std::make_shared<const std::function<void(std::span<const AudioObjectPropertyAddress>)>>(
        [&](std::span<const AudioObjectPropertyAddress>) {
            std::lock_guard<std::mutex> guard(mutex);
            ++fired;
            onQueue = queue.isCurrent();
            changed.notify_all();
        });
    const auto address = globalAddress(fourCharCodeFromString(selector));
    if (machine.addPropertyListener(kAudioObjectSystemObject, address, queue, block) != noErr)
        return 2;
    std::cout << "armed" << std::endl;
    std::unique_lock<std::mutex> lock(mutex);
    if (!changed.wait_for(lock, std::chrono::seconds(10), [&] { return fired > 0; }))
        return 1;
    std::cout << "fired " << fired << " on-queue " << (onQueue ? 1 : 0) << std::endl;
    lock.unlock();
    machine.removePropertyListener(kAudioObjectSystemObject, address, queue, block);
    return 0;
}

int setDefaultOutput(SimMachine& machine, const std::string& uid) {
    const auto* device = machine.world()->deviceByUID(uid);
    if (!device)
        return 2;
    const AudioObjectID id = device->id;
    return machine.set(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice),
                       id) == noErr
               ? 0
               : 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: helper <world> listen|set-default-output <argument>\n";
        return 64;
    }
    std::string error;
    auto machine = SimMachine::open(argv[1], error);
    if (!machine) {
        std::cerr << error << "\n";
        return 66;
    }
    const std::string command = argv[2];
    if (command == "listen")
        return listen(*machine, argv[3]);
    if (command == "set-default-output")
        return setDefaultOutput(*machine, argv[3]);
    return 64;
}
