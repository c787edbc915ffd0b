// The audio-thread half of the engine: one cycle of an app's tapped audio, and the records that
// describe to a worker what to render.
//
// Nothing here allocates on the audio path: the render context holds references (shared pointers)
// and scalars only, and the carried gains are written into map nodes the control path made.

#include "core/engine/EngagementEngine.hpp"

#include "audio/chain/RenderChain.hpp"
#include "audio/effects/SteadyVolume.hpp"
#include "audio/listening/GlobalListeningProcessor.hpp"
#include "core/engine/GainMath.hpp"
#include "core/engine/GlobalListeningPolicy.hpp"

#include <algorithm>
#include <cmath>

namespace tonavi {

namespace {

constexpr double smootherSeconds = 0.008;
constexpr double limiterAttackSeconds = 0.0015;
constexpr double limiterReleaseSeconds = 0.15;

// The clock is read only for a row with a timed mute, which keeps it off the common path.
template <class Now> bool mutedAt(const AppAudioState& app, const Now& now) {
    return app.muted || (app.timedMuteUntil && now() < *app.timedMuteUntil);
}

double faderLaw(double v) {
    if (v <= 0.0)
        return 0.0;
    if (v >= 1.0)
        return 1.0;
    return v * v;
}

} // namespace

// Everything one cycle needs, taken under the lock in one hold.
struct EngagementEngine::RenderContext {
    std::shared_ptr<kavore::RenderChain> chain;
    bool chainActive = false;
    std::shared_ptr<kavore::GlobalListeningProcessor> global;
    std::shared_ptr<const std::vector<std::string>> pluginSlotIDs;
    std::shared_ptr<kavore::SteadyVolume> steady;
    bool steadyOn = false;
    bool muted = false;
    double volume = 1.0;
    double duckGain = 1.0;
    bool heroIsOther = false;
    double backgroundGain = 1.0;
    double softMasterGain = 1.0;
    double manualDuckDB = 0.0;
    double autoDuckDB = 0.0;
    bool inAutoDuck = false;
    bool guardActive = false;
    double ceiling = 1.0;
    std::optional<double> limiterGR;
    std::optional<double> smoothedGain;
    int stride = 2;
    EngagementEngine* owner = nullptr; // set once the references are taken

    RenderContext() = default;
    RenderContext(const RenderContext&) = delete;
    RenderContext& operator=(const RenderContext&) = delete;
    ~RenderContext() {
        if (owner)
            owner->retireLastReferences(*this);
    }
};

void EngagementEngine::retireLastReferences(RenderContext& context) {
    // A count of one is reliable here: a reference that left the maps cannot be taken again.
    auto last = [](const auto& p) { return p && p.use_count() == 1; };
    if (!last(context.chain) && !last(context.global) && !last(context.pluginSlotIDs) && !last(context.steady))
        return;
    std::lock_guard guard(lock_);
    auto park = [&](auto& p) {
        // Past the reserved room the reference is dropped here after all: late, but never a crash.
        if (last(p) && retired_.size() < retired_.capacity())
            retired_.push_back(std::move(p));
    };
    park(context.chain);
    park(context.global);
    park(context.pluginSlotIDs);
    park(context.steady);
}

template <class Now>
void EngagementEngine::fillContextLocked(std::string_view bundleID, const AppAudioState& row,
                                         const Now& instant, RenderContext& context) const {
    context.chainActive = !row.chain.isNeutral();
    if (context.chainActive)
        if (auto it = chains_.find(bundleID); it != chains_.end())
            context.chain = it->second;
    if (auto it = globalListeningProcs_.find(bundleID); it != globalListeningProcs_.end()) {
        const auto& gl = config_.globalListening;
        const bool selected =
            GlobalListeningPolicy::mayProcess(bundleID, &row, config_.hiddenAppIDs, config_.smart) &&
            gl.enabled &&
            (!gl.equalizer.isNeutral() || (gl.balancer.enabled && gl.balancer.strengthPercent > 0.1) ||
             !globalPluginSlotIDs_->empty());
        if (selected) {
            context.global = it->second;
            context.pluginSlotIDs = globalPluginSlotIDs_;
        }
    }
    context.steadyOn = row.steadyVolume;
    if (context.steadyOn)
        if (auto it = steadyProcs_.find(bundleID); it != steadyProcs_.end())
            context.steady = it->second;
    context.muted = mutedAt(row, instant);
    context.volume = effectiveVolumeLocked(row);
    context.duckGain = ducker_->currentGain(bundleID);
    context.heroIsOther = followMeHero_ && *followMeHero_ != bundleID;
    context.backgroundGain = smartProtectedApps_.contains(bundleID) ? 1.0 : followMeBackgroundGain_;
    context.softMasterGain = softMasterGain_;
    context.manualDuckDB = manualDuckDB_;
    context.autoDuckDB = autoDuckDB_;
    context.inAutoDuck = autoDuckApps_.contains(bundleID);
    context.guardActive = loudnessGuardActive_;
    context.ceiling = loudnessCeilingLinear_;
    if (auto it = limiterGR_.find(bundleID); it != limiterGR_.end())
        context.limiterGR = it->second;
    if (auto it = smoothedGain_.find(bundleID); it != smoothedGain_.end())
        context.smoothedGain = it->second;
    context.stride = std::max(inputChannels_, 1);
}

bool EngagementEngine::render(std::string_view bundleID, std::span<float> buffer) {
    // Gate: the flags first, each behind its own small lock.
    const bool blocked = stageFlag_.load() || shutdownFlag_.load() || hardwareSuspended_.load();
    const auto instant = [this] { return now(); };

    enum class Disposition { passThrough, silence, process };
    Disposition disposition = Disposition::process;
    RenderContext context;
    {
        // One hold decides the disposition and, when the app is processed, takes the context.
        std::lock_guard guard(lock_);
        const bool hasHandle = tapHandles_.contains(bundleID);
        const AppAudioState* row = managedAppLocked(bundleID);
        if (!blocked) {
            if (hasHandle && isSoloSuppressedLocked(bundleID))
                disposition = Disposition::silence;
            else if (hasHandle && row && row->directLocked && row->muteWhileBypassed)
                disposition = Disposition::silence;
        } else if (!row) {
            disposition = Disposition::passThrough;
        } else {
            // While stage mode or shutdown is taking taps down, a muted app stays silent for as
            // long as its tap lives, and nobody else is processed.
            disposition =
                hasHandle && mutedAt(*row, instant) ? Disposition::silence : Disposition::passThrough;
        }
        if (disposition == Disposition::process) {
            if (!row || !hasHandle)
                return false;
            fillContextLocked(bundleID, *row, instant, context);
            context.owner = this;
        }
    }
    if (disposition == Disposition::passThrough)
        return false;
    if (disposition == Disposition::silence) {
        std::fill(buffer.begin(), buffer.end(), 0.0f);
        return true;
    }

    bool changed = context.global != nullptr;

    // Stages, outside the lock, on the references of this cycle.
    if (context.global) {
        context.global->processBeforePlugins(buffer);
        if (externalAURender_)
            for (const auto& slotID : *context.pluginSlotIDs)
                externalAURender_(slotID, buffer);
        context.global->processAfterPlugins(buffer);
    }
    if (context.chain && context.chainActive) {
        context.chain->process(buffer);
        changed = true;
    }
    if (context.steadyOn && context.steady) {
        context.steady->process(buffer);
        changed = true;
    }

    // Target gain.
    double target = 0.0;
    if (!context.muted) {
        target = faderLaw(context.volume); // volumes above 1.0 add no gain here
        target *= context.duckGain;
        if (context.heroIsOther)
            target *= std::max(context.backgroundGain, 0.0);
        if (context.softMasterGain != 1.0)
            target *= std::max(context.softMasterGain, 0.0);
        if (context.manualDuckDB < 0.0)
            target *= linearFromDB(context.manualDuckDB);
        if (context.autoDuckDB < 0.0 && context.inAutoDuck)
            target *= linearFromDB(context.autoDuckDB);
    }

    // Smoother: a one-pole with an 8 ms time constant, advanced per frame. A new tap has no
    // carried value and starts at its target, so it never fades in.
    double g = context.smoothedGain.value_or(target);
    if (std::abs(g - target) < 1e-5 && std::abs(target - 1.0) < 1e-5) {
        // Unity: the buffer is not touched. The store is skipped when nothing would change.
        if (context.smoothedGain != target) {
            std::lock_guard guard(lock_);
            if (auto it = smoothedGain_.find(bundleID); it != smoothedGain_.end())
                it->second = target;
        }
    } else if (g == target) {
        // Settled: every frame gets the same gain, so the per-frame recurrence is not needed.
        const float gain = static_cast<float>(g);
        if (gain == 0.0f)
            std::fill(buffer.begin(), buffer.end(), 0.0f); // silence, even for non-finite input
        else
            for (float& sample : buffer)
                sample *= gain;
        if (context.smoothedGain != g) {
            std::lock_guard guard(lock_);
            if (auto it = smoothedGain_.find(bundleID); it != smoothedGain_.end())
                it->second = g;
        }
        changed = true;
    } else {
        const double step = 1.0 - smootherCoefficient_;
        const std::size_t stride = static_cast<std::size_t>(context.stride);
        for (std::size_t frame = 0; frame < buffer.size(); frame += stride) {
            g += step * (target - g);
            const float gain = static_cast<float>(g);
            const std::size_t end = std::min(frame + stride, buffer.size());
            for (std::size_t i = frame; i < end; ++i)
                buffer[i] *= gain;
        }
        // Close enough is exact: a gain that decays towards zero would otherwise stall on the
        // smallest denormal and make every later cycle slow.
        if (std::abs(g - target) < 1e-12)
            g = target;
        {
            std::lock_guard guard(lock_);
            if (auto it = smoothedGain_.find(bundleID); it != smoothedGain_.end())
                it->second = g;
        }
        changed = true;
    }

    // Peak limiter of the loudness guard, with its gain reduction carried across cycles.
    if (context.guardActive && context.ceiling < 0.999) {
        const double gr = applyPeakLimiter(buffer, context.ceiling, context.limiterGR.value_or(1.0),
                                           context.stride, sampleRate_);
        std::lock_guard guard(lock_);
        if (auto it = limiterGR_.find(bundleID); it != limiterGR_.end())
            it->second = gr;
        return true;
    }
    if (context.limiterGR.value_or(1.0) != 1.0) {
        std::lock_guard guard(lock_);
        if (auto it = limiterGR_.find(bundleID); it != limiterGR_.end())
            it->second.reset();
    }
    return changed;
}

double EngagementEngine::applyPeakLimiter(std::span<float> buffer, double ceiling, double prior, int stride,
                                          double sampleRate) {
    if (buffer.empty())
        return prior;
    const double attack = std::exp(-1.0 / (sampleRate * limiterAttackSeconds));
    const double release = std::exp(-1.0 / (sampleRate * limiterReleaseSeconds));
    const std::size_t width = static_cast<std::size_t>(std::max(stride, 1));
    double gr = prior;
    for (std::size_t frame = 0; frame < buffer.size(); frame += width) {
        const std::size_t end = std::min(frame + width, buffer.size());
        double peak = 0.0;
        for (std::size_t i = frame; i < end; ++i)
            peak = std::max(peak, std::abs(static_cast<double>(buffer[i])));
        const double want = peak > ceiling ? ceiling / peak : 1.0;
        gr += (want < gr ? 1.0 - attack : 1.0 - release) * (want - gr);
        const float gain = static_cast<float>(gr);
        for (std::size_t i = frame; i < end; ++i)
            buffer[i] *= gain;
    }
    return gr;
}

int EngagementEngine::latencySamples(std::string_view bundleID, int tapBufferFrames,
                                     int outputBufferFrames) const {
    std::shared_ptr<kavore::RenderChain> chain;
    std::vector<std::string> slots;
    {
        std::lock_guard guard(lock_);
        if (!tapHandles_.contains(bundleID))
            return 0;
        if (auto it = chains_.find(bundleID); it != chains_.end())
            chain = it->second;
        if (GlobalListeningPolicy::mayProcess(bundleID, managedAppLocked(bundleID), config_.hiddenAppIDs,
                                              config_.smart))
            slots = *globalPluginSlotIDs_;
    }
    int total = tapBufferFrames + outputBufferFrames;
    if (chain)
        total += chain->latencySamples();
    if (externalAULatency_)
        for (const auto& slot : slots)
            total += externalAULatency_(slot);
    return total;
}

std::optional<TapWorkerState> EngagementEngine::tapWorkerState(std::string_view bundleID) const {
    std::lock_guard guard(lock_);
    const AppAudioState* row = managedAppLocked(bundleID);
    if (!row)
        return std::nullopt;

    TapWorkerState state;
    state.currentDefaultOutputUID = currentDefaultOutputUID_;
    state.sampleRate = sampleRate_;

    if (isHiddenLocked(bundleID)) {
        // A hidden app is left entirely alone.
        state.app = neutralRow(row->id, row->displayName);
        state.followMeBackgroundGain = 1.0;
        state.softMasterGain = 1.0;
        state.loudnessGuardCeilingDBFS = 0.0;
        state.globalListening = kavore::GlobalListeningSettings::off();
        return state;
    }

    const bool soloSuppressed = isSoloSuppressedLocked(bundleID);
    const bool held = row->directLocked || soloSuppressed;
    state.app = *row;
    if (held) {
        // A held app's worker only ever passes through or silences, so its state does not follow
        // the row's control settings and nothing is re-sent while it stays held.
        const bool countingMute = row->directLocked ? row->muteWhileBypassed : row->muted;
        state.app.volume = 1.0;
        state.app.chain = kavore::ChainSettings::empty();
        state.app.directLocked = false;
        state.app.muted = countingMute || soloSuppressed;
        state.app.timedMuteUntil.reset();
        state.app.volumePerDevice.clear();
        state.app.steadyVolume = false;
        state.globalListening = kavore::GlobalListeningSettings::off();
        state.loudnessGuardCeilingDBFS = 0.0;
    } else {
        if (loudnessGuardActive_)
            state.loudnessGuardCeilingDBFS = 20.0 * std::log10(std::max(loudnessCeilingLinear_, 1e-6));
        state.globalListening =
            GlobalListeningPolicy::mayProcess(bundleID, row, config_.hiddenAppIDs, config_.smart)
                ? config_.globalListening
                : kavore::GlobalListeningSettings::off();
    }
    state.followMeBackgroundGain = smartProtectedApps_.contains(bundleID) ? 1.0 : followMeBackgroundGain_;
    state.stageMode = stageFlag_.load();
    state.followMeHero = followMeHero_;
    state.softMasterGain = softMasterGain_;
    state.manualDuckDB = manualDuckDB_;
    state.autoDuckApps = autoDuckApps_;
    state.autoDuckDB = autoDuckDB_;
    state.loudnessGuardActive = loudnessGuardActive_;
    state.duckRules = config_.duckRules;
    state.activeDuckTriggers = ducker_->currentActiveTriggers();
    return state;
}

std::optional<double> EngagementEngine::smoothedGain(std::string_view bundleID) const {
    std::lock_guard guard(lock_);
    auto it = smoothedGain_.find(bundleID);
    return it == smoothedGain_.end() ? std::nullopt : it->second;
}

std::optional<double> EngagementEngine::limiterGR(std::string_view bundleID) const {
    std::lock_guard guard(lock_);
    auto it = limiterGR_.find(bundleID);
    return it == limiterGR_.end() ? std::nullopt : it->second;
}

} // namespace tonavi
