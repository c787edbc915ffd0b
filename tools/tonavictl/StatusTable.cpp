#include "tools/tonavictl/StatusTable.hpp"

#include "core/smart/AudioOnsetPolicy.hpp"
#include "core/wire/TonaviStatus.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

namespace tonavi {

namespace {

// How many health events the text shows; --json has the rest.
constexpr std::size_t healthLines = 3;

// Width on a terminal, counting each UTF-8 sequence as one column.
std::size_t columns(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::string percent(double value) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.0f%%", value * 100.0);
    return buffer;
}

std::string multiplier(double value) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, " x%g", value);
    return buffer;
}

std::string join(const std::vector<std::string>& items, const char* separator) {
    std::string out;
    for (const auto& item : items)
        out += (out.empty() ? "" : separator) + item;
    return out;
}

// Left-aligned columns two blanks apart; the last column is not padded.
class Table {
  public:
    explicit Table(std::vector<std::string> header) { rows_.push_back(std::move(header)); }
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }

    std::string text() const {
        std::vector<std::size_t> widths(rows_.front().size(), 0);
        for (const auto& row : rows_)
            for (std::size_t i = 0; i < row.size(); ++i)
                widths[i] = std::max(widths[i], columns(row[i]));
        std::string out;
        for (const auto& row : rows_) {
            std::string line = " ";
            for (std::size_t i = 0; i < row.size(); ++i) {
                line += " " + row[i];
                if (i + 1 < row.size())
                    line += std::string(widths[i] - columns(row[i]) + 1, ' ');
            }
            while (!line.empty() && line.back() == ' ')
                line.pop_back();
            out += line + "\n";
        }
        return out;
    }

  private:
    std::vector<std::vector<std::string>> rows_;
};

std::string deviceName(const TonaviStatus& status, const std::string& uid) {
    for (const auto& d : status.devices)
        if (d.id == uid)
            return d.nickname.empty() ? d.name : d.nickname;
    return uid;
}

std::string appName(const TonaviStatus& status, const std::string& id) {
    for (const auto& a : status.apps)
        if (a.id == id)
            return a.displayName;
    return id;
}

} // namespace

std::string StatusTable::levelBar(double level) {
    const double clamped = std::isfinite(level) ? std::clamp(level, 0.0, 1.0) : 0.0;
    const auto filled = static_cast<std::size_t>(std::floor(clamped * 10.0 + 1e-9));
    return std::string(filled, '#') + std::string(10 - filled, '.');
}

std::string StatusTable::render(const TonaviStatus& status) {
    std::string out;

    std::vector<std::string> summary;
    summary.push_back("output " + (status.defaultOutputUID.empty()
                                       ? std::string("none")
                                       : deviceName(status, status.defaultOutputUID)));
    summary.push_back("volume " + percent(status.outputVolume) +
                      (status.outputVolumeIsSoft ? " (software)" : "") +
                      (status.outputMuted ? " muted" : ""));
    char rate[32];
    std::snprintf(rate, sizeof rate, "%.0f Hz", status.sampleRate);
    summary.push_back(rate);
    summary.push_back(std::to_string(status.engagedCount) + " engaged");
    if (status.stageMode)
        summary.push_back("STAGE MODE");
    if (status.manualDuckOn)
        summary.push_back("manual duck");
    if (status.soloAppIDs && !status.soloAppIDs->empty()) {
        std::vector<std::string> names;
        for (const auto& id : *status.soloAppIDs)
            names.push_back(appName(status, id));
        summary.push_back("solo " + join(names, ", "));
    }
    out += join(summary, " | ") + "\n\n";

    out += "Applications\n";
    if (status.apps.empty()) {
        out += "  (none)\n";
    } else {
        Table apps({"NAME", "ID", "VOLUME", "MUTED", "ENGAGED", "LEVEL", "OUTPUT", "ISSUES"});
        for (const auto& app : status.apps) {
            std::string volume = percent(app.volume);
            if (app.boost > 1.0)
                volume += multiplier(app.boost);
            std::vector<std::string> issues;
            if (app.controlIssue)
                issues.push_back(*app.controlIssue);
            apps.add({app.displayName, app.id, volume, app.muted ? "yes" : "no",
                      app.engaged ? "yes" : (app.directLocked ? "locked" : "no"),
                      app.engaged ? levelBar(app.level) : "-",
                      app.redirectUID.empty() ? "default" : deviceName(status, app.redirectUID),
                      join(issues, "; ")});
        }
        out += apps.text();
    }

    out += "\nDevices\n";
    if (status.devices.empty()) {
        out += "  (none)\n";
    } else {
        Table devices({"NAME", "UID", "TRANSPORT", "IO", "DEFAULT", "VOLUME", "MUTED"});
        for (const auto& d : status.devices) {
            std::vector<std::string> io;
            if (d.isInput)
                io.push_back("in");
            if (d.isOutput)
                io.push_back("out");
            std::vector<std::string> defaults;
            if (d.isDefaultOutput)
                defaults.push_back("output");
            if (d.isDefaultInput)
                defaults.push_back("input");
            if (d.id == status.soundEffectsUID)
                defaults.push_back("alerts");
            std::string name = d.nickname.empty() ? d.name : d.nickname + " (" + d.name + ")";
            devices.add({name, d.id, std::string(transportName(d.transport)), join(io, "/"),
                         join(defaults, ", "), d.hasVolume ? percent(d.volume) : "-",
                         d.muted ? "yes" : "no"});
        }
        out += devices.text();
    }

    if (!status.health.empty()) {
        out += "\nRecent health events\n";
        const std::size_t first = status.health.size() > healthLines ? status.health.size() - healthLines : 0;
        for (std::size_t i = first; i < status.health.size(); ++i)
            out += "  " + status.health[i].kind + ": " + status.health[i].detail + "\n";
    }
    return out;
}

std::string StatusTable::renderDevices(const TonaviStatus& status, const GlobalLocks& locks) {
    if (status.devices.empty())
        return "  (no devices)\n";
    Table table({"NAME", "TRANSPORT", "DEFAULT", "VOLUME", "MUTED", "HIDDEN", "LOCKS"});
    for (const auto& d : status.devices) {
        std::vector<std::string> defaults;
        if (d.isDefaultOutput)
            defaults.push_back("output");
        if (d.isDefaultInput)
            defaults.push_back("input");
        if (d.id == status.soundEffectsUID)
            defaults.push_back("alerts");
        std::vector<std::string> held;
        if (d.isDefaultOutput && locks.volume)
            held.push_back("volume");
        if (d.isDefaultOutput && locks.mute)
            held.push_back("mute");
        if (locks.sampleRate)
            held.push_back("rate");
        std::string name = d.nickname.empty() ? d.name : d.nickname + " (" + d.name + ")";
        table.add({name, std::string(transportName(d.transport)), join(defaults, ", "),
                   d.hasVolume ? percent(d.volume) : "-", d.muted ? "yes" : "no",
                   d.hidden.value_or(false) ? "yes" : "no", held.empty() ? "-" : join(held, ", ")});
    }
    return table.text();
}

std::string StatusTable::outputLine(const TonaviStatus& status) {
    return "output is on " + (status.defaultOutputUID.empty() ? std::string("no device")
                                                              : deviceName(status, status.defaultOutputUID));
}

std::string StatusTable::renderSmart(const TonaviStatus& status, const SmartSettings& settings) {
    const SmartLiveStatus live = status.smartLive.value_or(SmartLiveStatus{});
    const auto onOff = [](bool on) { return std::string(on ? "on" : "off"); };
    char number[64];

    std::string followMe = "-";
    if (settings.followMe) {
        std::snprintf(number, sizeof number, "%.0f%%", settings.followMeBackgroundPercent);
        followMe = live.followMeHeroID ? "hero " + live.followMeHeroName.value_or(*live.followMeHeroID) +
                                             "; others at " + number
                                       : "no hero: nothing audible in front";
        if (live.followMeNoFront)
            followMe = (live.followMeHeroID ? followMe + "; " : std::string()) +
                       "no application in front on this session: " + *live.followMeNoFront;
    }
    std::string guard = "-";
    if (settings.loudnessGuard) {
        std::snprintf(number, sizeof number, "%.0f dBFS", settings.loudnessGuardCeilingDBFS);
        guard = live.loudnessGuardActive ? std::string("holding ") + number + " on " +
                                               live.loudnessGuardOutputName.value_or("headphones")
                                         : "idle: the output is not headphones";
    }
    std::string duck = "-";
    if (settings.autoDuck) {
        std::snprintf(number, sizeof number, "%.0f dB", settings.autoDuckDepthDB);
        if (!live.autoDuckMicNames.empty())
            duck = "easing " + std::to_string(live.autoDuckCount) + " app(s) by " + number +
                   "; mic live in " + join(live.autoDuckMicNames, ", ");
        else
            duck = "idle: no microphone in use";
    }
    std::string mic = "-";
    if (settings.micFollow)
        mic = "input " + live.micFollowName.value_or(deviceName(status, status.defaultInputUID));

    Table table({"FEATURE", "SETTING", "NOW"});
    table.add({"follow-me", onOff(settings.followMe), followMe});
    table.add({"guard", onOff(settings.loudnessGuard), guard});
    table.add({"duck", onOff(settings.autoDuck), duck});
    table.add({"mic-follow", onOff(settings.micFollow), mic});
    return table.text();
}

std::string StatusTable::renderRecent(const TonaviStatus& status, double now) {
    const std::vector<AudioOnset> onsets = status.recentOnsets.value_or(std::vector<AudioOnset>{});
    if (onsets.empty())
        return "  (nothing has started to sound in the last 5 minutes)\n";
    std::string out;
    for (const auto& onset : AudioOnsetPolicy::trail(onsets, now)) {
        const std::string ago = AudioOnsetPolicy::agoText(now - onset.startedAt);
        switch (onset.kind.value_or(AudioOnset::Kind::app)) {
        case AudioOnset::Kind::app:
            out += "  " + appName(status, onset.id) + " started playing " + ago + "\n";
            break;
        case AudioOnset::Kind::alert:
            out += "  " + onset.label.value_or("alert sound") + " " + ago + ", while " +
                   (onset.frontmostAppID ? appName(status, *onset.frontmostAppID) : std::string("unknown")) +
                   " was in front\n";
            break;
        case AudioOnset::Kind::output:
            out += "  output moved to " + onset.label.value_or(onset.id) + " " + ago + "\n";
            break;
        }
    }
    return out;
}

std::string StatusTable::renderPresets(const std::vector<kavore::EQPreset>& presets) {
    Table table({"PRESET", "KIND"});
    for (const auto& p : presets)
        table.add({p.name, p.builtin ? "built-in" : "saved"});
    return table.text();
}

std::string StatusTable::renderLanes(const TonaviConfig& config, const TonaviStatus& status) {
    if (config.lanes.empty())
        return "  (no lanes)\n";
    Table table({"APP", "DEVICE", "LOCKED"});
    for (const auto& lane : config.lanes)
        table.add({appName(status, lane.appBundleID), deviceName(status, lane.deviceUID),
                   lane.locked ? "yes" : "no"});
    return table.text();
}

std::string StatusTable::renderDuckRules(const TonaviConfig& config, const TonaviStatus& status) {
    if (config.duckRules.empty())
        return "  (no duck rules)\n";
    Table table({"TRIGGER", "LOWERS", "BY", "ON"});
    for (const auto& rule : config.duckRules) {
        std::vector<std::string> ducked;
        for (const auto& id : rule.duckedBundleIDs)
            ducked.push_back(appName(status, id));
        char db[32];
        std::snprintf(db, sizeof db, "%g dB", rule.duckDB);
        table.add({appName(status, rule.triggerBundleID), join(ducked, ", "), db, rule.enabled ? "yes" : "no"});
    }
    return table.text();
}

std::string StatusTable::renderFocusLinks(const TonaviConfig& config) {
    if (config.focusLinks.empty())
        return "  (no focus links)\n";
    Table table({"FOCUS", "SCENE"});
    for (const auto& link : config.focusLinks)
        table.add({link.focusName, link.configName});
    return table.text();
}

std::string StatusTable::renderRunningApps(const std::vector<RunningApp>& apps, const TonaviStatus& status) {
    if (apps.empty())
        return "  (no application has an audio process)\n";
    Table table({"APP", "ID", "PID", "LAST SOUND"});
    for (const auto& app : apps) {
        char seconds[32] = "-";
        if (app.secondsSinceAudio)
            std::snprintf(seconds, sizeof seconds, "%.0fs ago", *app.secondsSinceAudio);
        table.add({appName(status, app.bundleID), app.bundleID, std::to_string(app.pid), seconds});
    }
    return table.text();
}

std::string StatusTable::renderInstalledApps(const std::vector<InstalledApp>& apps) {
    if (apps.empty())
        return "  (no installed applications found)\n";
    Table table({"NAME", "ID", "AUDIO"});
    for (const auto& app : apps)
        table.add({app.name, app.id, app.audioCapable ? "yes" : "no"});
    return table.text();
}

std::string StatusTable::describeMIDITarget(const MIDIMapping::Target& target) {
    struct Describe {
        std::string operator()(const MIDIMapping::AppVolume& t) const { return "volume " + t.bundleID; }
        std::string operator()(const MIDIMapping::AppMute& t) const { return "mute " + t.bundleID; }
        std::string operator()(const MIDIMapping::DeviceVolume& t) const { return "device-volume " + t.uid; }
        std::string operator()(const MIDIMapping::ConfigLoad& t) const { return "scene " + t.name; }
        std::string operator()(const MIDIMapping::StageMode&) const { return "stage"; }
        std::string operator()(const MIDIMapping::OutputVolume&) const { return "output-volume"; }
    };
    return std::visit(Describe{}, target);
}

std::string StatusTable::renderMIDIMappings(const std::vector<MIDIMapping>& mappings) {
    if (mappings.empty())
        return "  (no MIDI mappings)\n";
    Table table({"ID", "CHANNEL", "CC", "TARGET"});
    for (const auto& m : mappings)
        table.add({m.id, m.channel == 0 ? "any" : std::to_string(m.channel), std::to_string(m.cc),
                   describeMIDITarget(m.target)});
    return table.text();
}

} // namespace tonavi
