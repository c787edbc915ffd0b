#pragma once
// One application's effect chain, run in place over its interleaved stereo audio, with the
// overdrive stage last. Settings become live processors in configure(), on a configuration path;
// process() only runs the closures built there, allocating nothing.
//
// There is no lock: the owner serialises configure() against process().

#include "audio/chain/ChainSettings.hpp"
#include "audio/chain/EffectKind.hpp"
#include "audio/effects/OverdriveLimiter.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kavore {

class RenderChain {
  public:
    using AURender = std::function<void(const std::string& slotID, std::span<float> buffer)>;
    using AULatency = std::function<int(const std::string& slotID)>;

    struct Processor {
        std::string id;
        EffectKind kind;
        std::function<void(std::span<float>)> process;
        std::function<int()> latency;
    };

    RenderChain();
    RenderChain(const RenderChain&) = delete;
    RenderChain& operator=(const RenderChain&) = delete;

    // Rebuilds every processor unless the settings and rate equal the applied ones; an equal call
    // costs one comparison and keeps all filter and envelope state.
    void configure(const ChainSettings& settings, double sampleRate);
    bool matches(const ChainSettings& settings, double sampleRate) const;
    void process(std::span<float> buffer);
    int latencySamples() const;

    // Bridges to hosted Audio Units by slot id. Without a renderer an Audio Unit slot passes audio
    // through; without a latency source it reports 0. The slot closures reach these weakly, so a
    // closure that outlives the chain does nothing.
    void setExternalAURender(AURender render);
    void setExternalAULatencySamples(AULatency latency);

    const std::vector<std::string>& slotIDs() const { return slotIDs_; }
    const std::vector<Processor>& processors() const { return processors_; }
    const OverdriveLimiter& overdrive() const { return overdrive_; }
    bool overdriveActive() const { return overdriveActive_; }
    bool chainBypassed() const { return chainBypassed_; }
    const std::optional<ChainSettings>& appliedSettings() const { return appliedSettings_; }
    double appliedSampleRate() const { return appliedSampleRate_; }
    std::int64_t rebuildCount() const { return rebuildCount_; }

  private:
    struct AUBridge {
        AURender render;
        AULatency latency;
    };

    Processor makeProcessor(const EffectSlot& slot, double sampleRate) const;

    std::vector<std::string> slotIDs_;
    std::vector<Processor> processors_;
    OverdriveLimiter overdrive_;
    bool overdriveActive_ = false;
    bool chainBypassed_ = false;
    std::shared_ptr<AUBridge> bridge_;
    std::optional<ChainSettings> appliedSettings_;
    double appliedSampleRate_ = 0.0;
    std::int64_t rebuildCount_ = 0;
};

} // namespace kavore
