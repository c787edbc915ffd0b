#pragma once
// Helpers for tests that start real worker processes: scripts that play a worker's part, the
// built service executable, and a bounded wait on a condition that another process makes true.

#include "tests/support/TempFolder.hpp"

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace tonavi::testing {

// A private folder, removed at the end.
struct ScratchFolder {
    test::TempFolder folder;
    std::string path = folder.path().string();
    // Writes an executable /bin/sh script with `body`; "$DIR" in it is this folder.
    std::string script(const std::string& name, const std::string& body) const;
    std::string read(const std::string& name) const;
    int lineCount(const std::string& name) const;
};

// Sets an environment variable for its lifetime, then puts back what was there.
struct ScopedEnvironment {
    ScopedEnvironment(std::string name, const std::string& value);
    ~ScopedEnvironment();
    std::string name;
    std::optional<std::string> previous;
};

// build/bin/tonavi-service (TONAVI_BIN_DIR, else beside this test's own folder).
std::string serviceExecutable();

// Checks `condition` every few milliseconds until it holds or `limit` passes.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit);

} // namespace tonavi::testing
