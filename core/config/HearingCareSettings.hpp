#pragma once
// Listening-level summaries and alerts.

#include <nlohmann/json_fwd.hpp>

namespace tonavi {

struct HearingCareSettings {
    bool dailySummaryEnabled = false;
    bool highVolumeAlertsEnabled = false;
    double alertThreshold = 0.85;

    bool operator==(const HearingCareSettings&) const = default;
};

void to_json(nlohmann::json& j, const HearingCareSettings& value);
void from_json(const nlohmann::json& j, HearingCareSettings& value);

} // namespace tonavi
