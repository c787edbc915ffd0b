#include "tests/integration/ChildProcess.hpp"

#include "core/wire/TonaviChannel.hpp"
#include "tests/platform/support/Eventually.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <fcntl.h>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tonavi::testing {

std::string binPath(const std::string& name) {
    const char* dir = std::getenv("TONAVI_BIN_DIR");
    return std::string(dir ? dir : "build/bin") + "/" + name;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

ChildProcess ChildProcess::spawn(const std::vector<std::string>& argv, const Env& env) {
    Env merged;
    for (char** e = environ; *e; ++e) {
        const std::string kv = *e;
        if (const auto eq = kv.find('='); eq != std::string::npos) merged[kv.substr(0, eq)] = kv.substr(eq + 1);
    }
    for (auto& [k, v] : env) {
        if (v.empty() && (k.rfind("XDG_", 0) == 0 || k == "TONAVI_APP_VERSION")) merged.erase(k);  // empty: unset
        else merged[k] = v;
    }
    // The arguments, a null, the environment, a null.
    std::vector<std::string> strings = argv;
    for (auto& [k, v] : merged) strings.push_back(k + "=" + v);
    std::vector<char*> pointers;
    for (auto& s : strings) pointers.push_back(s.data());
    pointers.insert(pointers.begin() + static_cast<long>(argv.size()), nullptr);
    pointers.push_back(nullptr);
    char** args = pointers.data();
    char** envp = args + argv.size() + 1;

    int pipeFDs[2];
    if (::pipe(pipeFDs) != 0) return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // A child that asks a question reads end of file, never the terminal of whoever runs the tests.
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipeFDs[1], 1);
    posix_spawn_file_actions_adddup2(&actions, pipeFDs[1], 2);
    posix_spawn_file_actions_addclose(&actions, pipeFDs[0]);
    ChildProcess child;
    if (posix_spawn(&child.pid, args[0], &actions, nullptr, args, envp) != 0) child.pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFDs[1]);
    child.outFD = pipeFDs[0];
    return child;
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
    int status = 0;
    if (!waitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, timeout)) return std::nullopt;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

std::string ChildProcess::readAll() {
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = ::read(outFD, buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
    ::close(outFD);
    outFD = -1;
    return out;
}

void ChildProcess::signal(int s) const { ::kill(pid, s); }

std::optional<int> ChildProcess::stop() {
    signal(SIGTERM);
    if (auto status = wait(std::chrono::seconds(20))) return status;
    signal(SIGKILL);
    return wait(std::chrono::seconds(5));
}

std::pair<int, std::string> run(const std::vector<std::string>& argv, const Env& env) {
    ChildProcess child = ChildProcess::spawn(argv, env);
    std::string out = child.readAll();
    return {child.wait(std::chrono::seconds(60)).value_or(-1), out};
}

std::pair<int, std::string> ctl(const Env& env, std::vector<std::string> args) {
    args.insert(args.begin(), binPath("tonavictl"));
    return run(args, env);
}

double appVolume(const Env& env, const std::string& bundleID) {
    const auto status = nlohmann::json::parse(ctl(env, {"status", "--json"}).second, nullptr, false);
    if (status.is_object() && status.contains("status"))
        for (const auto& app : status["status"].value("apps", nlohmann::json::array()))
            if (app.value("id", "") == bundleID)
                return app.value("volume", -1.0);
    return -1;
}

PrivateHome::PrivateHome(const std::string& name) : home("/tmp/tonavi-" + name + "-XXXXXX") { ::mkdtemp(home.data()); }

PrivateHome::~PrivateHome() {
    std::error_code ec;
    std::filesystem::remove_all(home, ec);
}

Env PrivateHome::env() const {
    return {{"HOME", home}, {"XDG_DATA_HOME", ""}, {"XDG_STATE_HOME", ""}, {"TONAVI_APP_VERSION", ""}};
}

bool answersPing(const std::string& socket) {
    try {
        return TonaviChannel::send(socket, TonaviRequest::ping(), 2).ok;
    } catch (const std::exception&) {
        return false;
    }
}

ChildProcess startService(const PrivateHome& home, const Env& extra) {
    Env env = home.env();
    for (auto& [k, v] : extra) env[k] = v;
    ChildProcess service = ChildProcess::spawn({binPath("tonavi-service")}, env);
    EXPECT_TRUE(waitUntil([&] { return answersPing(home.socketPath()); }, std::chrono::seconds(20)))
        << "service did not start";
    return service;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    return test::eventually(condition, timeout);
}

// The state letter and parent from /proc/<pid>/stat; the command name before them may hold anything.
static bool procState(int pid, char& state, int& parent) {
    std::string stat;
    try {
        stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    } catch (const std::ios_base::failure&) {
        return false; // it ended while we read
    }
    const auto close = stat.rfind(')');
    return close != std::string::npos && std::sscanf(stat.c_str() + close + 1, " %c %d", &state, &parent) == 2;
}

bool alive(int pid) {
    char state = 0; int parent = 0;
    return procState(pid, state, parent) && state != 'Z';
}

std::vector<int> workersOf(int parent, const std::string& bundleID) {
    std::vector<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        char state = 0; int ppid = 0;
        if (name.find_first_not_of("0123456789") != std::string::npos || !procState(std::stoi(name), state, ppid) ||
            state == 'Z' || ppid != parent)
            continue;
        std::string cmdline;
        try {
            cmdline = readFile("/proc/" + name + "/cmdline");
        } catch (const std::ios_base::failure&) {
            continue; // it ended while we read
        }
        for (auto& c : cmdline) if (c == '\0') c = ' ';
        if (cmdline.find("--tonavi-tap-worker " + bundleID) != std::string::npos) found.push_back(std::stoi(name));
    }
    return found;
}

}  // namespace tonavi::testing
