#pragma once
// The workspace of the simulated machine: applications, the frontmost one, windows, sleep and
// wake and responsible processes, all read from the machine's world. Activation, sleep and wake
// are noticed as changes of that world, whichever process made them.

#include <map>
#include <memory>
#include <mutex>

#include "platform/Workspace.hpp"
#include "platform/sim/SimMachine.hpp"

namespace tonavi {

class SimWorkspace final : public Workspace {
  public:
    explicit SimWorkspace(std::shared_ptr<SimMachine> machine);
    ~SimWorkspace() override;

    std::vector<RunningApplication> runningApplications() override;
    std::vector<RunningApplication> runningApplications(const std::string& bundleIdentifier) override;
    std::optional<RunningApplication> runningApplication(pid_t pid) override;
    std::optional<RunningApplication> frontmostApplication() override;
    std::optional<std::vector<WindowInfo>> onScreenWindows() override;
    pid_t responsiblePID(pid_t pid) override;
    ObserverToken addActivationObserver(DispatchQueue& queue,
                                        std::function<void(const RunningApplication&)> handler) override;
    ObserverToken addWillSleepObserver(std::function<void()> handler) override;
    ObserverToken addDidWakeObserver(std::function<void()> handler) override;
    void removeObserver(ObserverToken token) override;

  private:
    enum class Kind { activation, willSleep, didWake };
    struct Observer {
        Kind kind;
        DispatchQueue* queue = nullptr;
        std::function<void(const RunningApplication&)> onActivation;
        std::function<void()> onPower;
    };

    void worldChanged(const SimWorld& before, const SimWorld& after);

    std::shared_ptr<SimMachine> machine_;
    std::uint64_t worldToken_ = 0;
    std::mutex mutex_;
    std::map<ObserverToken, Observer> observers_;
    ObserverToken nextToken_ = 1;
};

} // namespace tonavi
