#pragma once
// One application row as the client sees it in the status record.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace tonavi {

struct AppLiveStatus {
    std::string id; // the bundle identifier
    std::string displayName;
    std::optional<std::int64_t> pid;
    bool isRunning = false;
    bool isPlayingAudio = false;
    std::optional<bool> isCapturingAudio;
    std::optional<bool> hasRecentAudioSignal;
    std::optional<double> secondsSinceAudio;
    bool engaged = false;
    bool directLocked = false;
    float level = 0; // in the meter's scale
    double addedLatencyMS = 0;
    std::int64_t addedLatencySamples = 0;
    double volume = 0;
    bool muted = false;
    double boost = 0;
    std::string redirectUID;
    std::optional<std::string> tapSourceUID;
    std::optional<std::string> tapOutputUID;
    std::optional<std::int64_t> displayRank;
    std::optional<bool> userControlled;
    std::optional<bool> steadyVolume;
    bool isUserApp = false;
    std::optional<bool> audioCapable;
    std::optional<bool> soloed;
    std::optional<std::string> controlIssue;

    bool operator==(const AppLiveStatus&) const = default;
};

// Optional fields are left out when absent. Reading is strict and throws WireDecodingError.
void to_json(nlohmann::json& j, const AppLiveStatus& value);
void from_json(const nlohmann::json& j, AppLiveStatus& value);

} // namespace tonavi
