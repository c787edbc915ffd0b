#pragma once
// Per-user locations, derived from HOME and the XDG variables at each call, so that tests and
// demos run private instances by pointing those variables at a temporary folder.

#include <string>

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
