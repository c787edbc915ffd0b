#pragma once
// The one persisted record: everything the user has set per application, per device and globally.
// Read tolerantly (see TonaviConfigJson.cpp): any JSON object reads as a configuration.

#include "audio/effects/EQPreset.hpp"
#include "audio/headphone/HeadphoneProfile.hpp"
#include "audio/listening/GlobalListeningSettings.hpp"
#include "core/config/AppAudioState.hpp"
#include "core/config/AutoDuckRule.hpp"
#include "core/config/BluetoothDeviceMemory.hpp"
#include "core/config/DeviceSettings.hpp"
#include "core/config/FocusLink.hpp"
#include "core/config/GlobalLocks.hpp"
#include "core/config/HearingCareSettings.hpp"
#include "core/config/OutputGroup.hpp"
#include "core/config/SmartSettings.hpp"
#include "core/config/SystemRowSettings.hpp"
#include "core/config/UIPreferences.hpp"
#include "core/config/WorkspaceLane.hpp"

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tonavi {

// Whose application identifiers a machine uses: bundle identifiers (macOS, and the simulated
// machine, which models a Mac) or desktop-entry and Flatpak identifiers (Linux).
enum class AppPlatform { macOS, linuxDesktop };

struct TonaviConfig {
    std::int64_t schemaVersion = currentSchemaVersion;
    std::vector<AppAudioState> apps;
    std::vector<DeviceSettings> devices;
    GlobalLocks locks;
    std::vector<BluetoothDeviceMemory> bluetooth;
    std::vector<WorkspaceLane> lanes;
    std::vector<AutoDuckRule> duckRules;
    std::vector<FocusLink> focusLinks;
    HearingCareSettings hearingCare;
    std::vector<OutputGroup> groups;
    UIPreferences ui = UIPreferences::defaults();
    SystemRowSettings systemRows = SystemRowSettings::defaults();
    std::vector<kavore::EQPreset> customEQPresets;
    std::vector<kavore::HeadphoneProfile> headphoneProfiles;
    bool stageModePersisted = false;
    bool startAtLogin = false;
    bool superVolumeKeys = true;
    double softMasterPercent = 100.0;
    bool softMasterMuted = false;
    SmartSettings smart = SmartSettings::defaults();
    kavore::GlobalListeningSettings globalListening = kavore::GlobalListeningSettings::off();
    std::vector<std::string> historicallyAudibleAppIDs;
    std::map<std::string, double> audibleAppLastHeardAt;
    std::vector<std::string> hiddenAppIDs;
    std::vector<std::string> manuallyVisibleAppIDs;

    static constexpr std::int64_t currentSchemaVersion = 2;

    // The record of a new installation: five favourite applications of the platform, under the
    // identifiers it gives them, and start at login.
    static TonaviConfig firstRunDefaults(AppPlatform platform = AppPlatform::macOS);

    // The first record with this id, or nullptr. The pointer lives as long as `apps` is unchanged.
    const AppAudioState* app(std::string_view id) const;
    AppAudioState* app(std::string_view id);
    // Replaces the first record with the same id in place, or appends.
    void upsertApp(const AppAudioState& state);
    // Adds the non-empty ids to the audible history; true when the history changed.
    bool rememberAudibleApps(const std::vector<std::string>& ids);
    void setAppVisible(const std::string& id, bool visible);
    // Gives applications without a mixer position the next positions, ordered by name. Each pair is
    // (id, name). True when anything was placed.
    bool appendUnrankedMixerApps(const std::vector<std::pair<std::string, std::string>>& mixerApps);
    // Takes the three settings that belong to the user-interface application.
    void adoptAppOwnedSettings(const TonaviConfig& other);

    bool operator==(const TonaviConfig&) const = default;
};

void to_json(nlohmann::json& j, const TonaviConfig& value);
// Raises ConfigDecodeError only when the JSON is not an object.
void from_json(const nlohmann::json& j, TonaviConfig& value);

// Disk form: pretty printed, sorted keys. Raises ConfigEncodeError.
std::string encodeTonaviConfig(const TonaviConfig& config);
// Raises ConfigDecodeError when the bytes are not JSON or not a JSON object.
TonaviConfig decodeTonaviConfig(std::string_view bytes);

// Locale-aware, case-insensitive order of display names: negative, zero or positive.
int localizedCaseInsensitiveCompare(std::string_view a, std::string_view b);

} // namespace tonavi
