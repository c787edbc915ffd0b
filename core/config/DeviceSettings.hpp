#pragma once
// What the user has set for one audio device, keyed by its UID.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace tonavi {

struct DeviceSettings {
    std::string id;
    std::string nickname;
    std::string iconName;
    double maxVolumePercent = 100.0;
    bool forceSoftwareVolume = false;
    bool hidden = false;
    bool processingEnabled = true;
    std::optional<std::int64_t> preferredRank;
    std::optional<std::int64_t> displayRank;
    std::int64_t useCount = 0;
    std::optional<double> lastUsedAt;

    bool operator==(const DeviceSettings&) const = default;
};

void to_json(nlohmann::json& j, const DeviceSettings& value);
void from_json(const nlohmann::json& j, DeviceSettings& value);

} // namespace tonavi
