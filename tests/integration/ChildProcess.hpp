#pragma once
// Starts the project's executables as real child processes with a private environment, for tests that
// need several processes: the service, a second copy of it, the client, the tap workers it starts.

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tonavi::testing {

using Env = std::map<std::string, std::string>;

std::string binPath(const std::string& name);
std::string readFile(const std::string& path);

struct ChildProcess {
    int pid = -1;
    int outFD = -1;  // stdout and stderr, merged

    static ChildProcess spawn(const std::vector<std::string>& argv, const Env& env);
    // The exit status, or nullopt when it has not ended within the time-out. A killing signal s gives 128+s.
    std::optional<int> wait(std::chrono::milliseconds timeout);
    std::string readAll();
    void signal(int s) const;
    // SIGTERM, then SIGKILL when it has not ended within 20 s; the exit status.
    std::optional<int> stop();
};

// Runs to the end and returns {status, output}.
std::pair<int, std::string> run(const std::vector<std::string>& argv, const Env& env);
// tonavictl with the arguments.
std::pair<int, std::string> ctl(const Env& env, std::vector<std::string> args);
// The app's volume in the service's status; -1 when it has no row.
double appVolume(const Env& env, const std::string& bundleID);

// A private HOME with the XDG variables cleared: support, log and socket all live under it.
struct PrivateHome {
    std::string home;
    explicit PrivateHome(const std::string& name = "home");
    ~PrivateHome();
    Env env() const;
    std::string supportDir() const { return home + "/.local/share/Tonavi"; }
    std::string socketPath() const { return supportDir() + "/control.sock"; }
    std::string logText() const { return readFile(home + "/.local/state/Tonavi/Tonavi-service.log"); }
};

bool answersPing(const std::string& socket);
// tonavi-service on the home, with `extra` added to its environment, once it answers a ping.
ChildProcess startService(const PrivateHome& home, const Env& extra = {});

// Polls a condition with a short pause until it holds or the time-out passes.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

// A zombie that nobody reaped has ended too.
bool alive(int pid);
// Live tap workers (of the app, when given) whose parent is `parent`.
std::vector<int> workersOf(int parent, const std::string& bundleID = "");

}  // namespace tonavi::testing
