#pragma once
// One tap worker as the service sees it: the child process, its pipes and the health it reports.
// The metric fields are guarded by the provider's `stateLock`; the protocol fields by
// `protocolLock`. Writes to the worker go through its process's outbox, which never blocks.

#include "core/engine/TapProviding.hpp"
#include "service/taps/TapProcessIdentity.hpp"
#include "service/worker/TapWorkerProcess.hpp"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>
#include <string>

namespace tonavi {

struct TapWorkerState;

class IsolatedTapHandle final : public TapHandle {
  public:
    IsolatedTapHandle(std::string id, double created) : bundleID(std::move(id)), createdAt(created), lastIOAt(created) {}

    // A "state" line, sent now or as soon as the worker reads; a newer state replaces one that
    // waits. False when the worker's stdin is gone.
    bool sendState(const TapWorkerState& state);
    // A "stop" line if the worker can take it now; false when it cannot (it stopped reading, or
    // its stdin is gone), and only signals will end it.
    bool sendStop();
    // Only the first call counts: it records the error (none for "ready") and wakes the creator.
    void signalReady(std::optional<std::string> error);
    bool isRunning() const { return process && process->isRunning(); }
    int pid() const { return process ? process->pid() : -1; }

    const std::string bundleID;
    const double createdAt;
    std::shared_ptr<TapWorkerProcess> process;

    std::mutex protocolLock;
    std::string protocolBuffer;
    std::optional<std::string> readyError;
    bool readySignaled = false;
    std::counting_semaphore<> ready{0};
    std::atomic<bool> intentionalStop{false};
    // The worker read nothing for the stall limit while states waited; it is being stopped.
    std::atomic<bool> stalled{false};
    // "stop" could not be written: waiting for the worker to leave by itself would be in vain.
    std::atomic<bool> stopUndelivered{false};

    // Set once before the worker starts, then only read.
    TapProcessIdentity processIdentity;

    // Under the provider's `stateLock`.
    float meterLevel = 0.0f;
    double sampleRate = 0.0;
    std::int64_t tapBufferFrames = 0;
    std::int64_t outputBufferFrames = 0;
    std::string sourceDeviceUID;
    std::string targetDeviceUID;
    double lastIOAt;
    double lastRawAudioAt = 0.0;
};

} // namespace tonavi
