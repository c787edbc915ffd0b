#pragma once
// A device manager over a private simulated machine. The state queue runs on a manual clock, so the
// status cache's age moves only when a test advances time; the blocking switch's pause is a no-op.

#include <gtest/gtest.h>

#include <atomic>

#include "tests/platform/support/Eventually.hpp"

#include "platform/sim/SimMachine.hpp"
#include "service/devices/TonaviDeviceManager.hpp"
#include "tests/service/SimLaptopNames.hpp"

namespace tonavi::testing {

inline SimDevice simDevice(std::string uid, std::string name, std::uint32_t transport, std::uint32_t outputs,
                           std::uint32_t inputs = 0) {
    SimDevice d{.uid = std::move(uid), .name = std::move(name), .transport = transport};
    if (outputs > 0) {
        d.outputStreams = {outputs};
        d.volumeElements = {{0, 0.5f}};
        d.hasMute = true;
    }
    if (inputs > 0)
        d.inputStreams = {inputs};
    return d;
}

inline SimWorld worldOf(std::vector<SimDevice> devices, const std::string& defaultOutput) {
    SimWorld w;
    for (auto& d : devices) {
        d.id = w.allocateID();
        w.devices.push_back(d);
    }
    w.defaultOutputUID = w.systemOutputUID = defaultOutput;
    return w;
}

inline DeviceSettings deviceSettings(std::string uid, double maxPercent = 100, bool hidden = false) {
    return {.id = std::move(uid), .maxVolumePercent = maxPercent, .hidden = hidden};
}

inline const TonaviDeviceManager::BluetoothInfo noBluetooth = [](const std::string&) {
    return TonaviDeviceManager::BluetoothDetails{};
};

class DeviceHarness {
  public:
    explicit DeviceHarness(SimWorld world = SimWorld::preset())
        : machine(std::move(world)),
          manager(TonaviDeviceManager::make(machine, queue, {.verifiedWait = [] {}})) {
        manager->setOnDevicesChanged([this] { ++devicesChanged; });
    }
    ~DeviceHarness() {
        queue.sync([this] { manager.reset(); });
    }

    AudioObjectID id(const std::string& uid) { return machine.world()->deviceByUID(uid)->id; }
    std::string defaultOutput() { return machine.world()->defaultOutputUID; }
    // Runs on the state queue, where the manager's policy state lives.
    template <class F> auto onQueue(F&& f) { return queue.syncResult(std::forward<F>(f)); }
    bool waitForDevicesChanged(int count) {
        return test::eventually([&] { return devicesChanged.load() >= count; });
    }
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    SimMachine machine;
    DispatchQueue queue{"tonavi.test.devices", clock};
    std::shared_ptr<TonaviDeviceManager> manager;
    std::atomic<int> devicesChanged{0};
};

} // namespace tonavi::testing
