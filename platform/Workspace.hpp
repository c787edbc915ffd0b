#pragma once
// The workspace boundary: running applications, the frontmost one and its activation events, the
// on-screen window list behind the front-window fallback, sleep and wake, and the responsible
// process of a pid. Observers are identified by the token their registration returns.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/RunningApplication.hpp"

namespace tonavi {

class DispatchQueue;

// One on-screen window, front to back (kCGWindowLayer, kCGWindowOwnerPID).
struct WindowInfo {
    int layer = 0;
    std::optional<pid_t> ownerPID;
};

class Workspace {
  public:
    using ObserverToken = std::uint64_t;

    virtual ~Workspace() = default;

    virtual std::vector<RunningApplication> runningApplications() = 0;
    virtual std::vector<RunningApplication> runningApplications(const std::string& bundleIdentifier) = 0;
    virtual std::optional<RunningApplication> runningApplication(pid_t pid) = 0;
    virtual std::optional<RunningApplication> frontmostApplication() = 0;

    // Why no application in front can be known on this session (no display, a compositor that offers
    // no focus source); nullopt while a focus source answers.
    virtual std::optional<std::string> frontmostUnavailableReason() { return std::nullopt; }

    // On-screen windows excluding desktop elements, front to back; nullopt when the list cannot be had.
    virtual std::optional<std::vector<WindowInfo>> onScreenWindows() = 0;

    // The process that answers for `pid` (the app that launched a helper); the pid itself when it
    // answers for itself, -1 when it is unknown.
    virtual pid_t responsiblePID(pid_t pid) = 0;

    // Runs on `queue` when another application becomes frontmost.
    virtual ObserverToken addActivationObserver(DispatchQueue& queue,
                                                std::function<void(const RunningApplication&)> handler) = 0;
    // No queue: the handlers run on the thread that notices the event.
    virtual ObserverToken addWillSleepObserver(std::function<void()> handler) = 0;
    virtual ObserverToken addDidWakeObserver(std::function<void()> handler) = 0;
    virtual void removeObserver(ObserverToken token) = 0;
};

} // namespace tonavi
