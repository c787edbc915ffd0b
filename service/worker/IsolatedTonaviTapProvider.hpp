#pragma once
// The service's tap provider. It never touches a tap: for each app it starts a copy of the service's
// own executable as a tap worker ("--tonavi-tap-worker"), speaks the line protocol with it over two
// pipes and mirrors its health. A crash or a stall then takes down one app's processing, and the
// system returns that app to its direct path when the worker dies, since the tap dies with it.
//
// `createTap` blocks for up to the ready time-out (12 s), which is why the runtime calls it on its
// tap-lifecycle queue. `stateLock` is never held across a process or pipe operation. Reader and
// termination callbacks run on other threads; the service's callbacks hop to its own queue.

#include "core/engine/TapWorkerState.hpp"
#include "service/ServiceTapProvider.hpp"
#include "service/taps/TonaviTapProvider.hpp"
#include "service/worker/IsolatedTapHandle.hpp"
#include "service/worker/TapRecoveryBackoff.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi {

struct TapWorkerEvent;

class IsolatedTonaviTapProvider final : public ServiceTapProvider,
                                        public std::enable_shared_from_this<IsolatedTonaviTapProvider> {
  public:
    using Render = std::function<void(const std::string&, std::span<float>, int, std::uint64_t)>;
    using TapFailure = std::function<void(const std::string& bundleID, const std::string& message,
                                          const TapHandlePtr& handle)>;
    using AUSlotFailure = std::function<void(const std::string& slotID, const std::string& message)>;
    using AudioActivity = std::function<void(const std::string& bundleID)>;
    using RouteFor = std::function<std::string(const std::string& bundleID)>;
    using WorkerStateFor = std::function<std::optional<TapWorkerState>(const std::string& bundleID)>;

    // What the provider asks of the machine, replaceable in tests.
    struct Environment {
        std::function<bool(std::string_view)> mayCapture;
        // The app's process objects with its helpers; no objects when nothing of it plays yet.
        std::function<TonaviTapProvider::ProcessGroup(const std::string&)> processGroup;
        std::function<std::string()> defaultOutputUID;
        // 0 when the device does not exist.
        std::function<std::uint32_t(const std::string&)> deviceID;
        std::function<double()> now;    // seconds since 1970
        std::function<double()> uptime; // seconds, monotonic: paces creation retries
        // Empty: workerExecutableURL().
        std::string executable;
        std::chrono::nanoseconds readyTimeout = std::chrono::seconds(12);
        // How long a worker may leave states unread before it counts as stalled.
        std::chrono::milliseconds stallLimit = std::chrono::seconds(3);
    };

    static constexpr double activityLevel = 0.0005;
    static constexpr std::size_t maximumLineBytes = 1 << 20;
    static constexpr const char* executableVariable = "TONAVI_TAP_WORKER_EXECUTABLE";

    // The machine's own answers: the platform backend's devices, processes and clocks.
    static Environment platformEnvironment(AudioHardware& audio, Workspace& workspace);
    // TONAVI_TAP_WORKER_EXECUTABLE when set and not empty; else this process's first argument, an
    // absolute path as it stands and a relative one against the current directory. A bare name
    // (found on PATH) is this process's executable file.
    static std::string workerExecutableURL();

    explicit IsolatedTonaviTapProvider(Environment environment);
    ~IsolatedTonaviTapProvider() override;

    // Hooks; set before the first createTap. `setHooks` sets them all.
    void setHooks(Hooks hooks) override;
    Render render; // kept for parity with the in-process provider; never called here
    TapFailure onTapFailure;
    AUSlotFailure onAUSlotFailure;
    AudioActivity onAudioActivity;
    RouteFor routeFor;
    WorkerStateFor workerStateFor;

    TapHandlePtr createTap(const std::string& bundleID) override;
    void destroyTap(const TapHandlePtr& handle) override;
    void destroyTaps(const std::vector<TapHandlePtr>& handles) override;
    void retireReplacedTap(const TapHandlePtr& handle) override;

    // Sends every live worker its current state. No diffing: a worker applies a same state without
    // an audible change. Never blocks: a worker that is not reading gets the newest state when it
    // reads again, and one that reads nothing for `stallLimit` is ended as stalled. Write failures
    // are ignored; the watchdog sees the stale IO.
    void syncStates() override;
    // A fresh series for every app (wake, output topology change).
    void resetCreationBackoff() override;

    // The mirrors of what each worker reports; the "no worker" answer without one.
    float level(std::string_view bundleID) const override;
    std::uint64_t statusRevision() const override { return statusRevision_.load(std::memory_order_acquire); }
    double sampleRate(std::string_view bundleID) const override; // 0 without a worker
    std::optional<BufferFrames> bufferFrames(std::string_view bundleID) const override;
    std::optional<bool> recentAudioSignal(std::string_view bundleID) const override;
    std::optional<double> secondsSinceRawAudio(std::string_view bundleID) const override;
    std::optional<std::string> targetDevice(std::string_view bundleID) const override;
    std::optional<std::string> sourceDevice(std::string_view bundleID) const override;
    // The worker's process is gone, or it reported no IO for longer than `olderThan` seconds.
    bool ioStale(std::string_view bundleID, double olderThan) const override;
    // Whether the app's processes moved away from what its worker's tap covers; without `current`
    // the group is read now.
    bool processGroupChanged(std::string_view bundleID,
                             const std::optional<TapProcessIdentity>& current = std::nullopt) const override;
    std::shared_ptr<IsolatedTapHandle> liveHandle(std::string_view bundleID) const;

    // Waits for stopping workers (all at once), then makes sure they are gone and forgets them.
    void finishStopping(const std::shared_ptr<IsolatedTapHandle>& handle);
    void finishStopping(const std::vector<std::shared_ptr<IsolatedTapHandle>>& handles);
    // SIGTERM (and SIGCONT), then SIGKILL for whoever is still running 0.4 s later.
    void forceStop(const std::shared_ptr<IsolatedTapHandle>& handle);
    void forceStop(const std::vector<std::shared_ptr<IsolatedTapHandle>>& handles);

  private:
    void consume(const std::shared_ptr<IsolatedTapHandle>& handle, const TapWorkerEvent& event);
    void updateMetrics(IsolatedTapHandle& handle, const TapWorkerEvent& event);
    void onTermination(const std::shared_ptr<IsolatedTapHandle>& handle, int status);
    void onStall(const std::shared_ptr<IsolatedTapHandle>& handle);
    std::string stallText() const;
    void receive(const std::shared_ptr<IsolatedTapHandle>& handle, std::string_view bytes);
    // Sets `intentionalStop` and sends "stop"; notes when it could not be sent.
    static void requestStop(IsolatedTapHandle& handle);

    const Environment environment_;
    mutable std::mutex stateLock_;
    std::atomic<std::uint64_t> statusRevision_{0};
    std::map<std::string, std::shared_ptr<IsolatedTapHandle>, std::less<>> liveHandles_;
    TapRecoveryBackoff creationBackoff_{2.0, 30.0};
};

} // namespace tonavi
