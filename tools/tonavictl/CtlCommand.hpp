#pragma once
// One tonavictl command line, checked word by word before anything is sent, and the request it becomes.
// Parsing needs no service; turning application and device names into identifiers needs a status reply,
// which the caller fetches only for commands that name something (needsStatus).

#include "core/config/MIDIMapping.hpp"
#include "core/config/SmartSettings.hpp"
#include "core/wire/TonaviRequest.hpp"

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tonavi {

struct TonaviStatus;

struct CtlCommand {
    enum class Verb {
        help,
        ping,
        send,
        status,
        volume,
        mute,
        unmute,
        solo,
        stage,
        boost,
        redirect,
        eq,
        reset,
        diagnostics,
        devices,
        output,
        deviceVolume,
        deviceMute,
        deviceUnmute,
        hide,
        show,
        prefer,
        lock,
        groupCreate,
        groupDelete,
        smart,
        smartSet,
        recent,
        configSave,
        configLoad,
        configList,
        configRename,
        configDelete,
        eqPresetSave,
        eqPresetDelete,
        eqPresets,
        laneAdd,
        laneRemove,
        lanes,
        duckRuleAdd,
        duckRuleRemove,
        duckRules,
        focusLinkAdd,
        focusLinkRemove,
        focusLinks,
        listen,
        systemChain,
        apps,
        installedApps,
        mixer,
        midiMappings,
        midiMap,
        midiUnmap,
        midiLearn,
    };

    struct Parsed;
    struct Built;

    Verb verb = Verb::help;
    std::vector<std::string> apps;    // application words as typed
    std::string device;               // a device word as typed, or "default" for no redirect
    double amount = 0;                // volume 0...1, boost multiplier 1...4
    bool relative = false;            // volume and device-volume: amount is a change, -1...1
    bool toggle = false;              // mute APP toggle
    bool on = false;                  // stage on|off
    bool json = false;                // status, smart and recent --json
    bool once = false;                // mixer --once: one frame, then exit
    std::string text;                 // send: the request JSON; eq: the preset name, or "off";
                                      // lock: volume|mute|rate; group: the group's name;
                                      // smart: follow-me|guard|duck|mic-follow
    std::vector<std::string> devices; // device words as typed: prefer, group create
    std::vector<std::string> words;   // the remaining words of config, eq-preset, lane, duck-rule,
                                      // focus-link, listen and system-chain, after the sub-command
    std::optional<double> duckDB;     // duck-rule add --db
    std::optional<MIDIMapping> midiMapping; // midi map: the mapping, its app or device still a word

    // args excludes the program name. The error says what is wrong with the words.
    static Parsed parse(std::span<const std::string> args);

    bool needsStatus() const;
    // lock changes one flag of the global locks, so it needs the others as they are now.
    bool needsLocks() const { return verb == Verb::lock; }
    // smart on|off changes one switch of the smart settings and keeps the rest as they are now.
    bool needsSmartSettings() const { return verb == Verb::smartSet; }

    // Commands that read or change part of the configuration (custom presets, lanes, rules, links,
    // listening, the system rows) need it as it is now.
    bool needsConfig() const;

    // status is required when needsStatus(), locks when needsLocks(), smart when needsSmartSettings(),
    // config when needsConfig(). The error names the word that resolves to nothing.
    Built toRequest(const TonaviStatus* status, const GlobalLocks* locks = nullptr,
                    const SmartSettings* smart = nullptr, const TonaviConfig* config = nullptr) const;
};

struct CtlCommand::Parsed {
    std::optional<CtlCommand> command;
    std::string error;
};

struct CtlCommand::Built {
    std::optional<TonaviRequest> request;
    std::string error;
};

// The text of `tonavictl help`.
extern const char* const ctlUsageText;

} // namespace tonavi
