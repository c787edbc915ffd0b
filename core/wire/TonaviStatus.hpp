#pragma once
// The state of the service as the client draws it: carried by most replies, taken after the request.

#include "core/engine/HealthEvent.hpp"
#include "core/wire/AppLiveStatus.hpp"
#include "core/wire/AudioOnset.hpp"
#include "core/wire/DeviceLiveStatus.hpp"
#include "core/wire/SmartLiveStatus.hpp"

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi {

struct TonaviStatus {
    bool stageMode = false;
    bool anyEngaged = false;
    std::int64_t engagedCount = 0;
    std::vector<AppLiveStatus> apps;
    std::vector<DeviceLiveStatus> devices;
    std::string defaultOutputUID;
    std::string defaultInputUID;
    std::string soundEffectsUID;
    double outputVolume = 0; // of the default output, 0 to 1
    bool outputMuted = false;
    bool outputVolumeIsSoft = false; // no hardware volume; the software master stands in
    bool manualDuckOn = false;
    double sampleRate = 0;
    std::int64_t bufferFrames = 0;
    std::vector<HealthEvent> health;
    std::optional<std::vector<AudioOnset>> recentOnsets;
    std::optional<SmartLiveStatus> smartLive;
    std::optional<std::vector<std::string>> soloAppIDs;
    std::optional<std::vector<std::string>> soloUnmutedAppIDs;

    bool operator==(const TonaviStatus&) const = default;
};

// Optional fields are left out when absent. Reading is strict and throws WireDecodingError.
// (HealthEvent's own JSON functions live with the engine; the wire reads it strictly on its own.)
void to_json(nlohmann::json& j, const TonaviStatus& value);
void from_json(const nlohmann::json& j, TonaviStatus& value);

// Compact JSON text; throws WireEncodingError for a number that is not finite.
std::string encodeStatus(const TonaviStatus& status);
// Throws WireDecodingError.
TonaviStatus decodeStatus(std::string_view json);

} // namespace tonavi
