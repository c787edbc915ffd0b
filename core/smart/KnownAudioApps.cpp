#include "core/smart/KnownAudioApps.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <string>

namespace tonavi::KnownAudioApps {

namespace {

constexpr auto list = std::to_array<std::string_view>({
    "safari",     "chrome",      "thebrowser",   "brave",
    "firefox",    "edge",        "opera",        "vivaldi",
    "orion",      "spotify",     "apple.music",  "itunes",
    "vlc",        "iina",        "quicktime",    "tidal",
    "deezer",     "soundcloud",  "audirvana",    "roon",
    "plex",       "infuse",      "elmedia",      "swinsian",
    "logic",      "garageband",  "ableton",      "live",
    "pianoteq",   "mainstage",   "reaper",       "cubase",
    "studioone",  "protools",    "bitwig",       "fl studio",
    "flstudio",   "reason",      "musescore",    "dorico",
    "sibelius",   "finale",      "izotope",      "native-instruments",
    "kontakt",    "serato",      "traktor",      "djay",
    "waves",      "loopback",    "audiohijack",  "zoom",
    "webex",      "teams",       "slack",        "discord",
    "skype",      "facetime",    "meet",         "whatsapp",
    "telegram",   "signal",      "messenger",    "claudefordesktop",
    "chatgpt",    "obs",         "audacity",     "amadeus",
    "screenflow", "premierepro", "aftereffects", "davinciresolve",
    "finalcut",   "capcut",      "filmora",      "twitch",
    "youtube",    "netflix",     "podcast",      "overcast",
    "pocketcast", "apple.tv",    "com.apple.tv", "quicktimeplayer",
    // Desktop-entry and Flatpak identifiers on Linux where the fragments above miss them.
    "chromium",    "epiphany",     "librewolf",    "rhythmbox",
    "strawberry",  "clementine",   "lollypop",     "amberol",
    "elisa",       "audacious",    "totem",        "mpv",
    "celluloid",   "clapper",      "smplayer",     "shortwave",
    "gnome.music", "juk",          "haruna",       "kdenlive",
    "shotcut",     "lmms",         "ardour",       "qtractor",
    "rosegarden",  "hydrogen",     "mixxx",        "tenacity",
    "mumble",      "jitsi",        "element",      "teamspeak",
});

} // namespace

bool isAudioApp(std::string_view bundleID) {
    std::string lower(bundleID);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::any_of(list.begin(), list.end(),
                       [&](std::string_view fragment) { return lower.find(fragment) != std::string::npos; });
}

} // namespace tonavi::KnownAudioApps
