#include "platform/sim/SimWorkspace.hpp"

#include <cerrno>
#include <csignal>

#include "base/Dispatch.hpp"

namespace tonavi {

namespace {
RunningApplication toRunning(const SimWorld::Application& a) {
    return {a.bundleID, a.pid, a.policy, a.name};
}
} // namespace

SimWorkspace::SimWorkspace(std::shared_ptr<SimMachine> machine) : machine_(std::move(machine)) {
    worldToken_ = machine_->addWorldObserver(
        [this](const SimWorld& before, const SimWorld& after) { worldChanged(before, after); });
}

SimWorkspace::~SimWorkspace() {
    machine_->removeWorldObserver(worldToken_);
}

std::vector<RunningApplication> SimWorkspace::runningApplications() {
    std::vector<RunningApplication> apps;
    // Hold the snapshot: a temporary in the range expression would be freed before the loop runs.
    const auto world = machine_->world();
    for (const auto& a : world->applications)
        apps.push_back(toRunning(a));
    return apps;
}

std::vector<RunningApplication> SimWorkspace::runningApplications(const std::string& bundleIdentifier) {
    std::vector<RunningApplication> apps;
    // Hold the snapshot: a temporary in the range expression would be freed before the loop runs.
    const auto world = machine_->world();
    for (const auto& a : world->applications)
        if (a.bundleID == bundleIdentifier)
            apps.push_back(toRunning(a));
    return apps;
}

std::optional<RunningApplication> SimWorkspace::runningApplication(pid_t pid) {
    const auto world = machine_->world();
    if (const auto* a = world->applicationByPID(pid))
        return toRunning(*a);
    return std::nullopt;
}

std::optional<RunningApplication> SimWorkspace::frontmostApplication() {
    const auto world = machine_->world();
    if (const auto* a = world->applicationByPID(world->frontmostPID))
        return toRunning(*a);
    return std::nullopt;
}

std::optional<std::vector<WindowInfo>> SimWorkspace::onScreenWindows() {
    const auto world = machine_->world();
    if (!world->windowListAvailable)
        return std::nullopt;
    std::vector<WindowInfo> windows;
    for (const auto& w : world->windows) {
        WindowInfo info;
        info.layer = w.layer;
        if (w.ownerPID > 0)
            info.ownerPID = w.ownerPID;
        windows.push_back(info);
    }
    return windows;
}

pid_t SimWorkspace::responsiblePID(pid_t pid) {
    if (pid <= 0)
        return -1;
    const auto world = machine_->world();
    for (const auto& p : world->processes)
        if (p.pid == pid)
            return p.responsiblePID > 0 ? p.responsiblePID : pid;
    if (world->applicationByPID(pid))
        return pid;
    // A real process of this machine (the service, a worker) answers for itself.
    if (::kill(pid, 0) == 0 || errno == EPERM)
        return pid;
    return -1;
}

Workspace::ObserverToken
SimWorkspace::addActivationObserver(DispatchQueue& queue,
                                    std::function<void(const RunningApplication&)> handler) {
    std::lock_guard<std::mutex> guard(mutex_);
    const auto token = nextToken_++;
    observers_[token] = {Kind::activation, &queue, std::move(handler), {}};
    return token;
}

Workspace::ObserverToken SimWorkspace::addWillSleepObserver(std::function<void()> handler) {
    std::lock_guard<std::mutex> guard(mutex_);
    const auto token = nextToken_++;
    observers_[token] = {Kind::willSleep, nullptr, {}, std::move(handler)};
    return token;
}

Workspace::ObserverToken SimWorkspace::addDidWakeObserver(std::function<void()> handler) {
    std::lock_guard<std::mutex> guard(mutex_);
    const auto token = nextToken_++;
    observers_[token] = {Kind::didWake, nullptr, {}, std::move(handler)};
    return token;
}

void SimWorkspace::removeObserver(ObserverToken token) {
    std::lock_guard<std::mutex> guard(mutex_);
    observers_.erase(token);
}

void SimWorkspace::worldChanged(const SimWorld& before, const SimWorld& after) {
    std::optional<RunningApplication> activated;
    if (after.frontmostPID != before.frontmostPID) {
        if (const auto* a = after.applicationByPID(after.frontmostPID))
            activated = toRunning(*a);
    }
    const bool slept = !before.asleep && after.asleep;
    const bool woke = before.asleep && !after.asleep;
    if (!activated && !slept && !woke)
        return;
    std::vector<Observer> due;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (const auto& [token, o] : observers_) {
            if ((o.kind == Kind::activation && activated) || (o.kind == Kind::willSleep && slept) ||
                (o.kind == Kind::didWake && woke))
                due.push_back(o);
        }
    }
    for (const auto& o : due) {
        if (o.kind == Kind::activation) {
            o.queue->async([handler = o.onActivation, app = *activated] { handler(app); });
        } else {
            o.onPower(); // on the noticing thread, like a notification posted with no queue
        }
    }
}

} // namespace tonavi
