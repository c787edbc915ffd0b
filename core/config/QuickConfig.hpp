#pragma once
// A named snapshot of the whole mixer that the user recalls in one step, with the output and input
// devices to select when it is recalled.

#include "core/config/RigFile.hpp"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace tonavi {

struct QuickConfig {
    std::string name;
    std::string iconName;
    std::string shortcutKey;
    double savedAt = 0.0;
    RigFile rig;
    std::optional<std::string> outputDeviceUID;
    std::optional<std::string> outputDeviceName;
    std::optional<double> outputVolume;
    std::optional<std::string> inputDeviceUID;
    std::optional<std::string> inputDeviceName;

    bool operator==(const QuickConfig&) const = default;
};

void to_json(nlohmann::json& j, const QuickConfig& value);
// Strict: the first five fields are required, and an optional key that is present must read.
void from_json(const nlohmann::json& j, QuickConfig& value);

} // namespace tonavi
