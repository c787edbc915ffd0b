#pragma once
// Helpers for tests that start real worker processes: scripts that play a worker's part, the
// built service executable, and a bounded wait on a condition that another process makes true.

#include "tests/platform/support/Eventually.hpp"
#include "tests/support/TempFolder.hpp"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace tonavi::testing {

using test::eventually;

// A private folder, removed at the end.
struct ScratchFolder {
    test::TempFolder folder;
    std::string path = folder.path().string();
    // Writes an executable /bin/sh script with `body`; "$DIR" in it is this folder.
    std::string script(const std::string& name, const std::string& body) const {
        const std::string file = path + "/" + name;
        std::ofstream(file) << "#!/bin/sh\nDIR='" << path << "'\n" << body << "\n";
        std::filesystem::permissions(file, std::filesystem::perms::owner_all);
        return file;
    }
    std::string read(const std::string& name) const {
        std::ifstream in(path + "/" + name);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    int lineCount(const std::string& name) const {
        const std::string text = read(name);
        return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
    }
};

// build/bin/tonavi-service (TONAVI_BIN_DIR, else beside this test's own folder).
inline std::string serviceExecutable() {
    if (const char* dir = std::getenv("TONAVI_BIN_DIR"); dir && *dir)
        return std::string(dir) + "/tonavi-service";
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() /
            "bin/tonavi-service")
        .string();
}

} // namespace tonavi::testing
