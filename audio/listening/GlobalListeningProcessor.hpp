#pragma once
// Global listening for one application: the equaliser before the application's plug-ins, the
// balancer and a -0.3 dBFS ceiling after them. Built off the audio thread from one settings
// value; its state then belongs to that application's render thread.

#include "audio/effects/OverdriveLimiter.hpp"
#include "audio/listening/GlobalListeningBalancer.hpp"
#include "audio/listening/GlobalListeningEQ.hpp"
#include "audio/listening/GlobalListeningSettings.hpp"

#include <span>

namespace kavore {

class GlobalListeningProcessor {
  public:
    GlobalListeningProcessor(const GlobalListeningSettings& settings, double sampleRate);

    // The whole treatment when no plug-ins run in between. Leaves the buffer untouched, ceiling
    // included, when the settings are off or would change nothing.
    void process(std::span<float> buffer);
    // The two halves around the plug-ins. They always run: the caller decides whether global
    // listening applies at all.
    void processBeforePlugins(std::span<float> buffer);
    void processAfterPlugins(std::span<float> buffer);

    const GlobalListeningSettings& settings() const { return settings_; }
    const GlobalListeningEQ& eq() const { return eq_; }
    const GlobalListeningBalancer& balancer() const { return balancer_; }
    const OverdriveLimiter& ceiling() const { return ceiling_; }

  private:
    GlobalListeningSettings settings_;
    GlobalListeningEQ eq_;
    GlobalListeningBalancer balancer_;
    OverdriveLimiter ceiling_;
    // Decided once here, so process() never walks the slot list.
    bool doesNothing_ = true;
};

} // namespace kavore
