// A second process on a shared simulated world, driven by the platform tests.
//   helper <world> listen <selector>          prints "armed", then "fired <n> on-queue <0|1>" when the
//                                             system object's property changes; exit 1 after 10 s

#include <future>
#include <iostream>

#include "base/Dispatch.hpp"
#include "platform/sim/SimMachine.hpp"

using namespace tonavi;

int main(int argc, char** argv) {
    std::string error;
    auto machine = argc == 4 ? SimMachine::open(argv[1], error) : nullptr;
    if (!machine) {
        std::cerr << "usage: helper <world> listen <selector>\n" << error << "\n";
        return 64;
    }
    DispatchQueue queue("helper.listener");
    std::atomic<int> fired{0};
    std::promise<bool> first;
    auto block = std::make_shared<const std::function<void(std::span<const AudioObjectPropertyAddress>)>>(
        [&](std::span<const AudioObjectPropertyAddress>) {
            if (fired.fetch_add(1) == 0)
                first.set_value(queue.isCurrent());
        });
    const auto address = globalAddress(fourCharCodeFromString(argv[3]));
    if (std::string(argv[2]) != "listen" ||
        machine->addPropertyListener(kAudioObjectSystemObject, address, queue, block) != noErr)
        return 64;
    std::cout << "armed" << std::endl;
    auto onQueue = first.get_future();
    if (onQueue.wait_for(std::chrono::seconds(10)) != std::future_status::ready)
        return 1;
    std::cout << "fired " << fired.load() << " on-queue " << (onQueue.get() ? 1 : 0) << std::endl;
    machine->removePropertyListener(kAudioObjectSystemObject, address, queue, block);
    queue.sync([] {});
}
