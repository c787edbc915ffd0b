#pragma once
// A worker's renderer: its own engagement engine, fed the one app's state by the service, over plain
// handles so that its gates open. The IO block of the real tap calls `render`; the pipe reader calls
// `apply`; the two meet at the engine's lock only.
//
// Hosted Audio Units are not built yet: the engine's plug-in bridge is left unset, so a plug-in slot
// passes its samples through, and `audioUnitsEnabled` only records that loading would be allowed.

#include "core/engine/EngagementEngine.hpp"
#include "core/engine/TapWorkerState.hpp"

#include <atomic>
#include <memory>
#include <mutex>
#include <span>
#include <string>

namespace tonavi {

class TapWorkerEventWriter;

class TapWorkerRenderer {
  public:
    TapWorkerRenderer(const TapWorkerState& state, TapWorkerEventWriter& writer, double sampleRate);

    void apply(const TapWorkerState& state);
    // Audio thread: ducking advances with the cycle, then the engine renders in place.
    void render(std::span<float> buffer, long long frames, double hostTimeSeconds);
    void enableAudioUnits();

    const std::string& bundleID() const { return bundleID_; }
    double renderSampleRate() const { return renderSampleRate_; }
    bool audioUnitsEnabled() const { return audioUnitsEnabled_.load(); }
    TapWorkerState latestState() const;
    EngagementEngine& engine() { return *engine_; }

  private:
    const std::string bundleID_;
    std::unique_ptr<EngagementEngine> engine_;
    TapWorkerEventWriter& writer_;
    mutable std::mutex stateLock_; // leaf lock around `latestState_` only
    TapWorkerState latestState_;
    const double renderSampleRate_;
    std::atomic<bool> audioUnitsEnabled_{false};
};

} // namespace tonavi
