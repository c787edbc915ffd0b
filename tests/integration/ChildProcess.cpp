#include "tests/integration/ChildProcess.hpp"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace tonavi::testing {

std::string binPath(const std::string& name) {
    const char* dir = std::getenv("TONAVI_BIN_DIR");
    return std::string(dir ? dir : "build/bin") + "/" + name;
}

ChildProcess ChildProcess::spawn(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env) {
    std::map<std::string, std::string> merged;
    for (char** e = environ; *e; ++e) {
        std::string kv = *e;
        auto eq = kv.find('=');
        if (eq != std::string::npos) merged[kv.substr(0, eq)] = kv.substr(eq + 1);
    }
    for (auto& [k, v] : env) {
        if (v.empty() && (k.rfind("XDG_", 0) == 0 || k == "TONAVI_APP_VERSION")) {
            merged.erase(k);  // an empty value means: unset
        } else {
            merged[k] = v;
        }
    }
    std::vector<std::string> envStrings;
    for (auto& [k, v] : merged) envStrings.push_back(k + "=" + v);
    std::vector<char*> envp, args;
    for (auto& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::vector<std::string> argvCopy = argv;
    for (auto& s : argvCopy) args.push_back(s.data());
    args.push_back(nullptr);

    int pipeFDs[2];
    if (::pipe(pipeFDs) != 0) return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFDs[1], 1);
    posix_spawn_file_actions_adddup2(&actions, pipeFDs[1], 2);
    posix_spawn_file_actions_addclose(&actions, pipeFDs[0]);
    ChildProcess child;
    if (posix_spawn(&child.pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0) child.pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFDs[1]);
    child.outFD = pipeFDs[0];
    return child;
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
    int status = 0;
    bool ended = waitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, timeout);
    if (!ended) return std::nullopt;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

std::string ChildProcess::readAll() {
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(outFD, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    ::close(outFD);
    outFD = -1;
    return out;
}

void ChildProcess::signal(int s) const { ::kill(pid, s); }

std::pair<int, std::string> run(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env) {
    ChildProcess child = ChildProcess::spawn(argv, env);
    std::string out = child.readAll();
    auto status = child.wait(std::chrono::seconds(60));
    return {status.value_or(-1), out};
}

PrivateHome::PrivateHome(const std::string& name) {
    std::string templ = "/tmp/tonavi-" + name + "-XXXXXX";
    home = ::mkdtemp(templ.data());
}

PrivateHome::~PrivateHome() {
    std::error_code ec;
    std::filesystem::remove_all(home, ec);
}

std::map<std::string, std::string> PrivateHome::env() const {
    return {{"HOME", home}, {"XDG_DATA_HOME", ""}, {"XDG_STATE_HOME", ""}, {"TONAVI_APP_VERSION", ""}};
}

std::string PrivateHome::logText() const {
    std::ifstream in(home + "/.local/state/Tonavi/Tonavi-service.log");
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace tonavi::testing
