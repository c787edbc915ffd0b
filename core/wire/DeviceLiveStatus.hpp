#pragma once
// One audio device as the client sees it, in the status record and in device lists.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace tonavi {

struct DeviceLiveStatus {
    // How the device is attached; every output and input policy decides on this closed set. `virtual_`
    // is "virtual" on the wire (the plain name is a keyword here).
    enum class Transport { builtin, usb, bluetooth, airplay, aggregate, virtual_, other };

    std::string id; // the device UID
    std::string name;
    std::string nickname;
    Transport transport = Transport::other;
    bool isInput = false;
    bool isOutput = false;
    bool isDefaultOutput = false;
    bool isDefaultInput = false;
    double volume = 0;
    bool muted = false;
    double sampleRate = 0;
    std::int64_t channels = 0;
    float level = 0;
    std::optional<std::int64_t> batteryPercent;
    std::optional<std::string> codec;
    std::optional<std::string> connectionQuality;
    bool hasVolume = false;
    std::optional<bool> hidden;
    std::optional<std::int64_t> displayRank;
    std::optional<std::int64_t> useCount;
    std::optional<double> lastUsedAt;

    bool operator==(const DeviceLiveStatus&) const = default;
};

// "builtin", "usb", ..., "virtual", "other".
std::string_view transportName(DeviceLiveStatus::Transport transport);
// nullopt for any other text.
std::optional<DeviceLiveStatus::Transport> transportFromName(std::string_view name);

// Optional fields are left out when absent. Reading is strict and throws WireDecodingError.
void to_json(nlohmann::json& j, const DeviceLiveStatus& value);
void from_json(const nlohmann::json& j, DeviceLiveStatus& value);

} // namespace tonavi
