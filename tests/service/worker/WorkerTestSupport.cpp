#include "WorkerTestSupport.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <signal.h>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace tonavi::testing {

ScratchFolder::ScratchFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tonavi-worker-XXXXXX").string();
    path = ::mkdtemp(pattern.data());
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string ScratchFolder::script(const std::string& name, const std::string& body) const {
    const std::string file = path + "/" + name;
    std::ofstream(file) << "#!/bin/sh\nDIR='" << path << "'\n" << body << "\n";
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    return file;
}

std::string ScratchFolder::read(const std::string& name) const {
    std::ifstream in(path + "/" + name);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

int ScratchFolder::lineCount(const std::string& name) const {
    int lines = 0;
    for (char c : read(name))
        lines += c == '\n';
    return lines;
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

bool processEnded(int pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!std::getline(stat, text))
        return true;
    auto close = text.rfind(')');
    return close != std::string::npos && close + 2 < text.size() && text[close + 2] == 'Z';
}

} // namespace tonavi::testing
