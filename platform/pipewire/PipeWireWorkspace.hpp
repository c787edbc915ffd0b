#pragma once
// The workspace on Linux: running applications are the processes with PipeWire clients, named as
// the audio hardware names them; responsible processes come from /proc. An application with a
// visible desktop entry under its identifier is regular, as a Dock application is on macOS; one
// whose entry is hidden, or that has none (a helper, a daemon, a script), is an accessory. A desktop-neutral
// service has no focus or sleep source here: no frontmost application, no window list, and the
// activation, sleep and wake observers are kept but never called.

#include <memory>
#include <mutex>
#include <set>

#include "platform/Workspace.hpp"

namespace tonavi {

class PipeWireConnection;

class PipeWireWorkspace : public Workspace {
  public:
    explicit PipeWireWorkspace(std::shared_ptr<PipeWireConnection> connection);

    std::vector<RunningApplication> runningApplications() override;
    std::vector<RunningApplication> runningApplications(const std::string& bundleIdentifier) override;
    std::optional<RunningApplication> runningApplication(pid_t pid) override;
    std::optional<RunningApplication> frontmostApplication() override;
    std::optional<std::vector<WindowInfo>> onScreenWindows() override;
    // The furthest ancestor running the same program (a browser's helpers answer to the browser);
    // the pid itself when its parent runs something else; -1 when there is no such process.
    pid_t responsiblePID(pid_t pid) override;
    ObserverToken addActivationObserver(DispatchQueue& queue,
                                        std::function<void(const RunningApplication&)> handler) override;
    ObserverToken addWillSleepObserver(std::function<void()> handler) override;
    ObserverToken addDidWakeObserver(std::function<void()> handler) override;
    void removeObserver(ObserverToken token) override;

    static ActivationPolicy activationPolicyOf(const std::string& bundleIdentifier);

  private:
    ObserverToken addToken();
    std::shared_ptr<PipeWireConnection> connection_;
    std::mutex mutex_;
    std::set<ObserverToken> tokens_;
    ObserverToken nextToken_ = 1;
};

} // namespace tonavi
