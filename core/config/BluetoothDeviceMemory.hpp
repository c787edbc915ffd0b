#pragma once
// What is remembered about one Bluetooth output between its connections.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace tonavi {

struct BluetoothDeviceMemory {
    std::string id;
    std::string name;
    std::optional<double> savedVolume;
    std::optional<std::string> eqPresetID;
    double maxVolumePercent = 100.0;
    bool outputOnlyMode = false;
    std::int64_t stabilityBufferFrames = 0;

    bool operator==(const BluetoothDeviceMemory&) const = default;
};

void to_json(nlohmann::json& j, const BluetoothDeviceMemory& value);
void from_json(const nlohmann::json& j, BluetoothDeviceMemory& value);

} // namespace tonavi
