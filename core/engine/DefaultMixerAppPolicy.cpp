#include "core/engine/DefaultMixerAppPolicy.hpp"

#include <algorithm>
#include <array>
#include <string>

namespace tonavi::DefaultMixerAppPolicy {

namespace {

constexpr auto bundleFragments = std::to_array<std::string_view>({
    "anthropic.claudefordesktop",
    "openai.chat",
    "chatgpt",
    "safari",
    "chrome",
    "thebrowser",
    "brave",
    "firefox",
    "microsoft.edge",
    "opera",
    "vivaldi",
    "orion",
    "perplexity.comet",
    "musescore",
    "logic10",
    "garageband",
    "ableton",
    "reaper",
    "cubase",
    "studioone",
    "protools",
    "pro.tools",
    "bitwig",
    "flstudio",
    "image-line",
    "reasonstudios",
    "mainstage",
    "pianoteq",
    "ardour",
    "tracktion.waveform",
    "waveform",
    "digitalperformer",
    "harrison.mixbus",
    "adobe.audition",
    // Linux browsers and music tools by desktop-entry or Flatpak identifier.
    "chromium",
    "librewolf",
    "epiphany",
    "lmms",
    "qtractor",
    "zrythm",
    "rosegarden",
});

constexpr auto names = std::to_array<std::string_view>({
    "claude",     "chatgpt",        "safari",    "chrome",   "arc",        "brave",     "firefox",
    "edge",       "opera",          "vivaldi",   "orion",    "comet",      "musescore", "logic pro",
    "garageband", "ableton live",   "reaper",    "cubase",   "studio one", "pro tools", "bitwig",
    "fl studio",  "reason",         "mainstage", "pianoteq", "ardour",     "waveform",  "digital performer",
    "mixbus",     "adobe audition",
    "chromium", "librewolf", "lmms", "qtractor", "zrythm", "rosegarden",
});

std::string lowered(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return out;
}

} // namespace

bool includes(std::string_view bundleID, std::string_view name) {
    const std::string id = lowered(bundleID);
    if (std::any_of(bundleFragments.begin(), bundleFragments.end(),
                    [&](std::string_view fragment) { return id.find(fragment) != std::string::npos; }))
        return true;
    const std::string lowName = lowered(name);
    const std::string_view view(lowName);
    return std::any_of(names.begin(), names.end(), [&](std::string_view entry) {
        if (view == entry)
            return true;
        return view.size() > entry.size() && view.starts_with(entry) && view[entry.size()] == ' ';
    });
}

} // namespace tonavi::DefaultMixerAppPolicy
