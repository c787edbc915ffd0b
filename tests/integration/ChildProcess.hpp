#pragma once
// Starts the project's executables as real child processes with a private environment, for tests that
// need several processes: the service, a second copy of it, the client.

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tonavi::testing {

std::string binPath(const std::string& name);

struct ChildProcess {
    int pid = -1;
    int outFD = -1;  // stdout and stderr, merged

    static ChildProcess spawn(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env);
    // The exit status, or nullopt when it has not ended within the time-out. A killing signal s gives 128+s.
    std::optional<int> wait(std::chrono::milliseconds timeout);
    std::string readAll();
    void signal(int s) const;
};

// Runs to the end and returns {status, output}.
std::pair<int, std::string> run(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env);

// A private HOME with the XDG variables cleared: support, log and socket all live under it.
struct PrivateHome {
    std::string home;
    explicit PrivateHome(const std::string& name = "home");
    ~PrivateHome();
    std::map<std::string, std::string> env() const;
    std::string supportDir() const { return home + "/.local/share/Tonavi"; }
    std::string socketPath() const { return supportDir() + "/control.sock"; }
    std::string logText() const;
};

// Polls a condition with a short pause until it holds or the time-out passes.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

}  // namespace tonavi::testing
