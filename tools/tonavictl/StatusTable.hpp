#pragma once
// The text `tonavictl status` prints: a summary line of the system output, a table of applications
// (volume, mute, engaged, level, output, issues), a table of devices, and the newest health events.

#include "audio/effects/EQPreset.hpp"
#include "core/config/GlobalLocks.hpp"
#include "core/config/MIDIMapping.hpp"
#include "core/config/SmartSettings.hpp"
#include "core/config/TonaviConfig.hpp"
#include "core/wire/InstalledApp.hpp"
#include "core/wire/RunningApp.hpp"

#include <string>
#include <vector>

namespace tonavi {

struct TonaviStatus;

class StatusTable {
  public:
    static std::string render(const TonaviStatus& status);
    // `tonavictl devices`: one row per device with its transport, default marks, volume, mute, whether
    // it is hidden and the global locks that hold it (volume and mute hold the output, rate all).
    static std::string renderDevices(const TonaviStatus& status, const GlobalLocks& locks);
    // `tonavictl smart`: one row per automation, whether it is switched on and what it does now.
    static std::string renderSmart(const TonaviStatus& status, const SmartSettings& settings);
    // `tonavictl recent`: the trail of onsets, newest first, aged against `now` (seconds since 1970).
    static std::string renderRecent(const TonaviStatus& status, double now);
    // Where the system output is, by name: what `tonavictl output` prints after a switch.
    static std::string outputLine(const TonaviStatus& status);

    // `tonavictl eq-presets`: name and whether it is built in or saved.
    static std::string renderPresets(const std::vector<kavore::EQPreset>& presets);
    // The lanes, duck rules and focus links of a configuration, with apps and devices by the names the
    // status gives them (an ID the status does not know is shown as it is).
    static std::string renderLanes(const TonaviConfig& config, const TonaviStatus& status);
    static std::string renderDuckRules(const TonaviConfig& config, const TonaviStatus& status);
    static std::string renderFocusLinks(const TonaviConfig& config);
    // `tonavictl apps`: by name where the status knows the app, its pid and seconds since its last sound.
    static std::string renderRunningApps(const std::vector<RunningApp>& apps, const TonaviStatus& status);
    static std::string renderInstalledApps(const std::vector<InstalledApp>& apps);
    // One row per mapping: its ID, channel ("any" for 0), controller and target.
    static std::string renderMIDIMappings(const std::vector<MIDIMapping>& mappings);
    static std::string describeMIDITarget(const MIDIMapping::Target& target);

    // A ten-character meter for a level in 0...1: "#" for each tenth reached, "." for the rest.
    static std::string levelBar(double level);
};

} // namespace tonavi
