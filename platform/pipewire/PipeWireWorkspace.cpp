#include "platform/pipewire/PipeWireWorkspace.hpp"

#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "base/Dispatch.hpp"
#include "platform/DesktopEntryCache.hpp"
#include "platform/linux/LogindSleepSource.hpp"
#include "platform/linux/SwayFocusSource.hpp"
#include "platform/linux/X11FocusSource.hpp"
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

PipeWireWorkspace::~PipeWireWorkspace() {
    // The sources call back into this object from their threads; they stop before it goes.
    sleep_.reset();
    focus_.reset();
}

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

std::optional<RunningApplication> PipeWireWorkspace::applicationOwning(pid_t pid) {
    const pid_t responsible = responsiblePID(pid);
    if (responsible < 0)
        return std::nullopt;
    auto apps = runningApplications();
    for (auto& app : apps)
        if (app.processIdentifier == pid || app.processIdentifier == responsible)
            return std::move(app);
    for (auto& app : apps)
        if (responsiblePID(app.processIdentifier) == responsible)
            return std::move(app);
    // Silent: named as the graph names a client without an application.id.
    std::string program = programOf(responsible);
    program = program.substr(program.rfind('/') + 1);
    if (program.empty())
        return std::nullopt;
    RunningApplication app;
    app.processIdentifier = responsible;
    app.bundleIdentifier = PipeWireGraph::desktopEntryOf(program);
    if (app.bundleIdentifier.empty())
        app.bundleIdentifier = program;
    const auto entry = DesktopEntryCache::shared().find(app.bundleIdentifier);
    app.localizedName = entry && !entry->name.empty() ? entry->name : program;
    app.activationPolicy = activationPolicyOf(app.bundleIdentifier);
    return app;
}

FocusSource& PipeWireWorkspace::focus() {
    std::call_once(focusOnce_, [this] {
        auto changed = [this](std::optional<pid_t> pid) { activeWindowChanged(pid); };
        // sway and i3 know every window, XWayland's and native ones, so their socket comes first.
        for (const char* variable : {"SWAYSOCK", "I3SOCK"})
            if (const char* socket = std::getenv(variable); socket && *socket && focusSocket_.empty())
                focusSocket_ = socket;
        if (!focusSocket_.empty())
            focus_ = std::make_unique<SwayFocusSource>(focusSocket_, changed);
        else
            focus_ = std::make_unique<X11FocusSource>(std::string(), changed);
    });
    return *focus_;
}

void PipeWireWorkspace::activeWindowChanged(std::optional<pid_t> pid) {
    // On the focus source's thread: the lookups read /proc and the graph, never the runtime's queue.
    std::optional<RunningApplication> app = pid ? applicationOwning(*pid) : std::nullopt;
    std::lock_guard guard(mutex_);
    // Nothing in front (a window manager clears the active window between two focus changes,
    // a display goes away) is no activation, and the application before it stays the last one
    // announced, so that its return is not announced twice.
    if (!app || app->bundleIdentifier.empty() || app == front_)
        return;
    front_ = app;
    // Posted under the lock: once removeObserver returns, nothing more is posted to that observer's
    // queue, which its owner may then destroy. Posting never waits.
    for (const auto& [token, o] : observers_)
        if (o.kind == Kind::activation)
            o.queue->async([handler = o.activated, app = *app] { handler(app); });
}

std::optional<RunningApplication> PipeWireWorkspace::frontmostApplication() {
    const auto pid = focus().activePID();
    return pid ? applicationOwning(*pid) : std::nullopt;
}

std::optional<std::vector<WindowInfo>> PipeWireWorkspace::onScreenWindows() {
    return focus().windows();
}

std::optional<std::string> PipeWireWorkspace::frontmostUnavailableReason() {
    if (focus().connected())
        return std::nullopt;
    if (!focusSocket_.empty())
        return "the compositor's IPC socket " + focusSocket_ + " does not answer";
    const char* display = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    if (!display || !*display)
        return wayland && *wayland ? "this Wayland session offers no focus source (no sway or i3 IPC socket, no X display)"
                                   : "no X display (DISPLAY is unset)";
    return std::string("the X display ") + display + " does not answer";
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

Workspace::ObserverToken PipeWireWorkspace::add(Observer observer) {
    std::lock_guard guard(mutex_);
    observers_[nextToken_] = std::move(observer);
    return nextToken_++;
}

void PipeWireWorkspace::ensureSleepSource() {
    std::call_once(sleepOnce_, [this] {
        sleep_ = std::make_unique<LogindSleepSource>([this](bool sleeping) { sleepChanged(sleeping); });
    });
}

void PipeWireWorkspace::sleepChanged(bool sleeping) {
    // On the logind thread, the posting thread of these events.
    std::vector<std::function<void()>> due;
    {
        std::lock_guard guard(mutex_);
        for (const auto& [token, o] : observers_)
            if (o.kind == (sleeping ? Kind::willSleep : Kind::didWake))
                due.push_back(o.handler);
    }
    for (auto& handler : due)
        handler();
}

Workspace::ObserverToken
PipeWireWorkspace::addActivationObserver(DispatchQueue& queue,
                                         std::function<void(const RunningApplication&)> handler) {
    // The display's first answer can land between a caller's frontmostApplication() and this
    // registration; an application already announced is delivered to the new observer once, so
    // that it is not lost until the next focus change.
    Observer observer{Kind::activation, &queue, std::move(handler), {}};
    std::optional<RunningApplication> known;
    ObserverToken token = 0;
    {
        std::lock_guard guard(mutex_);
        known = front_;
        token = nextToken_++;
        observers_[token] = observer;
    }
    if (known)
        queue.async([handler = observer.activated, app = *known] { handler(app); });
    focus();
    return token;
}

Workspace::ObserverToken PipeWireWorkspace::addWillSleepObserver(std::function<void()> handler) {
    const auto token = add({Kind::willSleep, nullptr, {}, std::move(handler)});
    ensureSleepSource();
    return token;
}

Workspace::ObserverToken PipeWireWorkspace::addDidWakeObserver(std::function<void()> handler) {
    const auto token = add({Kind::didWake, nullptr, {}, std::move(handler)});
    ensureSleepSource();
    return token;
}

void PipeWireWorkspace::removeObserver(ObserverToken token) {
    std::lock_guard guard(mutex_);
    observers_.erase(token);
}

} // namespace tonavi
