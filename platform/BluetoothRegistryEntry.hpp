#pragma once
// One Bluetooth device as the system's fast registry describes it, with the registry's own keys:
// on macOS an "IOBluetoothDevice" service's DeviceAddress, BatteryPercent, BatteryPercentCombined,
// ActiveCodec and RSSI. Every field may be missing; the address comes as text or as six bytes.

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace tonavi {

struct BluetoothRegistryEntry {
    std::variant<std::monostate, std::string, std::vector<std::uint8_t>> deviceAddress;
    std::optional<std::int64_t> batteryPercent;
    std::optional<std::int64_t> batteryPercentCombined;
    std::optional<std::string> activeCodec;
    std::optional<std::int64_t> rssi;

    bool operator==(const BluetoothRegistryEntry&) const = default;
};

} // namespace tonavi
