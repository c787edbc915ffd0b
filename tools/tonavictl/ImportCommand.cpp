#include "tools/tonavictl/ImportCommand.hpp"

#include "base/Paths.hpp"
#include "core/wire/AudioUnitInfo.hpp"
#include "core/wire/Diagnostics.hpp"
#include "core/wire/TonaviChannel.hpp"
#include "core/wire/TonaviPayload.hpp"

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace tonavi {

namespace {

constexpr double clientTimeoutSeconds = 25;

int usage(const std::string& message) {
    std::fprintf(stderr, "tonavictl: %s\nusage: tonavictl import [--sources FILE] [--preferences FILE] [--yes]\n",
                 message.c_str());
    return 64;
}

int refused(const std::string& message) {
    std::fprintf(stderr, "tonavictl: %s\n", message.c_str());
    return 1;
}

} // namespace

std::string describeImport(const SoundSourceImportResult& result) {
    std::string text = "SoundSource: " + std::to_string(result.importedApps) + " applications, " +
                       std::to_string(result.importedEffects) + " effects to import\n";
    for (const auto& [title, lines] : {std::pair{"mapped", &result.mappedEffects}, {"skipped", &result.skippedEffects}}) {
        if (lines->empty())
            continue;
        text += std::string(title) + ":\n";
        for (const auto& line : *lines)
            text += "  " + line + "\n";
    }
    return text;
}

int runImportCommand(int argc, char** argv) {
    std::string sources;
    std::string preferences;
    bool yes = false;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--yes") {
            yes = true;
        } else if ((option == "--sources" || option == "--preferences") && i + 1 < argc) {
            (option == "--sources" ? sources : preferences) = argv[++i];
        } else {
            return usage("import does not take \"" + option + "\"");
        }
    }
    try {
        // The import starts from the service's configuration as it is now.
        TonaviReply dump = TonaviChannel::send({TonaviRequest::Diagnostics{}}, clientTimeoutSeconds);
        if (!dump.ok || !dump.payload)
            return refused("the service gave no configuration to import into");
        const TonaviConfig current = TonaviPayload::decodeDiagnostics(*dump.payload).config;
        // A plug-in effect keeps its plug-in when the service's catalogue has one with its codes (a
        // macOS Audio Unit never matches an LV2 key); otherwise it takes the fallback, and says so.
        TonaviReply listed = TonaviChannel::send({TonaviRequest::ListAudioUnits{}}, clientTimeoutSeconds);
        const std::vector<AudioUnitInfo> installed =
            listed.ok && listed.payload ? TonaviPayload::decodeAudioUnits(*listed.payload) : std::vector<AudioUnitInfo>{};
        auto lookup = [&installed](const kavore::AUComponentKey& key) {
            return std::any_of(installed.begin(), installed.end(), [&](const AudioUnitInfo& unit) {
                return unit.key.type == key.type && unit.key.subtype == key.subtype &&
                       unit.key.manufacturer == key.manufacturer;
            });
        };
        SoundSourceImportResult result;
        try {
            result = SoundSourceImporter::loadDefault(current, AutoDirectList::bundled(), lookup,
                                                      Paths::homeDirectory(), sources, preferences);
        } catch (const SoundSourceImportError& e) {
            return refused(e.what());
        }
        std::fputs(describeImport(result).c_str(), stdout);
        if (!yes) {
            std::fputs("Replace the current setup with this one? [y/N] ", stdout);
            std::fflush(stdout);
            std::string answer;
            std::getline(std::cin, answer);
            if (answer != "y" && answer != "Y" && answer != "yes")
                return refused("not imported: the current setup is kept");
        }
        TonaviReply reply = TonaviChannel::send(
            {TonaviRequest::ImportConfiguration{std::move(result.config), std::move(result.autoDirect)}},
            clientTimeoutSeconds);
        if (!reply.ok)
            return refused(reply.message.empty() ? "the service refused the import" : reply.message);
        std::printf("%s\n", reply.message.c_str());
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tonavictl: %s\n", e.what());
        return 2;
    }
}

} // namespace tonavi
