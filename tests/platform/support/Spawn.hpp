#pragma once
// Helper processes of the tests (servers, clients, daemons): started from PATH with this process's
// environment, stopped and reaped on every path.

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "Eventually.hpp"

extern char** environ;

namespace tonavi::test {

// Starts argv with `extraEnvironment` added; stdout on a pipe when `out` is given, stdout and stderr
// appended to `log` when it names a file, both discarded otherwise. -1 when it cannot start.
inline pid_t spawnProcess(const std::vector<std::string>& argv, int* out = nullptr,
                          const std::vector<std::string>& extraEnvironment = {}, const std::string& log = {}) {
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        env.emplace_back(*e);
    env.insert(env.end(), extraEnvironment.begin(), extraEnvironment.end());
    std::vector<char*> envp;
    for (auto& e : env)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    int fds[2] = {-1, -1};
    if (out && ::pipe2(fds, O_CLOEXEC) != 0)
        return -1;
    posix_spawn_file_actions_addopen(&actions, 2, log.empty() ? "/dev/null" : log.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (out)
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    else
        posix_spawn_file_actions_adddup2(&actions, 2, 1);
    pid_t pid = -1;
    const int r = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (out) {
        ::close(fds[1]);
        *out = fds[0];
    }
    return r == 0 ? pid : -1;
}

// Sends `signal`, then SIGKILL when the process has not ended within 3 s; reaps it either way.
inline void stopProcess(pid_t pid, int signal = SIGTERM) {
    if (pid <= 0)
        return;
    ::kill(pid, signal);
    if (!eventually([&] { return ::waitpid(pid, nullptr, WNOHANG) == pid; }, std::chrono::milliseconds(3000))) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
}

// One line from a pipe, waiting at most `timeoutMs`; empty on time-out or end of file.
inline std::string readLine(int fd, int timeoutMs = 10'000) {
    std::string line;
    char c = 0;
    while (true) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) <= 0 || ::read(fd, &c, 1) != 1)
            return {};
        if (c == '\n')
            return line;
        line += c;
    }
}

inline bool programExists(const std::string& name) {
    return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

} // namespace tonavi::test
