#pragma once
// Appearance settings. The user-interface application owns them; the service only carries them.

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tonavi {

enum class MenuBarIconStyle { systemSpeaker, tonaviIcon, matchOutputDevice };

struct UIPreferences {
    bool simpleView = true;
    bool compactWindow = false;
    bool pinned = false;
    std::string theme = "system";
    std::string accentHex;
    MenuBarIconStyle iconStyle = MenuBarIconStyle::systemSpeaker;
    double windowHeight = 560.0;

    static UIPreferences defaults() { return UIPreferences(); }

    bool operator==(const UIPreferences&) const = default;
};

void to_json(nlohmann::json& j, const UIPreferences& value);
void from_json(const nlohmann::json& j, UIPreferences& value);

} // namespace tonavi
