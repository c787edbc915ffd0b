#pragma once
// One device of the simulated machine: a physical endpoint, or an aggregate built by a program.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "platform/AggregateDeviceDescription.hpp"
#include "platform/AudioHardwareTypes.hpp"

namespace tonavi {

struct SimDevice {
    AudioObjectID id = 0;
    std::string uid;
    std::string name;
    std::uint32_t transport = kAudioDeviceTransportTypeBuiltIn;
    std::vector<std::uint32_t> inputStreams;  // channels per stream
    std::vector<std::uint32_t> outputStreams; // channels per stream
    // Output volume scalars by element (0 is the main element); absent elements have no control.
    std::map<std::uint32_t, float> volumeElements;
    bool hasVirtualMainVolume = false;
    float virtualMainVolume = 1.0f; // used only when there are no elements
    bool hasMute = false;
    bool muted = false;
    double sampleRate = 48000.0;
    // Devices that name the same clock run at one rate: setting it on one sets it on all (PipeWire's
    // single graph clock, or devices locked to one word clock). Empty: a clock of its own.
    std::string clock;
    std::vector<double> availableSampleRates; // empty: any positive rate
    std::uint32_t bufferFrameSize = 512;
    std::uint32_t bufferFrameSizeMin = 32;
    std::uint32_t bufferFrameSizeMax = 4096;
    bool alive = true;
    std::vector<std::string> relatedUIDs;
    // Selectors (four characters) whose writes this device refuses, though it has the property.
    std::vector<std::string> readOnly;
    // Reads of the default output that pass before a switch to this device shows: a Bluetooth
    // route takes a while to settle after the write was accepted. 0 switches at once.
    std::uint32_t settleReads = 0;
    // What the Bluetooth registry says of this device (Bluetooth transports only): battery in
    // percent, active codec, signal in dBm. Absent facts are unknown.
    std::optional<std::int64_t> bluetoothBattery;
    std::optional<std::string> bluetoothCodec;
    std::optional<std::int64_t> bluetoothRSSI;

    // Aggregates: their description, the process that made them (its death removes them), and
    // how many IO procs run on them now.
    bool isAggregate = false;
    AggregateDeviceDescription aggregate;
    pid_t ownerPID = 0;
    std::uint32_t runningIOProcs = 0;

    bool isReadOnly(std::uint32_t selector) const;
    std::uint32_t channels(bool input) const;
};

} // namespace tonavi
