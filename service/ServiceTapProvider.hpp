#pragma once
// What the runtime needs of its tap provider beyond the engine's TapProviding: the hooks through
// which the provider reaches back into the runtime, the push of fresh worker states, and the live
// counters that the status reads. Every query has an answer for "no tap", so a provider that has
// nothing to report needs to override nothing but the TapProviding calls.

#include "core/engine/TapProviding.hpp"
#include "core/engine/TapWorkerState.hpp"
#include "service/taps/TapProcessIdentity.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tonavi {

class ServiceTapProvider : public TapProviding {
  public:
    // Set once, before the provider is used from more than one thread. Each hook holds the runtime
    // weakly and does nothing once it is gone.
    struct Hooks {
        // Audio of one cycle, rendered in place: bundle ID, interleaved samples, frames, host time.
        std::function<void(const std::string&, std::span<float>, int, std::uint64_t)> render;
        // The state a worker for this app renders with; nothing when the app has no row (any more) or
        // the runtime is gone, and then no worker is started for it.
        std::function<std::optional<TapWorkerState>(const std::string&)> workerState;
        // The app made a sound.
        std::function<void(const std::string&)> heard;
        // The device UID the app is routed to; empty for the default output.
        std::function<std::string(const std::string&)> route;
        // A live tap died: bundle ID, reason, and the handle that died.
        std::function<void(const std::string&, const std::string&, const TapHandlePtr&)> tapFailed;
        // A plug-in slot failed in a worker (it did not load, stopped rendering, or crashed or hung
        // its worker): slot ID, reason.
        std::function<void(const std::string&, const std::string&)> auSlotFailed;
    };

    struct BufferFrames {
        int tap = 0;
        int output = 0;
    };

    virtual void setHooks(Hooks hooks) = 0;

    // Pushes the current worker state to every live tap.
    virtual void syncStates() {}
    // A fresh creation backoff, so that taps rebuilt after a sleep do not wait out older delays.
    virtual void resetCreationBackoff() {}

    // Moves when a value below changes by an event (a worker's metrics, a tap's devices). A provider
    // whose meters change every cycle keeps it still for them: the status samples those by age.
    virtual std::uint64_t statusRevision() const { return 0; }
    virtual std::optional<bool> recentAudioSignal(std::string_view /*bundleID*/) const {
        return std::nullopt;
    }
    virtual float level(std::string_view /*bundleID*/) const { return 0.0f; }
    virtual std::optional<BufferFrames> bufferFrames(std::string_view /*bundleID*/) const {
        return std::nullopt;
    }
    virtual double sampleRate(std::string_view /*bundleID*/) const { return 48000.0; }
    virtual std::optional<std::string> sourceDevice(std::string_view /*bundleID*/) const {
        return std::nullopt;
    }
    virtual std::optional<std::string> targetDevice(std::string_view /*bundleID*/) const {
        return std::nullopt;
    }
    // Seconds since the tap last carried raw audio (or since it was made); nothing when unknown,
    // which keeps the tap from being released as idle.
    virtual std::optional<double> secondsSinceRawAudio(std::string_view /*bundleID*/) const {
        return std::nullopt;
    }
    // The tap's process is gone, or it carried no IO for longer than `olderThan` seconds. A provider
    // that cannot tell says no, which keeps the watchdog from rebuilding on a guess.
    virtual bool ioStale(std::string_view /*bundleID*/, double /*olderThan*/) const { return false; }
    // Whether the app's processes moved away from what its tap covers; without `current` the
    // provider reads the group itself.
    virtual bool
    processGroupChanged(std::string_view /*bundleID*/,
                        const std::optional<TapProcessIdentity>& /*current*/ = std::nullopt) const {
        return false;
    }
};

} // namespace tonavi
