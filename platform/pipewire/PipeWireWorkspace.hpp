#pragma once
// The workspace on Linux: running applications are the processes with PipeWire clients, named as
// the audio hardware names them; responsible processes come from /proc. An application with a
// visible desktop entry under its identifier is regular, as a Dock application is on macOS; one
// whose entry is hidden, or that has none (a helper, a daemon, a script), is an accessory.
//
// The application in front comes from sway's or i3's IPC socket when the session names one ($SWAYSOCK,
// $I3SOCK: SwayFocusSource), else from the X display (X11FocusSource): the process owning the focused
// window, answered for by its responsible process, is the frontmost application, and a change of it is
// an activation event; the window list is the X window manager's stacking list. Sleep and wake come
// from logind (LogindSleepSource). Both sources start at first use, not at construction, so a tap
// worker, which makes a workspace too but never asks, opens no display and no bus. Without a display
// there is no frontmost application and no window list, as on a session without a focus source;
// without a system bus the sleep and wake observers are kept but never called.

#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "platform/Workspace.hpp"

namespace tonavi {

class PipeWireConnection;
class FocusSource;
class LogindSleepSource;

class PipeWireWorkspace : public Workspace {
  public:
    explicit PipeWireWorkspace(std::shared_ptr<PipeWireConnection> connection);
    ~PipeWireWorkspace() override;

    std::vector<RunningApplication> runningApplications() override;
    std::vector<RunningApplication> runningApplications(const std::string& bundleIdentifier) override;
    std::optional<RunningApplication> runningApplication(pid_t pid) override;
    std::optional<RunningApplication> frontmostApplication() override;
    std::optional<std::vector<WindowInfo>> onScreenWindows() override;
    std::optional<std::string> frontmostUnavailableReason() override;
    // The furthest ancestor running the same program (a browser's helpers answer to the browser);
    // the pid itself when its parent runs something else; -1 when there is no such process.
    pid_t responsiblePID(pid_t pid) override;
    // An application already in front when the observer is added is delivered to it once.
    ObserverToken addActivationObserver(DispatchQueue& queue,
                                        std::function<void(const RunningApplication&)> handler) override;
    ObserverToken addWillSleepObserver(std::function<void()> handler) override;
    ObserverToken addDidWakeObserver(std::function<void()> handler) override;
    void removeObserver(ObserverToken token) override;

    static ActivationPolicy activationPolicyOf(const std::string& bundleIdentifier);

    // The running application answering for a window's process: the one whose audio client is that
    // process or shares its responsible process, else one named from the responsible process itself
    // (its desktop entry, else its program), since the window in front need not make any sound.
    // nullopt when the process has gone.
    std::optional<RunningApplication> applicationOwning(pid_t pid);

  private:
    enum class Kind { activation, willSleep, didWake };
    struct Observer {
        Kind kind;
        DispatchQueue* queue = nullptr;
        std::function<void(const RunningApplication&)> activated;
        std::function<void()> handler;
    };
    ObserverToken add(Observer observer);
    FocusSource& focus();
    void ensureSleepSource();
    void activeWindowChanged(std::optional<pid_t> pid);
    void sleepChanged(bool sleeping);

    std::shared_ptr<PipeWireConnection> connection_;
    std::mutex mutex_; // leaf: the observers and the last frontmost application
    std::map<ObserverToken, Observer> observers_;
    ObserverToken nextToken_ = 1;
    std::optional<RunningApplication> front_; // the last application announced

    std::once_flag focusOnce_, sleepOnce_;
    std::unique_ptr<FocusSource> focus_;
    std::string focusSocket_; // the compositor's IPC socket when that is the source, else empty (X11)
    std::unique_ptr<LogindSleepSource> sleep_;
};

} // namespace tonavi
