#pragma once
// Bundle-identifier fragments of apps known to play or capture sound: browsers, players, music and
// video tools, call and streaming apps. An unconfigured app that matches counts as an audio app.

#include <string_view>

namespace tonavi::KnownAudioApps {

// True when the lower-cased ID contains any fragment.
bool isAudioApp(std::string_view bundleID);

} // namespace tonavi::KnownAudioApps
