#pragma once
// All a tap worker needs to render one application: the app's row and the global values that act
// on its gain. The service sends a new one whenever anything changes.

#include "audio/listening/GlobalListeningSettings.hpp"
#include "core/config/AppAudioState.hpp"
#include "core/config/AutoDuckRule.hpp"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tonavi {

struct TapWorkerState {
    AppAudioState app;
    std::string currentDefaultOutputUID;
    double sampleRate = 48000.0;
    bool stageMode = false;
    std::optional<std::string> followMeHero;
    double followMeBackgroundGain = 1.0;
    double softMasterGain = 1.0;
    double manualDuckDB = 0.0;
    std::set<std::string, std::less<>> autoDuckApps;
    double autoDuckDB = 0.0;
    bool loudnessGuardActive = false;
    double loudnessGuardCeilingDBFS = 0.0;
    kavore::GlobalListeningSettings globalListening = kavore::GlobalListeningSettings::off();
    std::vector<AutoDuckRule> duckRules;
    std::set<std::string, std::less<>> activeDuckTriggers;

    bool operator==(const TapWorkerState&) const = default;
};

// JSON keys are the field names; `followMeHero` is omitted when absent. Reading is strict: every
// other key is required, and a missing or mistyped one raises ConfigDecodeError.
void to_json(nlohmann::json& json, const TapWorkerState& state);
void from_json(const nlohmann::json& json, TapWorkerState& state);

} // namespace tonavi
