#pragma once
// Switches and parameters of the four automations.

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace tonavi {

struct SmartSettings {
    bool followMe = false;
    double followMeBackgroundPercent = 0.0;
    bool loudnessGuard = false;
    double loudnessGuardCeilingDBFS = -3.0;
    bool autoDuck = false;
    bool micFollow = false;
    double autoDuckDepthDB = -12.0;
    std::vector<std::string> leaveAloneBundleIDs;
    bool protectMusicApps = true;
    std::vector<std::string> preferredMicUIDs;

    static constexpr std::size_t maxPreferredMics = 8;

    static SmartSettings defaults() { return SmartSettings(); }

    // The user's own choice of microphone goes first, so Mic follow keeps it while it is there; the
    // others keep their order, and the list keeps its bound.
    void preferMic(const std::string& uid) {
        if (uid.empty())
            return;
        std::erase(preferredMicUIDs, uid);
        preferredMicUIDs.insert(preferredMicUIDs.begin(), uid);
        if (preferredMicUIDs.size() > maxPreferredMics)
            preferredMicUIDs.resize(maxPreferredMics);
    }

    bool operator==(const SmartSettings&) const = default;
};

void to_json(nlohmann::json& j, const SmartSettings& value);
// Also absorbs the older keys "followMeDuckDB" and "loudnessGuardCapPercent".
void from_json(const nlohmann::json& j, SmartSettings& value);

} // namespace tonavi
