#include "base/Paths.hpp"

#include <cstdlib>
#include <filesystem>
#include <pwd.h>
#include <unistd.h>

namespace tonavi::Paths {

namespace {
std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? std::string(v) : std::string();
}

// XDG says a relative value is invalid and must be ignored.
std::string xdgOr(const char* name, const std::string& fallback) {
    std::string v = env(name);
    if (v.empty() || v[0] != '/') return fallback;
    return v;
}
}  // namespace

std::string homeDirectory() {
    std::string home = env("HOME");
    if (!home.empty()) return home;
    if (const passwd* pw = getpwuid(getuid()); pw && pw->pw_dir) return pw->pw_dir;
    return "/";
}

std::string supportDirectory() { return xdgOr("XDG_DATA_HOME", homeDirectory() + "/.local/share") + "/Tonavi"; }

std::string logDirectory() { return xdgOr("XDG_STATE_HOME", homeDirectory() + "/.local/state") + "/Tonavi"; }

std::string controlSocketPath() { return supportDirectory() + "/control.sock"; }

bool createDirectories(const std::string& path) {
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
    return std::filesystem::is_directory(path, ec);
}

}  // namespace tonavi::Paths
