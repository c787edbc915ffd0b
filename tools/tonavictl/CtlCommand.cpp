#include "tools/tonavictl/CtlCommand.hpp"

#include "audio/chain/ChainSettingsJSON.hpp"
#include "audio/effects/EQPresets.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "base/Encoding.hpp"
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
    "  volume APP LEVEL           set an application's volume: 0...1 or 0%...100%, or +5% / -5% from now\n"
    "  mute APP [toggle] | unmute APP  mute or unmute an application; toggle flips it\n"
    "  solo [APP...]              hear only these applications; with none, end the solo\n"
    "  stage on|off               release every tap (on) or restore every setting (off)\n"
    "  boost APP FACTOR           amplify an application 1...4 times\n"
    "  redirect APP DEVICE        play an application on another output; DEVICE 'default' follows the "
    "system\n"
    "  eq APP PRESET              equalise an application with a built-in or saved preset; 'off' removes it\n"
    "  reset APP                  forget every setting of an application\n"
    "  diagnostics                print the service's support dump (JSON)\n"
    "  devices                    the audio devices as a table\n"
    "  output DEVICE              make DEVICE the system output; prints where the output really is\n"
    "  device-volume DEVICE LEVEL set a device's volume: 0...1 or 0%...100%, or +5% / -5% from now\n"
    "  device-mute DEVICE | device-unmute DEVICE\n"
    "  hide DEVICE | show DEVICE  remove a device from Tonavi, or restore it\n"
    "  prefer DEVICE...           the preferred outputs, most preferred first\n"
    "  lock volume|mute|rate on|off  hold the output's volume, mute or the sample rates\n"
    "  group create NAME DEVICE DEVICE...  play several outputs as one\n"
    "  group delete NAME          remove an output group\n"
    "  smart [--json]             what follow-me, loudness guard, auto-duck and mic follow are doing\n"
    "  smart follow-me|guard|duck|mic-follow on|off  turn one automation on or off\n"
    "  recent [--json]            which apps began to sound, alerts and output moves, newest first\n"
    "  config save|load|delete NAME  save the whole mixer as a scene, bring one back, or forget it\n"
    "  config rename OLD NEW | config list [--json]\n"
    "  eq-preset save NAME APP    keep an application's current EQ as a preset\n"
    "  eq-preset delete NAME | eq-presets [--json]  forget a saved preset; list built-in and saved ones\n"
    "  lane add APP DEVICE [--unlocked]  keep an application on a device (locked: no other app goes there)\n"
    "  lane remove APP | lane list [--json]\n"
    "  duck-rule add TRIGGER APP... [--db DB]  lower the apps by DB (default -18) while TRIGGER sounds\n"
    "  duck-rule remove TRIGGER | duck-rule list [--json]\n"
    "  focus-link add FOCUS SCENE  load a scene when a focus mode begins\n"
    "  focus-link remove FOCUS | focus-link list [--json]\n"
    "  listen on|off              the global listening treatment for every application\n"
    "  listen balance on|off [TARGET_DBFS [STRENGTH%]]  the level balancer (the -0.3 dBFS ceiling is fixed)\n"
    "  listen band N FREQ GAIN [Q]  set band N (1...) of the listening equaliser: Hz, dB, Q\n"
    "  system-chain eq PRESET|off | system-chain bypass on|off | system-chain boost AMOUNT|off\n"
    "                             the system row's chain and its magic boost (AMOUNT 0...1)\n"
    "  apps [--json]              applications with audio processes, and seconds since their last sound\n"
    "  apps --installed [--json]  installed applications, and whether they can make sound\n"
    "  midi [--json]              the MIDI mappings: channel, controller and what each one drives\n"
    "  midi map CHANNEL CC volume APP|mute APP|device-volume DEVICE|output-volume|scene NAME|stage\n"
    "                             a controller drives a target (CHANNEL 1...16, or any; CC 0...127)\n"
    "  midi unmap ID              forget a mapping\n"
    "  midi learn TARGET...       map the next Control Change (move or press the control within 15 s);\n"
    "                             TARGET as for midi map\n"
    "  import [--sources FILE] [--preferences FILE] [--yes]  bring over a SoundSource setup (default: its\n"
    "                             files under the home folder); asks before replacing the current setup\n"
    "  mixer [--once]             the live mixer, full screen (? lists its keys); --once prints one frame\n"
    "  plugins [--json] [--rescan]  the installed effect plug-ins: name, maker, id\n"
    "  chain APP [add PLUGIN [PARAM=VALUE...] | set SLOT PARAM VALUE | bypass SLOT on|off | remove SLOT]\n"
    "                             an application's chain, and its plug-in slots\n"
    "  ping                       print the service's version\n"
    "  send '<request JSON>'      send any request and print the reply JSON\n"
    "  sim <command> ...          drive the simulated machine (tonavictl sim help)\n"
    "  help                       this text\n"
    "APP is a bundle identifier or an application's name; an identifier with a dot is sent as it is even\n"
    "when the status does not list it yet. DEVICE is a device UID, name or nickname, an output group's name,\n"
    "or @default for the current output; names ignore case. Exit status: 0 done, 1 refused by the service or nothing matches a name, 2 the service\n"
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
    {"config", Verb::configSave},
    {"eq-preset", Verb::eqPresetSave},
    {"eq-presets", Verb::eqPresets},
    {"lane", Verb::laneAdd},
    {"duck-rule", Verb::duckRuleAdd},
    {"focus-link", Verb::focusLinkAdd},
    {"listen", Verb::listen},
    {"system-chain", Verb::systemChain},
    {"apps", Verb::apps},
    {"mixer", Verb::mixer},
    {"midi", Verb::midiMappings},
};

constexpr const char* smartFeatures[] = {"follow-me", "guard", "duck", "mic-follow"};

// The output groups of the configuration, by ID and by the name the user gave them. (The status only
// has their aggregates, whose UIDs are a hash of the ID.)
NameResolver groups(const TonaviConfig& config) {
    std::vector<NameResolver::Candidate> candidates;
    for (const auto& group : config.groups)
        candidates.push_back({group.id, group.name, {}});
    return NameResolver("output group", std::move(candidates));
}

// A word that is itself an application's identifier: the service's own rules decide whether it may be
// controlled, so it is sent even before the status lists the application (right after a start, the
// status comes from the configuration alone).
bool looksLikeAppIdentifier(const std::string& word) {
    return word.find('.') != std::string::npos && word.front() != '.' && word.back() != '.' &&
           std::none_of(word.begin(), word.end(), [](unsigned char ch) { return std::isspace(ch); });
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

// "+5%" and "-0.1" move a level from where it is; the rest set it.
bool relativeLevel(const std::string& word) {
    return !word.empty() && (word.front() == '+' || word.front() == '-');
}

// A level word for volume and device-volume: an absolute level in 0...1, or a change of at most 1.
std::optional<std::string> checkLevel(const std::string& word, const std::string& what) {
    const auto level = number(word, true);
    if (!level)
        return what + " \"" + word + "\" is not a number; give 0...1 or 0%...100%, or +5% / -5%";
    if (relativeLevel(word) ? std::abs(*level) > 1 : *level < 0 || *level > 1)
        return what + " " + word + " is out of range; give 0...1 or 0%...100%, or +5% / -5%";
    return std::nullopt;
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

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char ch) { return static_cast<char>(std::tolower(ch)); });
    return text;
}

// The built-in presets first, then the user's saved ones, by name ignoring case.
std::optional<kavore::EQPreset> findPreset(const std::string& name, const TonaviConfig* config) {
    if (auto preset = findPreset(name))
        return preset;
    if (config)
        for (const auto& p : config->customEQPresets)
            if (lowered(p.name) == lowered(name))
                return p;
    return std::nullopt;
}

std::string noPresetError(const std::string& name, const TonaviConfig* config) {
    std::vector<NameResolver::Candidate> presets;
    std::vector<std::string> all;
    for (const auto& p : kavore::EQPresets::all())
        presets.push_back({p.name, p.name, {}}), all.push_back(p.name);
    if (config)
        for (const auto& p : config->customEQPresets)
            presets.push_back({p.name, p.name, {}}), all.push_back(p.name);
    const auto close = NameResolver("preset", presets).suggestions(name);
    std::string names;
    for (const auto& n : close.empty() ? all : close)
        names += (names.empty() ? "" : ", ") + n;
    return "no EQ preset is named \"" + name + "\"" +
           (close.empty() ? "; the presets are " + names : "; did you mean " + names + "?");
}

kavore::EffectSlot eqSlot(const kavore::EQPreset& preset) {
    kavore::EffectSlot slot;
    slot.id = makeUUID();
    slot.kind = kavore::EffectKind::eq10;
    slot.nickname = preset.name;
    slot.settingsJSON = kavore::settingsJSONBytes(kavore::toJSON(preset.settings));
    return slot;
}

// An application word for a removal: the status's name when it resolves, else the word itself (an
// app that is no longer running keeps its lanes and rules).
std::string looseAppID(const TonaviStatus* status, const std::string& word) {
    if (status)
        if (auto resolved = NameResolver::applications(*status).resolve(word); resolved.id)
            return *resolved.id;
    return word;
}

bool onOff(const std::string& word) {
    return word == "on" || word == "off";
}

// config, eq-preset(s), lane, duck-rule, focus-link, listen and system-chain.
CtlCommand::Parsed parseSetupCommand(CtlCommand c, const std::string& word, std::span<const std::string> rest) {
    const std::string sub = rest.empty() ? std::string() : rest[0];
    const auto args = rest.empty() ? rest : rest.subspan(1);
    auto listForm = [&](Verb verb) -> CtlCommand::Parsed {
        for (const auto& option : args)
            if (option != "--json")
                return fail(word + " list takes only --json, not \"" + option + "\"");
        c.verb = verb;
        c.json = !args.empty();
        return {c, {}};
    };
    switch (c.verb) {
    case Verb::configSave:
        if (sub == "list")
            return listForm(Verb::configList);
        if ((sub == "save" || sub == "load" || sub == "delete") && args.size() == 1) {
            c.verb = sub == "save" ? Verb::configSave : sub == "load" ? Verb::configLoad : Verb::configDelete;
            c.text = args[0];
            return {c, {}};
        }
        if (sub == "rename" && args.size() == 2) {
            c.verb = Verb::configRename;
            c.words.assign(args.begin(), args.end());
            return {c, {}};
        }
        return fail("config takes save NAME, load NAME, delete NAME, rename OLD NEW or list");
    case Verb::eqPresetSave:
        if (sub == "save" && args.size() >= 2) {
            // The name may have blanks when quoted; the application is the last word.
            c.text = joinWords(args.first(args.size() - 1));
            c.apps = {args.back()};
            return {c, {}};
        }
        if (sub == "delete" && !args.empty()) {
            c.verb = Verb::eqPresetDelete;
            c.text = joinWords(args);
            return {c, {}};
        }
        return fail("eq-preset takes save NAME APP or delete NAME");
    case Verb::eqPresets:
        if (rest.size() > 1 || (rest.size() == 1 && rest[0] != "--json"))
            return fail("eq-presets takes only --json");
        c.json = !rest.empty();
        return {c, {}};
    case Verb::laneAdd:
        if (sub == "list")
            return listForm(Verb::lanes);
        if (sub == "add" && (args.size() == 2 || (args.size() == 3 && args[2] == "--unlocked"))) {
            c.apps = {args[0]};
            c.device = args[1];
            c.on = args.size() == 2; // locked
            return {c, {}};
        }
        if (sub == "remove" && args.size() == 1) {
            c.verb = Verb::laneRemove;
            c.text = args[0];
            return {c, {}};
        }
        return fail("lane takes add APP DEVICE [--unlocked], remove APP or list");
    case Verb::duckRuleAdd:
        if (sub == "list")
            return listForm(Verb::duckRules);
        if (sub == "add") {
            std::vector<std::string> apps;
            for (std::size_t i = 0; i < args.size(); ++i) {
                if (args[i] != "--db") {
                    apps.push_back(args[i]);
                    continue;
                }
                const auto db = i + 1 < args.size() ? number(args[i + 1], false) : std::nullopt;
                if (!db || *db > 0 || *db < -60)
                    return fail("duck-rule --db takes a level in dB, -60...0");
                c.duckDB = *db;
                ++i;
            }
            if (apps.size() < 2)
                return fail("duck-rule add takes a trigger application and the applications it lowers");
            c.apps = apps;
            return {c, {}};
        }
        if (sub == "remove" && args.size() == 1) {
            c.verb = Verb::duckRuleRemove;
            c.text = args[0];
            return {c, {}};
        }
        return fail("duck-rule takes add TRIGGER APP... [--db DB], remove TRIGGER or list");
    case Verb::focusLinkAdd:
        if (sub == "list")
            return listForm(Verb::focusLinks);
        if (sub == "add" && args.size() == 2) {
            c.words.assign(args.begin(), args.end());
            return {c, {}};
        }
        if (sub == "remove" && args.size() == 1) {
            c.verb = Verb::focusLinkRemove;
            c.text = args[0];
            return {c, {}};
        }
        return fail("focus-link takes add FOCUS SCENE, remove FOCUS or list");
    case Verb::listen: {
        c.words.assign(rest.begin(), rest.end());
        if (rest.size() == 1 && onOff(sub))
            return {c, {}};
        if (sub == "balance" && !args.empty() && args.size() <= 3 && onOff(args[0])) {
            for (std::size_t i = 1; i < args.size(); ++i)
                if (!number(args[i], i == 2))
                    return fail("listen balance takes on or off, a target in dBFS and a strength in %");
            return {c, {}};
        }
        if (sub == "band" && (args.size() == 3 || args.size() == 4)) {
            for (const auto& a : args)
                if (!number(a, false))
                    return fail("listen band takes a band number, a frequency in Hz, a gain in dB and a Q");
            return {c, {}};
        }
        return fail("listen takes on|off, balance on|off [TARGET_DBFS [STRENGTH%]] or band N FREQ GAIN [Q]");
    }
    case Verb::systemChain: {
        c.words.assign(rest.begin(), rest.end());
        if (sub == "bypass" && args.size() == 1 && onOff(args[0]))
            return {c, {}};
        if (sub == "eq" && !args.empty()) {
            c.text = joinWords(args);
            return {c, {}};
        }
        if (sub == "boost" && args.size() == 1) {
            const auto amount = number(args[0], false);
            if (args[0] == "off" || (amount && *amount >= 0 && *amount <= 1))
                return {c, {}};
        }
        return fail("system-chain takes eq PRESET|off, bypass on|off or boost AMOUNT|off (0...1)");
    }
    default:
        return fail("not a setup command");
    }
}

// midi [--json], midi map CHANNEL CC TARGET..., midi unmap ID.
CtlCommand::Parsed parseMIDICommand(CtlCommand c, std::span<const std::string> rest) {
    if (rest.empty() || (rest.size() == 1 && rest[0] == "--json")) {
        c.json = !rest.empty();
        return {c, {}};
    }
    // learn: map's target on a channel and controller that the next Control Change will give.
    if (rest[0] == "learn" && rest.size() >= 2) {
        std::vector<std::string> words{"map", "any", "0"};
        words.insert(words.end(), rest.begin() + 1, rest.end());
        auto parsed = parseMIDICommand(c, words);
        if (parsed.command)
            parsed.command->verb = Verb::midiLearn;
        else
            parsed.error = "midi learn takes volume APP, mute APP, device-volume DEVICE, output-volume, scene NAME "
                           "or stage";
        return parsed;
    }
    if (rest[0] == "unmap" && rest.size() == 2) {
        c.verb = Verb::midiUnmap;
        c.text = rest[1];
        return {c, {}};
    }
    const char* const mapUsage =
        "midi map takes CHANNEL CC, then volume APP, mute APP, device-volume DEVICE, output-volume, "
        "scene NAME or stage";
    if (rest[0] != "map" || rest.size() < 4)
        return fail("midi takes --json, map CHANNEL CC TARGET..., learn TARGET... or unmap ID");
    MIDIMapping mapping;
    const auto channel = rest[1] == "any" ? std::optional<double>(0) : number(rest[1], false);
    if (!channel || *channel != std::floor(*channel) || *channel < 0 || *channel > 16)
        return fail("a MIDI channel is 1 to 16, or any");
    const auto cc = number(rest[2], false);
    if (!cc || *cc != std::floor(*cc) || *cc < 0 || *cc > 127)
        return fail("a controller number is 0 to 127");
    mapping.channel = static_cast<std::int64_t>(*channel);
    mapping.cc = static_cast<std::int64_t>(*cc);
    const std::string& kind = rest[3];
    const auto args = rest.subspan(4);
    if ((kind == "volume" || kind == "mute") && args.size() == 1) {
        c.apps = {args[0]};
        mapping.target = kind == "volume" ? MIDIMapping::Target(MIDIMapping::AppVolume{})
                                          : MIDIMapping::Target(MIDIMapping::AppMute{});
    } else if (kind == "device-volume" && args.size() == 1) {
        c.device = args[0];
        mapping.target = MIDIMapping::DeviceVolume{};
    } else if (kind == "output-volume" && args.empty()) {
        mapping.target = MIDIMapping::OutputVolume{};
    } else if (kind == "scene" && !args.empty()) {
        mapping.target = MIDIMapping::ConfigLoad{joinWords(args)};
    } else if (kind == "stage" && args.empty()) {
        mapping.target = MIDIMapping::StageMode{};
    } else {
        return fail(mapUsage);
    }
    c.verb = Verb::midiMap;
    c.midiMapping = std::move(mapping);
    return {c, {}};
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
    case Verb::configSave:
    case Verb::eqPresetSave:
    case Verb::eqPresets:
    case Verb::laneAdd:
    case Verb::duckRuleAdd:
    case Verb::focusLinkAdd:
    case Verb::listen:
    case Verb::systemChain:
        return parseSetupCommand(c, word, rest);
    case Verb::midiMappings:
        return parseMIDICommand(c, rest);
    default:
        break;
    }

    switch (c.verb) {
    case Verb::apps:
        for (const auto& option : rest) {
            if (option == "--json")
                c.json = true;
            else if (option == "--installed")
                c.verb = Verb::installedApps;
            else
                return fail("apps takes --installed and --json, not \"" + option + "\"");
        }
        break;
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
        if (auto error = checkLevel(rest[1], "volume level"))
            return fail(*error);
        c.apps = {rest[0]};
        c.amount = *number(rest[1], true);
        c.relative = relativeLevel(rest[1]);
        break;
    }
    case Verb::mute:
        if (rest.size() == 2 && rest[1] == "toggle") {
            c.apps = {rest[0]};
            c.toggle = true;
            break;
        }
        [[fallthrough]];
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
        if (auto error = checkLevel(rest[1], "device volume"))
            return fail(*error);
        c.device = rest[0];
        c.amount = *number(rest[1], true);
        c.relative = relativeLevel(rest[1]);
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
        break;
    }
    default: // the setup commands, parsed above
        break;
    }
    return {c, {}};
}

bool CtlCommand::needsStatus() const {
    return !apps.empty() || !device.empty() || !devices.empty() || verb == Verb::laneRemove ||
           verb == Verb::duckRuleRemove;
}

bool CtlCommand::needsConfig() const {
    switch (verb) {
    case Verb::eq:
        return text != "off";
    case Verb::groupDelete:
    case Verb::eqPresetSave:
    case Verb::eqPresetDelete:
    case Verb::laneAdd:
    case Verb::laneRemove:
    case Verb::lanes:
    case Verb::duckRuleAdd:
    case Verb::duckRuleRemove:
    case Verb::duckRules:
    case Verb::focusLinkAdd:
    case Verb::focusLinkRemove:
    case Verb::focusLinks:
    case Verb::listen:
    case Verb::systemChain:
        return true;
    default:
        return false;
    }
}

CtlCommand::Built CtlCommand::toRequest(const TonaviStatus* status, const GlobalLocks* locks,
                                        const SmartSettings* smart, const TonaviConfig* config) const {
    using R = TonaviRequest;
    std::vector<std::string> ids;
    if (!apps.empty()) {
        if (!status)
            return {std::nullopt, "no status to resolve names in"};
        const auto resolver = NameResolver::applications(*status);
        for (const auto& word : apps) {
            auto resolved = resolver.resolve(word);
            if (!resolved.id && looksLikeAppIdentifier(word))
                resolved.id = word;
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
    case Verb::mute: {
        if (verb == Verb::volume && !relative)
            return {R{R::SetAppVolume{ids[0], amount}}, {}};
        if (verb == Verb::mute && !toggle)
            return {R{R::SetAppMuted{ids[0], true}}, {}};
        // A change from the current value needs the application in the status.
        const auto app = std::find_if(status->apps.begin(), status->apps.end(),
                                      [&](const auto& a) { return a.id == ids[0]; });
        if (app == status->apps.end())
            return {std::nullopt, ids[0] + " is not in the status yet, so it has no " +
                                      (toggle ? "mute to toggle" : "volume to change; give a level")};
        if (toggle)
            return {R{R::SetAppMuted{ids[0], !app->muted}}, {}};
        return {R{R::SetAppVolume{ids[0], std::clamp(app->volume + amount, 0.0, 1.0)}}, {}};
    }
    case Verb::unmute:
        return {R{R::SetAppMuted{ids[0], false}}, {}};
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
        // "@default" is the output playing now: the app stays there when the system output moves.
        auto resolved = NameResolver::outputDevices(*status).resolve(device);
        if (!resolved.id)
            return {std::nullopt, resolved.error};
        return {R{R::SetAppRedirect{ids[0], *resolved.id}}, {}};
    }
    case Verb::eq: {
        // The request replaces the whole chain, so the app's boost is carried over into the new one,
        // from the status, or from the configuration for an app the status does not list yet.
        kavore::ChainSettings chain;
        const auto app = std::find_if(status->apps.begin(), status->apps.end(),
                                      [&](const auto& a) { return a.id == ids[0]; });
        if (app != status->apps.end())
            chain.overdrive = kavore::OverdriveSettings(app->boost);
        else if (const AppAudioState* row = config ? config->app(ids[0]) : nullptr)
            chain.overdrive = row->chain.overdrive;
        if (text != "off") {
            const auto preset = findPreset(text, config);
            if (!preset)
                return {std::nullopt, noPresetError(text, config)};
            chain.slots.push_back(eqSlot(*preset));
        }
        return {R{R::SetAppChain{ids[0], std::move(chain)}}, {}};
    }
    case Verb::configSave:
        return {R{R::SaveConfig{text}}, {}};
    case Verb::configLoad:
        return {R{R::LoadConfig{text}}, {}};
    case Verb::configDelete:
        return {R{R::DeleteConfig{text}}, {}};
    case Verb::configRename:
        return {R{R::RenameConfig{words[0], words[1]}}, {}};
    case Verb::configList:
        return {R{R::ListConfigs{}}, {}};
    case Verb::eqPresets:
        return {R{R::ListEQPresets{}}, {}};
    case Verb::apps:
        return {R{R::ListRunningAudioApps{}}, {}};
    case Verb::installedApps:
        return {R{R::ListInstalledApps{}}, {}};
    case Verb::midiMappings:
        return {R{R::ListMIDIMappings{}}, {}};
    case Verb::midiUnmap:
        return {R{R::RemoveMIDIMapping{text}}, {}};
    case Verb::midiMap:
    case Verb::midiLearn: {
        MIDIMapping mapping = *midiMapping;
        mapping.id = makeUUID();
        if (auto* app = std::get_if<MIDIMapping::AppVolume>(&mapping.target))
            app->bundleID = ids[0];
        else if (auto* mute = std::get_if<MIDIMapping::AppMute>(&mapping.target))
            mute->bundleID = ids[0];
        else if (auto* dev = std::get_if<MIDIMapping::DeviceVolume>(&mapping.target)) {
            auto resolved = NameResolver::allDevices(*status).resolve(device);
            if (!resolved.id)
                return {std::nullopt, resolved.error};
            dev->uid = *resolved.id;
        }
        return {R{R::SetMIDIMapping{std::move(mapping)}}, {}};
    }
    case Verb::lanes:
    case Verb::duckRules:
    case Verb::focusLinks:
        // The lists live in the configuration, which the support dump carries.
        return {R{R::Diagnostics{}}, {}};
    default:
        break;
    }
    if (needsConfig() && !config)
        return {std::nullopt, "no configuration to change"};
    switch (verb) {
    case Verb::eqPresetSave: {
        const AppAudioState* app = config->app(ids[0]);
        const kavore::EffectSlot* slot = nullptr;
        if (app)
            for (const auto& s : app->chain.slots)
                if (!slot && s.kind == kavore::EffectKind::eq10)
                    slot = &s;
        if (!slot)
            return {std::nullopt, apps[0] + " has no EQ to save"};
        kavore::EQPreset preset;
        preset.name = text;
        preset.icon = "slider.horizontal.3";
        preset.settings = kavore::eq10SettingsFromJSON(
            nlohmann::json::parse(slot->settingsJSON.begin(), slot->settingsJSON.end()));
        // Saving under a name already saved replaces that preset.
        preset.id = makeUUID();
        for (const auto& p : config->customEQPresets)
            if (lowered(p.name) == lowered(text))
                preset.id = p.id;
        return {R{R::SaveEQPreset{std::move(preset)}}, {}};
    }
    case Verb::eqPresetDelete:
        for (const auto& p : config->customEQPresets)
            if (lowered(p.name) == lowered(text))
                return {R{R::DeleteEQPreset{p.id}}, {}};
        return {std::nullopt, "no saved EQ preset is named \"" + text + "\" (tonavictl eq-presets lists them)"};
    case Verb::laneAdd: {
        auto resolved = NameResolver::outputDevices(*status).resolve(device);
        if (!resolved.id)
            return {std::nullopt, resolved.error};
        // One lane per application: adding again moves the one it has.
        WorkspaceLane lane{makeUUID(), ids[0], *resolved.id, on};
        for (const auto& l : config->lanes)
            if (l.appBundleID == ids[0])
                lane.id = l.id;
        return {R{R::SetLane{std::move(lane)}}, {}};
    }
    case Verb::laneRemove: {
        const std::string id = looseAppID(status, text);
        for (const auto& l : config->lanes)
            if (l.appBundleID == id || l.id == text)
                return {R{R::RemoveLane{l.id}}, {}};
        return {std::nullopt, "no lane for " + text + " (tonavictl lane list lists them)"};
    }
    case Verb::duckRuleAdd: {
        AutoDuckRule rule{makeUUID(), ids[0], std::vector<std::string>(ids.begin() + 1, ids.end())};
        if (duckDB)
            rule.duckDB = *duckDB;
        for (const auto& r : config->duckRules)
            if (r.triggerBundleID == ids[0])
                rule.id = r.id;
        return {R{R::SetDuckRule{std::move(rule)}}, {}};
    }
    case Verb::duckRuleRemove: {
        const std::string id = looseAppID(status, text);
        for (const auto& r : config->duckRules)
            if (r.triggerBundleID == id || r.id == text)
                return {R{R::RemoveDuckRule{r.id}}, {}};
        return {std::nullopt, "no duck rule for " + text + " (tonavictl duck-rule list lists them)"};
    }
    case Verb::focusLinkAdd: {
        FocusLink link{makeUUID(), words[0], words[1]};
        for (const auto& l : config->focusLinks)
            if (lowered(l.focusName) == lowered(words[0]))
                link.id = l.id;
        return {R{R::SetFocusLink{std::move(link)}}, {}};
    }
    case Verb::focusLinkRemove:
        for (const auto& l : config->focusLinks)
            if (lowered(l.focusName) == lowered(text) || l.id == text)
                return {R{R::RemoveFocusLink{l.id}}, {}};
        return {std::nullopt, "no focus link for " + text + " (tonavictl focus-link list lists them)"};
    case Verb::listen: {
        kavore::GlobalListeningSettings next = config->globalListening;
        if (words.size() == 1) {
            next.enabled = words[0] == "on";
        } else if (words[0] == "balance") {
            auto& b = next.balancer;
            const double target = words.size() > 2 ? *number(words[2], false) : b.targetDBFS;
            const double strength = words.size() > 3 ? *number(words[3], true) * (words[3].ends_with('%') ? 100 : 1)
                                                     : b.strengthPercent;
            b = kavore::ListeningBalancerSettings(words[1] == "on", target, strength);
        } else {
            const double index = *number(words[1], false);
            auto bands = next.equalizer.bands;
            if (index < 1 || index > static_cast<double>(bands.size()) || index != std::floor(index))
                return {std::nullopt, "the listening equaliser has bands 1..." + std::to_string(bands.size())};
            auto& band = bands[static_cast<std::size_t>(index) - 1];
            band = kavore::ListeningEQBand(band.id, band.kind, *number(words[2], false), *number(words[3], false),
                                           words.size() > 4 ? *number(words[4], false) : band.q, true);
            next.equalizer = kavore::ListeningEQSettings(bands);
        }
        return {R{R::SetGlobalListening{std::move(next)}}, {}};
    }
    case Verb::systemChain: {
        const auto& rows = config->systemRows;
        if (words[0] == "boost") {
            const bool off = words[1] == "off";
            return {R{R::SetSystemMagicBoost{
                        kavore::LevelerSettings(off ? rows.systemMagicBoost.amount : *number(words[1], false), !off)}},
                    {}};
        }
        kavore::ChainSettings chain = rows.systemChain;
        if (words[0] == "bypass") {
            chain.bypassed = words[1] == "on";
        } else {
            std::erase_if(chain.slots, [](const auto& s) { return s.kind == kavore::EffectKind::eq10; });
            if (text != "off") {
                const auto preset = findPreset(text, config);
                if (!preset)
                    return {std::nullopt, noPresetError(text, config)};
                chain.slots.insert(chain.slots.begin(), eqSlot(*preset));
            }
        }
        return {R{R::SetSystemChain{std::move(chain)}}, {}};
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
        auto resolved = groups(*config).resolve(text);
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
                                                                  : NameResolver::allDevices(*status);
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
        case Verb::deviceVolume: {
            if (!relative)
                return {R{R::SetDeviceVolume{uids[0], amount}}, {}};
            const auto found = std::find_if(status->devices.begin(), status->devices.end(),
                                            [&](const auto& d) { return d.id == uids[0]; });
            if (found == status->devices.end())
                return {std::nullopt, uids[0] + " is not in the status yet, so it has no volume to change; "
                                                "give a level"};
            return {R{R::SetDeviceVolume{uids[0], std::clamp(found->volume + amount, 0.0, 1.0)}}, {}};
        }
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
