#pragma once
// Everything the user has set for one application, keyed by its bundle identifier.

#include "audio/chain/ChainSettings.hpp"

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace tonavi {

struct AppAudioState {
    std::string id;
    std::string displayName;
    double volume = 1.0;
    bool muted = false;
    kavore::ChainSettings chain = kavore::ChainSettings::empty();
    std::string redirectUID;
    bool favorite = false;
    std::int64_t favoriteRank = 0;
    std::optional<std::int64_t> displayRank;
    bool showInMenuBar = false;
    bool metersEnabled = true;
    bool directLocked = false;
    bool muteWhileBypassed = false;
    std::optional<double> timedMuteUntil;
    std::vector<std::string> pinnedEffectIDs;
    std::map<std::string, double> volumePerDevice;
    bool controlAttached = false;
    bool steadyVolume = false;

    AppAudioState() = default;
    // A fresh record for an application: the display name starts as the id.
    explicit AppAudioState(std::string appID) : id(appID), displayName(std::move(appID)) {}

    bool operator==(const AppAudioState&) const = default;
};

void to_json(nlohmann::json& j, const AppAudioState& value);
// Raises ConfigDecodeError when `id` is absent or not a string; every other key falls back.
void from_json(const nlohmann::json& j, AppAudioState& value);

} // namespace tonavi
