#include "core/engine/LatencySensitiveAppPolicy.hpp"

#include <algorithm>
#include <array>

namespace tonavi::LatencySensitiveAppPolicy {

namespace {

constexpr auto markers = std::to_array<std::string_view>({
    "pianoteq",
    "mainstage",
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
    "ardour",
    "tracktion.waveform",
    "digitalperformer",
    "harrison.mixbus",
    "native-instruments",
    "kontakt",
    // The same kinds of tool on Linux, by desktop-entry or Flatpak identifier.
    "lmms",
    "qtractor",
    "rosegarden",
    "zrythm",
    "hydrogen",
    "renoise",
    "mixxx",
    "guitarix",
    "carla",
});

char lowerASCII(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// `needle` is already lower case.
bool containsLowercased(std::string_view haystack, std::string_view needle) {
    auto it = std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end(),
                          [](char h, char n) { return lowerASCII(h) == n; });
    return it != haystack.end();
}

} // namespace

bool prefersDirectSoftMaster(std::string_view bundleID) {
    return std::any_of(markers.begin(), markers.end(),
                       [&](std::string_view marker) { return containsLowercased(bundleID, marker); });
}

} // namespace tonavi::LatencySensitiveAppPolicy
