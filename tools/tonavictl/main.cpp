// tonavictl: a command-line client of the service's control socket; `tonavictl help` lists the commands.
// Exit status: 0 on an ok reply, 1 on a failure reply or a name that matches nothing, 2 when the service
// cannot be reached or answers with something that is not a reply, 64 for wrong arguments.

#include "core/wire/Diagnostics.hpp"
#include "core/wire/RawSocket.hpp"
#include "core/wire/TonaviChannel.hpp"
#include "core/wire/TonaviPayload.hpp"
#include "core/wire/TonaviStatus.hpp"
#include "core/wire/TransportError.hpp"
#include "core/wire/WireError.hpp"

#include "tools/tonavictl/CtlCommand.hpp"
#include "tools/tonavictl/ImportCommand.hpp"
#include "tools/tonavictl/MixerScreen.hpp"
#include "tools/tonavictl/PluginCommand.hpp"
#include "tools/tonavictl/SimCommand.hpp"
#include "tools/tonavictl/StatusTable.hpp"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using namespace tonavi;

// Above the server's own 20-second bound, so that a slow request ends with its time-out reply.
constexpr double clientTimeoutSeconds = 25;
constexpr int exitOK = 0;
constexpr int exitRefused = 1;
constexpr int exitUnreachable = 2;
constexpr int exitUsage = 64;

// Sends JSON text as it is and prints the reply's text as it came.
int sendRaw(const std::string& requestJSON) {
    auto* bytes = reinterpret_cast<const std::uint8_t*>(requestJSON.data());
    Bytes raw =
        RawSocket::roundTrip(TonaviChannel::socketPath(), {bytes, requestJSON.size()}, clientTimeoutSeconds);
    std::string text(raw.begin(), raw.end());
    TonaviReply reply = decodeReply(text);
    std::printf("%s\n", text.c_str());
    return reply.ok ? exitOK : exitRefused;
}

int refused(const std::string& message) {
    std::fprintf(stderr, "tonavictl: %s\n", message.c_str());
    return exitRefused;
}

// midi learn: the service waits for the next Control Change; the mapping takes its channel and controller.
constexpr double midiLearnSeconds = 15;
int learnMIDIControl(TonaviRequest& mapRequest) {
    std::printf("move or press a control on the MIDI controller (within %g s)\n", midiLearnSeconds);
    std::fflush(stdout);
    TonaviReply reply = TonaviChannel::send({TonaviRequest::LearnMIDIControl{midiLearnSeconds}}, clientTimeoutSeconds);
    if (!reply.ok || !reply.payload)
        return refused(reply.message.empty() ? "the service learned no control" : reply.message);
    const auto learned = nlohmann::json::parse(reply.payload->begin(), reply.payload->end());
    auto& mapping = std::get<TonaviRequest::SetMIDIMapping>(mapRequest.value)._0;
    mapping.channel = learned.at("channel").get<std::int64_t>();
    mapping.cc = learned.at("cc").get<std::int64_t>();
    return exitOK;
}

int run(const CtlCommand& command) {
    using Verb = CtlCommand::Verb;
    if (command.verb == Verb::send)
        return sendRaw(command.text);
    if (command.verb == Verb::status && command.json)
        return sendRaw(encodeRequest(TonaviRequest{TonaviRequest::Status{}}));

    std::optional<TonaviStatus> status;
    if (command.needsStatus() || (command.verb == Verb::apps && !command.json)) {
        TonaviReply reply = TonaviChannel::send({TonaviRequest::Status{}}, clientTimeoutSeconds);
        if (!reply.ok || !reply.status)
            return refused("the service gave no status to look names up in" +
                           (reply.message.empty() ? std::string() : ": " + reply.message));
        status = std::move(reply.status);
    }
    // The locks and the system roles live in the configuration and the status: the support dump has both.
    std::optional<Diagnostics> dump;
    if (command.needsLocks() || command.needsSmartSettings() || command.needsConfig() ||
        command.verb == Verb::devices) {
        TonaviReply reply = TonaviChannel::send({TonaviRequest::Diagnostics{}}, clientTimeoutSeconds);
        if (!reply.ok || !reply.payload)
            return refused("the service gave no configuration to read the locks from");
        dump = TonaviPayload::decodeDiagnostics(*reply.payload);
    }
    const std::optional<GlobalLocks> locks =
        dump ? std::optional<GlobalLocks>(dump->config.locks) : std::nullopt;
    const std::optional<SmartSettings> smart =
        dump ? std::optional<SmartSettings>(dump->config.smart) : std::nullopt;
    auto built = command.toRequest(status ? &*status : nullptr, locks ? &*locks : nullptr,
                                   smart ? &*smart : nullptr, dump ? &dump->config : nullptr);
    if (!built.request)
        return refused(built.error);
    if (command.verb == Verb::midiLearn)
        if (const int failed = learnMIDIControl(*built.request))
            return failed;

    TonaviReply reply = TonaviChannel::send(*built.request, clientTimeoutSeconds);
    if (!reply.ok)
        return refused(reply.message.empty() ? "the service refused the request" : reply.message);
    switch (command.verb) {
    case Verb::status:
        if (!reply.status)
            return refused("the reply holds no status");
        std::fputs(StatusTable::render(*reply.status).c_str(), stdout);
        break;
    case Verb::devices: {
        if (!reply.payload)
            return refused("the reply holds no device list");
        TonaviStatus view = dump->status;
        view.devices = TonaviPayload::decodeDevices(*reply.payload);
        std::fputs(StatusTable::renderDevices(view, *locks).c_str(), stdout);
        break;
    }
    case Verb::output:
        if (reply.status)
            std::printf("%s\n", StatusTable::outputLine(*reply.status).c_str());
        break;
    case Verb::smart: {
        if (!reply.payload)
            return refused("the reply holds no smart settings");
        const Diagnostics current = TonaviPayload::decodeDiagnostics(*reply.payload);
        if (command.json) {
            nlohmann::json out = {{"settings", current.config.smart},
                                  {"live", current.status.smartLive.value_or(SmartLiveStatus{})}};
            std::printf("%s\n", out.dump(2).c_str());
        } else {
            std::fputs(StatusTable::renderSmart(current.status, current.config.smart).c_str(), stdout);
        }
        break;
    }
    case Verb::smartSet:
        std::printf("%s %s\n", command.text.c_str(), command.on ? "on" : "off");
        break;
    case Verb::recent: {
        if (!reply.status)
            return refused("the reply holds no status");
        if (command.json) {
            nlohmann::json out = reply.status->recentOnsets.value_or(std::vector<AudioOnset>{});
            std::printf("%s\n", out.dump(2).c_str());
        } else {
            const double now =
                std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
            std::fputs(StatusTable::renderRecent(*reply.status, now).c_str(), stdout);
        }
        break;
    }
    case Verb::configLoad:
        // Where the output really is once the scene is in: the reply waits for the system to show it.
        std::printf("%s\n", reply.message.c_str());
        if (reply.status)
            std::printf("%s\n", StatusTable::outputLine(*reply.status).c_str());
        break;
    case Verb::configList:
    case Verb::eqPresets: {
        if (!reply.payload)
            return refused("the reply holds no list");
        if (command.json) {
            std::printf("%s\n", nlohmann::json::parse(reply.payload->begin(), reply.payload->end()).dump(2).c_str());
        } else if (command.verb == Verb::eqPresets) {
            std::fputs(StatusTable::renderPresets(TonaviPayload::decodeEQPresets(*reply.payload)).c_str(), stdout);
        } else {
            for (const auto& name : TonaviPayload::decodeNames(*reply.payload))
                std::printf("%s\n", name.c_str());
        }
        break;
    }
    case Verb::apps:
    case Verb::installedApps:
        if (!reply.payload)
            return refused("the reply holds no list");
        if (command.json)
            std::printf("%s\n", nlohmann::json::parse(reply.payload->begin(), reply.payload->end()).dump(2).c_str());
        else if (command.verb == Verb::apps)
            std::fputs(StatusTable::renderRunningApps(TonaviPayload::decodeRunningApps(*reply.payload), *status)
                           .c_str(),
                       stdout);
        else
            std::fputs(StatusTable::renderInstalledApps(TonaviPayload::decodeInstalledApps(*reply.payload)).c_str(),
                       stdout);
        break;
    case Verb::lanes:
    case Verb::duckRules:
    case Verb::focusLinks: {
        if (!reply.payload)
            return refused("the reply holds no configuration");
        const Diagnostics current = TonaviPayload::decodeDiagnostics(*reply.payload);
        const auto& config = current.config;
        if (command.json) {
            const nlohmann::json out = command.verb == Verb::lanes       ? nlohmann::json(config.lanes)
                                       : command.verb == Verb::duckRules ? nlohmann::json(config.duckRules)
                                                                         : nlohmann::json(config.focusLinks);
            std::printf("%s\n", out.dump(2).c_str());
        } else {
            std::fputs((command.verb == Verb::lanes       ? StatusTable::renderLanes(config, current.status)
                        : command.verb == Verb::duckRules ? StatusTable::renderDuckRules(config, current.status)
                                                          : StatusTable::renderFocusLinks(config))
                           .c_str(),
                       stdout);
        }
        break;
    }
    case Verb::midiMappings: {
        if (!reply.payload)
            return refused("the reply holds no list");
        if (command.json)
            std::printf("%s\n", nlohmann::json::parse(reply.payload->begin(), reply.payload->end()).dump(2).c_str());
        else
            std::fputs(StatusTable::renderMIDIMappings(TonaviPayload::decodeMIDIMappings(*reply.payload)).c_str(),
                       stdout);
        break;
    }
    case Verb::midiMap:
    case Verb::midiLearn: {
        const auto& request = std::get<TonaviRequest::SetMIDIMapping>(built.request->value)._0;
        std::printf("channel %s cc %lld: %s (id %s)\n",
                    request.channel == 0 ? "any" : std::to_string(request.channel).c_str(),
                    static_cast<long long>(request.cc), StatusTable::describeMIDITarget(request.target).c_str(),
                    request.id.c_str());
        break;
    }
    case Verb::diagnostics: {
        if (!reply.payload)
            return refused("the reply holds no diagnostics");
        std::string text(reply.payload->begin(), reply.payload->end());
        auto parsed = nlohmann::json::parse(text, nullptr, false);
        std::printf("%s\n", parsed.is_discarded() ? text.c_str() : parsed.dump(2).c_str());
        break;
    }
    default:
        if (!reply.message.empty())
            std::printf("%s\n", reply.message.c_str());
        break;
    }
    return exitOK;
}

} // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && std::string(argv[1]) == "sim")
        return tonavi::runSimCommand(argc - 1, argv + 1);
    if (argc >= 2 && std::string(argv[1]) == "import")
        return tonavi::runImportCommand(argc - 1, argv + 1);
    if (argc >= 2 && (std::string(argv[1]) == "plugins" || std::string(argv[1]) == "chain"))
        return tonavi::runPluginCommand(argc - 1, argv + 1);
    const std::vector<std::string> args(argv + 1, argv + argc);
    auto parsed = tonavi::CtlCommand::parse(args);
    if (!parsed.command) {
        std::fprintf(stderr, "tonavictl: %s\n", parsed.error.c_str());
        if (args.empty())
            std::fputs(tonavi::ctlUsageText, stderr);
        return exitUsage;
    }
    if (parsed.command->verb == tonavi::CtlCommand::Verb::help) {
        std::fputs(tonavi::ctlUsageText, stdout);
        return exitOK;
    }
    if (parsed.command->verb == tonavi::CtlCommand::Verb::mixer)
        return parsed.command->once ? tonavi::MixerScreen::printOnce() : tonavi::MixerScreen::run();
    try {
        return run(*parsed.command);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tonavictl: %s\n", e.what());
        return exitUnreachable;
    }
}
