#include "WorkerTestSupport.hpp"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

namespace tonavi::testing {

std::string ScratchFolder::script(const std::string& name, const std::string& body) const {
    const std::string file = path + "/" + name;
    std::ofstream(file) << "#!/bin/sh\nDIR='" << path << "'\n" << body << "\n";
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    return file;
}

std::string ScratchFolder::read(const std::string& name) const {
    std::ifstream in(path + "/" + name);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

int ScratchFolder::lineCount(const std::string& name) const {
    const std::string text = read(name);
    return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

ScopedEnvironment::ScopedEnvironment(std::string variable, const std::string& value)
    : name(std::move(variable)) {
    if (const char* old = std::getenv(name.c_str()))
        previous = old;
    ::setenv(name.c_str(), value.c_str(), 1);
}

ScopedEnvironment::~ScopedEnvironment() {
    if (previous)
        ::setenv(name.c_str(), previous->c_str(), 1);
    else
        ::unsetenv(name.c_str());
}

std::string serviceExecutable() {
    if (const char* dir = std::getenv("TONAVI_BIN_DIR"); dir && *dir)
        return std::string(dir) + "/tonavi-service";
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() /
            "bin/tonavi-service")
        .string();
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

} // namespace tonavi::testing
