#pragma once
// Per-user locations, derived from HOME and the XDG variables at each call, so that tests and
// demos run private instances by pointing those variables at a temporary folder.

#include <string>

namespace tonavi {

// The identifier the service and its tap workers go by on every platform: the one their audio
// clients carry, so that nothing of theirs is ever taken for an application to control.
inline constexpr const char* serviceBundleIdentifier = "com.brelmoor.tonavi";

} // namespace tonavi

namespace tonavi::Paths {

std::string homeDirectory();
// $XDG_DATA_HOME/Tonavi, default ~/.local/share/Tonavi. Not created here.
std::string supportDirectory();
// $XDG_STATE_HOME/Tonavi, default ~/.local/state/Tonavi.
std::string logDirectory();
// control.sock in the support folder.
std::string controlSocketPath();
// mkdir -p; returns false when the folder does not exist afterwards.
bool createDirectories(const std::string& path);

}  // namespace tonavi::Paths
