#pragma once
// One tap worker as the service sees it: the child process, its pipes and the health it reports.
// The metric fields are guarded by the provider's `stateLock`; the protocol fields by
// `protocolLock`; writes to the worker by `writeLock`.

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

struct TapWorkerEnvelope;

class IsolatedTapHandle final : public TapHandle {
  public:
    IsolatedTapHandle(std::string id, double created) : bundleID(std::move(id)), createdAt(created), lastIOAt(created) {}

    // Writes one envelope line under `writeLock`; false when the worker's stdin is gone.
    bool send(const TapWorkerEnvelope& envelope);
    // Only the first call counts: it records the error (none for "ready") and wakes the creator.
    void signalReady(std::optional<std::string> error);
    bool isRunning() const { return process && process->isRunning(); }
    int pid() const { return process ? process->pid() : -1; }

    const std::string bundleID;
    const double createdAt;
    std::shared_ptr<TapWorkerProcess> process;

    std::mutex protocolLock;
    std::mutex writeLock;
    std::string protocolBuffer;
    std::optional<std::string> readyError;
    bool readySignaled = false;
    std::counting_semaphore<> ready{0};
    std::atomic<bool> intentionalStop{false};

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
