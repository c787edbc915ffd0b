#pragma once
// A machine with 50 output devices, some also inputs; beyond `distinctNames` they repeat names, as
// duplicates do.

#include "platform/sim/SimWorld.hpp"

namespace tonavi::bench {

inline SimWorld fiftyDevices(int distinctNames = 50) {
    SimWorld w;
    for (int i = 0; i < 50; ++i) {
        SimDevice d;
        d.id = w.allocateID();
        d.uid = "device-" + std::to_string(i);
        d.name = "Device " + std::to_string(i % distinctNames);
        d.transport = i % 5 == 0 ? kAudioDeviceTransportTypeBluetooth : kAudioDeviceTransportTypeUSB;
        d.outputStreams = {2};
        d.inputStreams = i % 3 == 0 ? std::vector<std::uint32_t>{1} : std::vector<std::uint32_t>{};
        d.volumeElements = {{1, 0.5f}, {2, 0.5f}};
        d.hasMute = true;
        w.devices.push_back(d);
    }
    w.defaultOutputUID = w.defaultInputUID = w.systemOutputUID = "device-0";
    return w;
}

} // namespace tonavi::bench
