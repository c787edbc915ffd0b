#include "core/engine/TonaviTapSafety.hpp"

namespace tonavi::TonaviTapSafety {

const std::set<std::string, std::less<>>& blockedBundleIDs() {
    static const std::set<std::string, std::less<>> ids{
        "com.brelmoor.tonavi",    "com.brelmoor.kavore",       "com.brelmoor.KavoreApp",
        "com.brelmoor.TonaviApp", "com.rogueamoeba.arkaudiod",
        // The audio system's own processes on Linux, as the PipeWire backend names them (their
        // binaries: none has an application identifier or a desktop entry), and the other routing
        // and speech daemons whose output is every application's.
        "pipewire", "pipewire-pulse", "wireplumber", "pipewire-media-session", "pulseaudio",
        "speech-dispatcher", "sd_espeak-ng", "sd_dummy", "easyeffects", "com.github.wwmm.easyeffects",
        "jackd", "jackdbus",
    };
    return ids;
}

bool mayCapture(std::string_view bundleID) {
    if (blockedBundleIDs().contains(bundleID))
        return false;
    return !bundleID.starts_with("com.rogueamoeba.");
}

} // namespace tonavi::TonaviTapSafety
