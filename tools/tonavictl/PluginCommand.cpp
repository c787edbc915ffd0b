#include "tools/tonavictl/PluginCommand.hpp"

#include "base/Encoding.hpp"
#include "core/wire/Diagnostics.hpp"
#include "core/wire/TonaviChannel.hpp"
#include "core/wire/TonaviPayload.hpp"
#include "platform/PluginHost.hpp"
#include "tools/tonavictl/NameResolver.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace tonavi {

namespace {

constexpr double timeoutSeconds = 25;
constexpr int exitOK = 0, exitRefused = 1, exitUnreachable = 2, exitUsage = 64;

const char* const usage = "usage: tonavictl plugins [--json] [--rescan]\n"
                          "       tonavictl chain APP\n"
                          "       tonavictl chain APP add PLUGIN [PARAM=VALUE ...]\n"
                          "       tonavictl chain APP set SLOT PARAM VALUE\n"
                          "       tonavictl chain APP bypass SLOT on|off\n"
                          "       tonavictl chain APP remove SLOT\n"
                          "PLUGIN is a plug-in's id or name (tonavictl plugins); SLOT a slot's number in the chain,\n"
                          "its id or its name.\n";

// A refusal of the user's words: printed, exit 1.
struct Refusal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

TonaviReply send(TonaviRequest::Value value) {
    TonaviReply reply = TonaviChannel::send(TonaviRequest{std::move(value)}, timeoutSeconds);
    if (!reply.ok)
        throw Refusal(reply.message);
    return reply;
}

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

std::optional<double> number(const std::string& word) {
    char* end = nullptr;
    const double value = std::strtod(word.c_str(), &end);
    if (word.empty() || end != word.c_str() + word.size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

// The local description of a catalogue entry: same codes, read from the plug-in's files.
std::optional<PluginDescription> describe(const kavore::AUComponentKey& key) {
    for (auto& d : PluginHost::shared()->plugins()) {
        const PluginCodes codes = pluginCodes(d.uri);
        if (codes.subtype == key.subtype && codes.manufacturer == key.manufacturer)
            return d;
    }
    return std::nullopt;
}

nlohmann::json parametersOf(const kavore::EffectSlot& slot) {
    auto json = nlohmann::json::parse(slot.settingsJSON.begin(), slot.settingsJSON.end(), nullptr, false);
    if (json.is_object() && json.contains("parameters") && json["parameters"].is_object())
        return json["parameters"];
    return nlohmann::json::object();
}

void setParameters(kavore::EffectSlot& slot, const nlohmann::json& parameters) {
    const std::string text = nlohmann::json{{"parameters", parameters}}.dump();
    slot.settingsJSON.assign(text.begin(), text.end());
}

// PARAM and VALUE checked against the description: a known symbol, a number within its range.
void checkParameter(const PluginDescription& d, const std::string& symbol, const std::string& word,
                    nlohmann::json& into) {
    const PluginParameter* p = d.parameter(symbol);
    if (!p) {
        std::string known;
        for (const auto& q : d.parameters)
            known += (known.empty() ? "" : ", ") + q.symbol;
        throw Refusal(d.name + " has no parameter \"" + symbol + "\"" +
                      (known.empty() ? "; it has none" : "; its parameters are " + known));
    }
    const auto value = number(word);
    if (!value || *value < p->minimum || *value > p->maximum)
        throw Refusal(symbol + " of " + d.name + " takes a number from " + nlohmann::json(p->minimum).dump() +
                      " to " + nlohmann::json(p->maximum).dump() + ", not \"" + word + "\"");
    into[symbol] = *value;
}

std::string slotName(const kavore::EffectSlot& slot) {
    if (!slot.nickname.empty())
        return slot.nickname;
    return slot.auComponent ? slot.auComponent->name : std::string();
}

int plugins(const std::vector<std::string>& args) {
    bool json = false, rescan = false;
    for (const auto& a : args) {
        if (a == "--json")
            json = true;
        else if (a == "--rescan")
            rescan = true;
        else
            throw std::invalid_argument("plugins takes --json and --rescan, not \"" + a + "\"");
    }
    const TonaviReply reply =
        rescan ? send(TonaviRequest::ScanAudioUnits{}) : send(TonaviRequest::ListAudioUnits{});
    const auto units = reply.payload ? TonaviPayload::decodeAudioUnits(*reply.payload) : std::vector<AudioUnitInfo>{};
    if (json) {
        std::printf("%s\n", nlohmann::json(units).dump(2).c_str());
        return exitOK;
    }
    std::size_t nameWidth = 4, makerWidth = 5;
    for (const auto& u : units)
        nameWidth = std::max(nameWidth, u.key.name.size()), makerWidth = std::max(makerWidth, u.key.manufacturerName.size());
    std::printf("%-*s  %-*s  %s\n", int(nameWidth), "NAME", int(makerWidth), "MAKER", "ID");
    for (const auto& u : units)
        std::printf("%-*s  %-*s  %s\n", int(nameWidth), u.key.name.c_str(), int(makerWidth),
                    u.key.manufacturerName.c_str(), u.id.c_str());
    return exitOK;
}

const AudioUnitInfo& findPlugin(const std::vector<AudioUnitInfo>& units, const std::string& word) {
    std::vector<NameResolver::Candidate> candidates;
    for (const auto& u : units)
        candidates.push_back({u.id, u.key.name, {}});
    const auto resolved = NameResolver("plug-in", candidates).resolve(word);
    if (!resolved.id)
        throw Refusal(resolved.error);
    return *std::find_if(units.begin(), units.end(), [&](const auto& u) { return u.id == *resolved.id; });
}

std::size_t findSlot(const kavore::ChainSettings& chain, const std::string& word) {
    if (const auto n = number(word); n && *n >= 1 && *n <= double(chain.slots.size()) && *n == std::floor(*n))
        return std::size_t(*n) - 1;
    for (std::size_t i = 0; i < chain.slots.size(); ++i)
        if (chain.slots[i].id == word || lowered(slotName(chain.slots[i])) == lowered(word))
            return i;
    throw Refusal("the chain has no slot \"" + word + "\"; give its number (tonavictl chain APP lists them)");
}

void printChain(const std::string& appName, const kavore::ChainSettings& chain) {
    std::printf("%s: %zu slot%s%s\n", appName.c_str(), chain.slots.size(), chain.slots.size() == 1 ? "" : "s",
                chain.bypassed ? ", the whole chain bypassed" : "");
    for (std::size_t i = 0; i < chain.slots.size(); ++i) {
        const auto& slot = chain.slots[i];
        std::string line = std::to_string(i + 1) + "  " + std::string(kavore::effectKindName(slot.kind)) + "  " + slotName(slot);
        line += slot.bypassed ? "  bypassed" : "  on";
        if (slot.kind == kavore::EffectKind::audioUnit && slot.auComponent) {
            const auto stored = parametersOf(slot);
            if (const auto d = describe(*slot.auComponent)) {
                for (const auto& p : d->parameters)
                    line += "  " + p.symbol + "=" +
                            nlohmann::json(stored.contains(p.symbol) ? stored[p.symbol].get<double>() : p.defaultValue)
                                .dump();
            } else {
                line += "  (not installed here)";
            }
        }
        std::printf("%s\n", line.c_str());
    }
}

int chain(const std::vector<std::string>& args) {
    if (args.empty())
        throw std::invalid_argument("chain takes an application");
    const TonaviReply dumpReply = send(TonaviRequest::Diagnostics{});
    if (!dumpReply.payload)
        throw Refusal("the service gave no configuration to read the chain from");
    const Diagnostics dump = TonaviPayload::decodeDiagnostics(*dumpReply.payload);
    const auto resolved = NameResolver::applications(dump.status).resolve(args[0]);
    if (!resolved.id)
        throw Refusal(resolved.error);
    const std::string appID = *resolved.id;
    std::string appName = appID;
    kavore::ChainSettings current;
    for (const auto& row : dump.config.apps)
        if (row.id == appID)
            current = row.chain, appName = row.displayName.empty() ? appID : row.displayName;

    if (args.size() == 1) {
        printChain(appName, current);
        return exitOK;
    }
    const std::string& verb = args[1];
    kavore::ChainSettings next = current;
    std::string done;
    if (verb == "add" && args.size() >= 3) {
        const auto listed = send(TonaviRequest::ListAudioUnits{});
        const auto units = listed.payload ? TonaviPayload::decodeAudioUnits(*listed.payload) : std::vector<AudioUnitInfo>{};
        const AudioUnitInfo& unit = findPlugin(units, args[2]);
        const auto d = describe(unit.key);
        if (!d)
            throw Refusal(unit.key.name + " is not installed on this machine");
        if (!d->stereoProblem.empty())
            throw Refusal(d->name + " cannot be added: " + d->stereoProblem);
        nlohmann::json parameters = nlohmann::json::object();
        for (std::size_t i = 3; i < args.size(); ++i) {
            const auto eq = args[i].find('=');
            if (eq == std::string::npos)
                throw std::invalid_argument("parameters are given as PARAM=VALUE, not \"" + args[i] + "\"");
            checkParameter(*d, args[i].substr(0, eq), args[i].substr(eq + 1), parameters);
        }
        kavore::EffectSlot slot;
        slot.id = makeUUID();
        slot.kind = kavore::EffectKind::audioUnit;
        slot.nickname = unit.key.name;
        slot.auComponent = unit.key;
        setParameters(slot, parameters);
        next.slots.push_back(std::move(slot));
        done = unit.key.name + " added to " + appName + " as slot " + std::to_string(next.slots.size());
    } else if (verb == "set" && args.size() == 5) {
        auto& slot = next.slots[findSlot(next, args[2])];
        if (slot.kind != kavore::EffectKind::audioUnit || !slot.auComponent)
            throw Refusal("slot \"" + args[2] + "\" is a built-in effect; only plug-in parameters are set here");
        const auto d = describe(*slot.auComponent);
        if (!d)
            throw Refusal(slot.auComponent->name + " is not installed on this machine");
        auto parameters = parametersOf(slot);
        checkParameter(*d, args[3], args[4], parameters);
        setParameters(slot, parameters);
        done = slotName(slot) + ": " + args[3] + " = " + args[4];
    } else if (verb == "bypass" && args.size() == 4 && (args[3] == "on" || args[3] == "off")) {
        auto& slot = next.slots[findSlot(next, args[2])];
        slot.bypassed = args[3] == "on";
        done = slotName(slot) + (slot.bypassed ? " bypassed" : " on");
    } else if (verb == "remove" && args.size() == 3) {
        const std::size_t at = findSlot(next, args[2]);
        done = slotName(next.slots[at]) + " removed from " + appName;
        next.slots.erase(next.slots.begin() + std::ptrdiff_t(at));
    } else {
        throw std::invalid_argument("chain APP takes add PLUGIN [PARAM=VALUE ...], set SLOT PARAM VALUE, "
                                    "bypass SLOT on|off or remove SLOT");
    }
    send(TonaviRequest::SetAppChain{appID, std::move(next)});
    std::printf("%s\n", done.c_str());
    return exitOK;
}

} // namespace

int runPluginCommand(int argc, char** argv) {
    const std::string command = argv[0];
    const std::vector<std::string> args(argv + 1, argv + argc);
    try {
        return command == "plugins" ? plugins(args) : chain(args);
    } catch (const std::invalid_argument& e) {
        std::fprintf(stderr, "tonavictl: %s\n%s", e.what(), usage);
        return exitUsage;
    } catch (const Refusal& e) {
        std::fprintf(stderr, "tonavictl: %s\n", e.what());
        return exitRefused;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tonavictl: %s\n", e.what());
        return exitUnreachable;
    }
}

} // namespace tonavi
