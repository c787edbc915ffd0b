#include "platform/pipewire/PipeWireWorkspace.hpp"

#include <climits>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "platform/DesktopEntryCache.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"

namespace tonavi {

namespace {
pid_t parentOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line))
        return -1;
    // "pid (comm) state ppid ...": comm may hold spaces and parentheses, so read after the last ')'.
    const auto close = line.rfind(')');
    if (close == std::string::npos)
        return -1;
    std::istringstream rest(line.substr(close + 1));
    std::string state;
    pid_t ppid = -1;
    rest >> state >> ppid;
    return ppid;
}

std::string programOf(pid_t pid) {
    char buffer[PATH_MAX];
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    const ssize_t n = ::readlink(link.c_str(), buffer, sizeof(buffer) - 1);
    return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string();
}
} // namespace

PipeWireWorkspace::PipeWireWorkspace(std::shared_ptr<PipeWireConnection> connection)
    : connection_(std::move(connection)) {}

ActivationPolicy PipeWireWorkspace::activationPolicyOf(const std::string& bundleIdentifier) {
    const auto entry = DesktopEntryCache::shared().find(bundleIdentifier);
    return entry && entry->listed() ? ActivationPolicy::regular : ActivationPolicy::accessory;
}

std::vector<RunningApplication> PipeWireWorkspace::runningApplications() {
    auto apps = connection_->read([](const PipeWireGraph& g) {
        std::vector<RunningApplication> apps;
        for (const auto& [pid, id] : g.processIDs) {
            RunningApplication app;
            app.bundleIdentifier = g.bundleIdentifierOf(pid);
            app.processIdentifier = pid;
            app.localizedName = g.applicationNameOf(pid);
            apps.push_back(std::move(app));
        }
        return apps;
    });
    // Read outside the graph's lock: the entries may come from disk.
    for (auto& app : apps)
        app.activationPolicy = activationPolicyOf(app.bundleIdentifier);
    return apps;
}

std::vector<RunningApplication> PipeWireWorkspace::runningApplications(const std::string& bundleIdentifier) {
    auto apps = runningApplications();
    std::erase_if(apps, [&](const RunningApplication& a) { return a.bundleIdentifier != bundleIdentifier; });
    return apps;
}

std::optional<RunningApplication> PipeWireWorkspace::runningApplication(pid_t pid) {
    for (auto& app : runningApplications())
        if (app.processIdentifier == pid)
            return app;
    return std::nullopt;
}

std::optional<RunningApplication> PipeWireWorkspace::frontmostApplication() {
    return std::nullopt;
}

std::optional<std::vector<WindowInfo>> PipeWireWorkspace::onScreenWindows() {
    return std::nullopt;
}

pid_t PipeWireWorkspace::responsiblePID(pid_t pid) {
    const std::string program = programOf(pid);
    if (pid <= 0 || parentOf(pid) < 0)
        return -1;
    pid_t answer = pid;
    for (pid_t parent = parentOf(pid); parent > 1 && !program.empty() && programOf(parent) == program;
         parent = parentOf(parent))
        answer = parent;
    return answer;
}

Workspace::ObserverToken PipeWireWorkspace::addToken() {
    std::lock_guard<std::mutex> guard(mutex_);
    tokens_.insert(nextToken_);
    return nextToken_++;
}

Workspace::ObserverToken
PipeWireWorkspace::addActivationObserver(DispatchQueue&, std::function<void(const RunningApplication&)>) {
    return addToken();
}
Workspace::ObserverToken PipeWireWorkspace::addWillSleepObserver(std::function<void()>) {
    return addToken();
}
Workspace::ObserverToken PipeWireWorkspace::addDidWakeObserver(std::function<void()>) {
    return addToken();
}

void PipeWireWorkspace::removeObserver(ObserverToken token) {
    std::lock_guard<std::mutex> guard(mutex_);
    tokens_.erase(token);
}

} // namespace tonavi
