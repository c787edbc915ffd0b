#pragma once
// What the slow Bluetooth source knows of one device: its battery and its signal strength.

#include <cstdint>
#include <optional>

namespace tonavi {

struct BluetoothReading {
    std::optional<std::int64_t> battery; // percent
    std::optional<std::int64_t> rssi;    // dBm

    bool operator==(const BluetoothReading&) const = default;
};

} // namespace tonavi
