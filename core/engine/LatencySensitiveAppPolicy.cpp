#include "core/engine/LatencySensitiveAppPolicy.hpp"

#include <algorithm>
#include <array>

namespace tonavi::LatencySensitiveAppPolicy {

namespace {

constexpr std::array<std::string_view, 20> markers{
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
};

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
