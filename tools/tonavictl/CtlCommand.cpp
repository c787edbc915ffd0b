#include "tools/tonavictl/CtlCommand.hpp"

#include "audio/chain/ChainSettingsJSON.hpp"
#include "audio/effects/EQPresets.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "base/Encoding.hpp"
#include "core/outputs/OutputGroupIdentity.hpp"
#include "core/wire/TonaviStatus.hpp"
#include "tools/tonavictl/NameResolver.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>

namespace tonavi {

const char* const ctlUsageText =
    "usage: tonavictl <command> [arguments]\n"
    "  status [--json]            applications and devices as tables (--json: the raw reply)\n"
    "  volume APP LEVEL           set an application's volume: 0...1 or 0%...100%\n"
    "  mute APP | unmute APP      mute or unmute an application\n"
    "  solo [APP...]              hear only these applications; with none, end the solo\n"
    "  stage on|off               release every tap (on) or restore every setting (off)\n"
    "  boost APP FACTOR           amplify an application 1...4 times\n"
    "  redirect APP DEVICE        play an application on another output; DEVICE 'default' follows the "
    "system\n"
    "  eq APP PRESET              equalise an application with a built-in preset; PRESET 'off' removes it\n"
    "  reset APP                  forget every setting of an application\n"
    "  diagnostics                print the service's support dump (JSON)\n"
    "  devices                    the audio devices as a table\n"
    "  output DEVICE              make DEVICE the system output; prints where the output really is\n"
    "  device-volume DEVICE LEVEL set a device's volume: 0...1 or 0%...100%\n"
    "  device-mute DEVICE | device-unmute DEVICE\n"
    "  hide DEVICE | show DEVICE  remove a device from Tonavi, or restore it\n"
    "  prefer DEVICE...           the preferred outputs, most preferred first\n"
    "  lock volume|mute|rate on|off  hold the output's volume, mute or the sample rates\n"
    "  group create NAME DEVICE DEVICE...  play several outputs as one\n"
    "  group delete NAME          remove an output group\n"
    "  smart [--json]             what follow-me, loudness guard, auto-duck and mic follow are doing\n"
    "  smart follow-me|guard|duck|mic-follow on|off  turn one automation on or off\n"
    "  recent [--json]            which apps began to sound, alerts and output moves, newest first\n"
    "  mixer [--once]             the live mixer, full screen (? lists its keys); --once prints one frame\n"
    "  ping                       print the service's version\n"
    "  send '<request JSON>'      send any request and print the reply JSON\n"
    "  sim <command> ...          drive the simulated machine (tonavictl sim help)\n"
    "  help                       this text\n"
    "APP is a bundle identifier or an application's name, DEVICE a device UID, name or nickname; names\n"
    "ignore case. Exit status: 0 done, 1 refused by the service or nothing matches a name, 2 the service\n"
    "cannot be reached, 64 wrong arguments.\n";

namespace {

using Verb = CtlCommand::Verb;

struct VerbName {
    const char* word;
    Verb verb;
};

constexpr VerbName verbNames[] = {
    {"help", Verb::help},
    {"ping", Verb::ping},
    {"send", Verb::send},
    {"status", Verb::status},
    {"volume", Verb::volume},
    {"mute", Verb::mute},
    {"unmute", Verb::unmute},
    {"solo", Verb::solo},
    {"stage", Verb::stage},
    {"boost", Verb::boost},
    {"redirect", Verb::redirect},
    {"eq", Verb::eq},
    {"reset", Verb::reset},
    {"diagnostics", Verb::diagnostics},
    {"devices", Verb::devices},
    {"output", Verb::output},
    {"device-volume", Verb::deviceVolume},
    {"device-mute", Verb::deviceMute},
    {"device-unmute", Verb::deviceUnmute},
    {"hide", Verb::hide},
    {"show", Verb::show},
    {"prefer", Verb::prefer},
    {"lock", Verb::lock},
    {"group", Verb::groupCreate},
    {"smart", Verb::smart},
    {"recent", Verb::recent},
    {"mixer", Verb::mixer},
};

constexpr const char* smartFeatures[] = {"follow-me", "guard", "duck", "mic-follow"};

// Every device of a status, inputs too, by UID, name and nickname.
NameResolver allDevices(const TonaviStatus& status) {
    std::vector<NameResolver::Candidate> candidates;
    for (const auto& device : status.devices)
        candidates.push_back({device.id, device.name, device.nickname});
    return NameResolver("device", std::move(candidates));
}

// The output groups of a status: the aggregates carrying the group prefix, by group ID and name.
NameResolver groups(const TonaviStatus& status) {
    std::vector<NameResolver::Candidate> candidates;
    const std::string_view prefix = OutputGroupIdentity::aggregateUIDPrefix;
    for (const auto& device : status.devices)
        if (device.id.starts_with(prefix))
            candidates.push_back({device.id.substr(prefix.size()), device.name, {}});
    return NameResolver("output group", std::move(candidates));
}

std::optional<double> number(const std::string& word, bool allowPercent) {
    std::string digits = word;
    bool percent = false;
    if (allowPercent && !digits.empty() && digits.back() == '%') {
        digits.pop_back();
        percent = true;
    }
    if (digits.empty() || std::isspace(static_cast<unsigned char>(digits.front())))
        return std::nullopt;
    char* end = nullptr;
    const double value = std::strtod(digits.c_str(), &end);
    if (end != digits.c_str() + digits.size() || !std::isfinite(value))
        return std::nullopt;
    return percent ? value / 100.0 : value;
}

CtlCommand::Parsed fail(std::string error) {
    return {std::nullopt, std::move(error)};
}

std::string joinWords(std::span<const std::string> words) {
    std::string out;
    for (const auto& w : words)
        out += (out.empty() ? "" : " ") + w;
    return out;
}

// "Bass Booster", "bass booster" and "bass-booster" all name the same preset; "Hip-Hop" keeps its hyphen.
std::optional<kavore::EQPreset> findPreset(const std::string& name) {
    if (auto preset = kavore::EQPresets::named(name))
        return preset;
    std::string spaced = name;
    std::replace(spaced.begin(), spaced.end(), '-', ' ');
    return kavore::EQPresets::named(spaced);
}

std::vector<std::string> presetNames() {
    std::vector<std::string> names;
    for (const auto& p : kavore::EQPresets::all())
        names.push_back(p.name);
    return names;
}

} // namespace

CtlCommand::Parsed CtlCommand::parse(std::span<const std::string> args) {
    if (args.empty())
        return fail("no command given");
    const std::string& word = args.front();
    const auto rest = args.subspan(1);
    CtlCommand c;
    if (word == "-h" || word == "--help") {
        c.verb = Verb::help;
        return {c, {}};
    }
    const auto* named = std::find_if(std::begin(verbNames), std::end(verbNames),
                                     [&](const VerbName& v) { return word == v.word; });
    if (named == std::end(verbNames)) {
        std::string error = "unknown command \"" + word + "\"";
        const auto* closest = std::min_element(
            std::begin(verbNames), std::end(verbNames), [&](const VerbName& a, const VerbName& b) {
                return editDistance(word, a.word) < editDistance(word, b.word);
            });
        if (editDistance(word, closest->word) <= 2)
            error += "; did you mean " + std::string(closest->word) + "?";
        return fail(error + " (tonavictl help lists the commands)");
    }
    c.verb = named->verb;
    const std::string usageHint = " (tonavictl help)";

    switch (c.verb) {
    case Verb::help:
    case Verb::ping:
    case Verb::diagnostics:
    case Verb::devices:
        if (!rest.empty())
            return fail(word + " takes no arguments");
        break;
    case Verb::send:
        if (rest.size() != 1)
            return fail("send takes one argument, the request JSON in quotes");
        c.text = rest[0];
        break;
    case Verb::status:
    case Verb::recent:
        for (const auto& option : rest) {
            if (option != "--json")
                return fail(word + " takes only --json, not \"" + option + "\"");
            c.json = true;
        }
        break;
    case Verb::smart:
        if (rest.size() == 1 && rest[0] == "--json") {
            c.json = true;
        } else if (rest.size() == 2 &&
                   std::find(std::begin(smartFeatures), std::end(smartFeatures), rest[0]) !=
                       std::end(smartFeatures) &&
                   (rest[1] == "on" || rest[1] == "off")) {
            c.verb = Verb::smartSet;
            c.text = rest[0];
            c.on = rest[1] == "on";
        } else if (!rest.empty()) {
            return fail("smart takes --json, or follow-me, guard, duck or mic-follow, then on or off");
        }
        break;
    case Verb::smartSet:
        break;
    case Verb::mixer:
        for (const auto& option : rest) {
            if (option != "--once")
                return fail("mixer takes only --once, not \"" + option + "\"");
            c.once = true;
        }
        break;
    case Verb::volume: {
        if (rest.size() != 2)
            return fail("volume takes an application and a level, e.g. volume Music 0.5" + usageHint);
        const auto level = number(rest[1], true);
        if (!level)
            return fail("volume level \"" + rest[1] + "\" is not a number; give 0...1 or 0%...100%");
        if (*level < 0 || *level > 1)
            return fail("volume level " + rest[1] + " is out of range; give 0...1 or 0%...100%");
        c.apps = {rest[0]};
        c.amount = *level;
        break;
    }
    case Verb::mute:
    case Verb::unmute:
    case Verb::reset:
        if (rest.size() != 1)
            return fail(word + " takes one application" + usageHint);
        c.apps = {rest[0]};
        break;
    case Verb::solo:
        c.apps.assign(rest.begin(), rest.end());
        break;
    case Verb::stage:
        if (rest.size() != 1 || (rest[0] != "on" && rest[0] != "off"))
            return fail("stage takes on or off");
        c.on = rest[0] == "on";
        break;
    case Verb::boost: {
        if (rest.size() != 2)
            return fail("boost takes an application and a factor, e.g. boost Music 2" + usageHint);
        const auto factor = number(rest[1], false);
        if (!factor)
            return fail("boost factor \"" + rest[1] + "\" is not a number; give 1...4");
        if (*factor < 1 || *factor > 4)
            return fail("boost factor " + rest[1] + " is out of range; give 1...4");
        c.apps = {rest[0]};
        c.amount = *factor;
        break;
    }
    case Verb::redirect:
        if (rest.size() != 2)
            return fail("redirect takes an application and a device, or 'default'" + usageHint);
        c.apps = {rest[0]};
        c.device = rest[1];
        break;
    case Verb::output:
    case Verb::deviceMute:
    case Verb::deviceUnmute:
    case Verb::hide:
    case Verb::show:
        if (rest.size() != 1)
            return fail(word + " takes one device" + usageHint);
        c.device = rest[0];
        break;
    case Verb::deviceVolume: {
        if (rest.size() != 2)
            return fail("device-volume takes a device and a level, e.g. device-volume Headphones 0.4" +
                        usageHint);
        const auto level = number(rest[1], true);
        if (!level || *level < 0 || *level > 1)
            return fail("device volume \"" + rest[1] + "\" is not a level; give 0...1 or 0%...100%");
        c.device = rest[0];
        c.amount = *level;
        break;
    }
    case Verb::prefer:
        if (rest.empty())
            return fail("prefer takes one or more devices, most preferred first" + usageHint);
        c.devices.assign(rest.begin(), rest.end());
        break;
    case Verb::lock:
        if (rest.size() != 2 || (rest[0] != "volume" && rest[0] != "mute" && rest[0] != "rate") ||
            (rest[1] != "on" && rest[1] != "off"))
            return fail("lock takes volume, mute or rate, then on or off");
        c.text = rest[0];
        c.on = rest[1] == "on";
        break;
    case Verb::groupCreate:
        if (rest.size() >= 4 && rest[0] == "create") {
            c.text = rest[1];
            c.devices.assign(rest.begin() + 2, rest.end());
        } else if (rest.size() == 2 && rest[0] == "delete") {
            c.verb = Verb::groupDelete;
            c.text = rest[1];
        } else {
            return fail("group takes create NAME DEVICE DEVICE... or delete NAME");
        }
        break;
    case Verb::groupDelete:
        break;
    case Verb::eq: {
        if (rest.size() < 2)
            return fail("eq takes an application and a preset name, or 'off'" + usageHint);
        c.apps = {rest[0]};
        c.text = joinWords(rest.subspan(1));
        if (c.text != "off" && !findPreset(c.text)) {
            std::vector<NameResolver::Candidate> presets;
            for (const auto& p : kavore::EQPresets::all())
                presets.push_back({p.name, p.name, {}});
            const auto close = NameResolver("preset", presets).suggestions(c.text);
            std::string error = "no EQ preset is named \"" + c.text + "\"";
            std::string names;
            for (const auto& name : close.empty() ? presetNames() : close)
                names += (names.empty() ? "" : ", ") + name;
            error += close.empty() ? "; the presets are " + names : "; did you mean " + names + "?";
            return fail(error);
        }
        break;
    }
    }
    return {c, {}};
}

bool CtlCommand::needsStatus() const {
    return !apps.empty() || !device.empty() || !devices.empty() || verb == Verb::groupDelete;
}

CtlCommand::Built CtlCommand::toRequest(const TonaviStatus* status, const GlobalLocks* locks,
                                        const SmartSettings* smart) const {
    using R = TonaviRequest;
    std::vector<std::string> ids;
    if (!apps.empty()) {
        if (!status)
            return {std::nullopt, "no status to resolve names in"};
        const auto resolver = NameResolver::applications(*status);
        for (const auto& word : apps) {
            auto resolved = resolver.resolve(word);
            if (!resolved.id)
                return {std::nullopt, resolved.error};
            if (std::find(ids.begin(), ids.end(), *resolved.id) == ids.end())
                ids.push_back(*resolved.id);
        }
    }
    switch (verb) {
    case Verb::ping:
        return {R{R::Ping{}}, {}};
    case Verb::status:
        return {R{R::Status{}}, {}};
    case Verb::diagnostics:
        return {R{R::Diagnostics{}}, {}};
    case Verb::volume:
        return {R{R::SetAppVolume{ids[0], amount}}, {}};
    case Verb::mute:
    case Verb::unmute:
        return {R{R::SetAppMuted{ids[0], verb == Verb::mute}}, {}};
    case Verb::solo:
        return {R{R::SetSoloApps{ids}}, {}};
    case Verb::stage:
        return {R{R::StageMode{on}}, {}};
    case Verb::boost:
        return {R{R::SetAppBoost{ids[0], amount}}, {}};
    case Verb::reset:
        return {R{R::ResetApp{ids[0]}}, {}};
    case Verb::redirect: {
        if (device == "default")
            return {R{R::SetAppRedirect{ids[0], ""}}, {}};
        auto resolved = NameResolver::outputDevices(*status).resolve(device);
        if (!resolved.id)
            return {std::nullopt, resolved.error};
        return {R{R::SetAppRedirect{ids[0], *resolved.id}}, {}};
    }
    case Verb::eq: {
        // The request replaces the whole chain, so the app's boost is carried over into the new one.
        kavore::ChainSettings chain;
        const auto app = std::find_if(status->apps.begin(), status->apps.end(),
                                      [&](const auto& a) { return a.id == ids[0]; });
        chain.overdrive = kavore::OverdriveSettings(app->boost);
        if (text != "off") {
            const auto preset = findPreset(text);
            if (!preset)
                return {std::nullopt, "no EQ preset is named \"" + text + "\""};
            kavore::EffectSlot slot;
            slot.id = makeUUID();
            slot.kind = kavore::EffectKind::eq10;
            slot.nickname = preset->name;
            slot.settingsJSON = kavore::settingsJSONBytes(kavore::toJSON(preset->settings));
            chain.slots.push_back(std::move(slot));
        }
        return {R{R::SetAppChain{ids[0], std::move(chain)}}, {}};
    }
    case Verb::devices:
        return {R{R::ListDevices{}}, {}};
    case Verb::lock: {
        if (!locks)
            return {std::nullopt, "no locks to change"};
        GlobalLocks next = *locks;
        (text == "volume" ? next.volume : text == "mute" ? next.mute : next.sampleRate) = on;
        return {R{R::SetLocks{next}}, {}};
    }
    case Verb::smart:
        // The dump carries both the settings and what the automations are doing.
        return {R{R::Diagnostics{}}, {}};
    case Verb::recent:
        return {R{R::Status{}}, {}};
    case Verb::smartSet: {
        if (!smart)
            return {std::nullopt, "no smart settings to change"};
        SmartSettings next = *smart;
        (text == "follow-me" ? next.followMe
         : text == "guard"   ? next.loudnessGuard
         : text == "duck"    ? next.autoDuck
                             : next.micFollow) = on;
        return {R{R::SetSmartSettings{std::move(next)}}, {}};
    }
    case Verb::groupDelete: {
        auto resolved = groups(*status).resolve(text);
        if (!resolved.id)
            return {std::nullopt, resolved.error};
        return {R{R::DeleteGroup{*resolved.id}}, {}};
    }
    case Verb::help:
    case Verb::send:
    case Verb::mixer:
        break;
    default: {
        if (!status)
            return {std::nullopt, "no status to resolve names in"};
        const NameResolver resolver = verb == Verb::output        ? NameResolver::outputDevices(*status)
                                      : verb == Verb::groupCreate ? NameResolver::outputDevices(*status)
                                                                  : allDevices(*status);
        std::vector<std::string> uids;
        for (const auto& word : device.empty() ? devices : std::vector<std::string>{device}) {
            auto resolved = resolver.resolve(word);
            // A hidden device is not listed; show takes its UID as it is.
            if (!resolved.id && verb == Verb::show)
                resolved.id = word;
            if (!resolved.id)
                return {std::nullopt, resolved.error};
            uids.push_back(*resolved.id);
        }
        switch (verb) {
        case Verb::output:
            return {R{R::SetOutputDevice{uids[0]}}, {}};
        case Verb::deviceVolume:
            return {R{R::SetDeviceVolume{uids[0], amount}}, {}};
        case Verb::deviceMute:
        case Verb::deviceUnmute:
            return {R{R::SetDeviceMuted{uids[0], verb == Verb::deviceMute}}, {}};
        case Verb::hide:
        case Verb::show:
            return {R{R::SetDeviceHidden{uids[0], verb == Verb::hide}}, {}};
        case Verb::prefer:
            return {R{R::SetPreferredOrder{uids}}, {}};
        case Verb::groupCreate: {
            OutputGroup group;
            group.id = makeUUID();
            group.name = text;
            for (const auto& uid : uids)
                group.members.push_back({uid, 1.0, false});
            return {R{R::SaveGroup{std::move(group)}}, {}};
        }
        default:
            break;
        }
        break;
    }
    }
    return {std::nullopt, "this command sends no request of its own"};
}

} // namespace tonavi
