#pragma once
// A worker's renderer: its own engagement engine, fed the one app's state by the service, over plain
// handles so that its gates open. The IO block of the real tap calls `render`; the pipe reader calls
// `apply`; the two meet at the engine's lock only.
//
// Plug-in slots (the app's chain and global listening's) load into `auSlots` once the worker is
// ready, in the background; until a slot's host is live, the engine's bridge passes its samples
// through. A slot that fails is reported to the service as "au-failure".

#include "core/engine/EngagementEngine.hpp"
#include "core/engine/TapWorkerState.hpp"
#include "service/plugins/AUSlotRegistry.hpp"

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
    // Allows plug-ins to load and loads those the latest state wants.
    void enableAudioUnits();
    // Off the audio thread: reports plug-in render failures recorded since the last call.
    void deliverAudioUnitFailures() { auSlots_->deliverFailures(); }

    const std::string& bundleID() const { return bundleID_; }
    double renderSampleRate() const { return renderSampleRate_; }
    bool audioUnitsEnabled() const { return audioUnitsEnabled_.load(); }
    TapWorkerState latestState() const;
    EngagementEngine& engine() { return *engine_; }

  private:
    void syncAudioUnits(const TapWorkerState& state);

    const std::string bundleID_;
    std::shared_ptr<AUSlotRegistry> auSlots_;
    std::unique_ptr<EngagementEngine> engine_;
    TapWorkerEventWriter& writer_;
    mutable std::mutex stateLock_; // leaf lock around `latestState_` only
    TapWorkerState latestState_;
    const double renderSampleRate_;
    std::atomic<bool> audioUnitsEnabled_{false};
};

} // namespace tonavi
