#include "service/plugins/AUHostedEffect.hpp"

#include "service/plugins/AURunningSlot.hpp"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <new>
#include <pthread.h>
#include <thread>

namespace tonavi {

AUHostedEffect::Instantiation AUHostedEffect::instantiate(std::function<Instantiation()> load,
                                                          std::chrono::duration<double> timeout) {
    // The box outlives a late completion: the loader thread keeps its own reference, and whatever it
    // brings after the time-out is dropped there.
    struct Box {
        std::mutex lock;
        std::condition_variable done;
        bool finished = false;
        bool abandoned = false;
        Instantiation result;
    };
    auto box = std::make_shared<Box>();
    // One thread per load, "tonavi.au-load": a plug-in that never returns keeps only this thread.
    std::thread([box, load = std::move(load)] {
        pthread_setname_np(pthread_self(), "tonavi.au-load");
        Instantiation result = load();
        std::lock_guard guard(box->lock);
        if (box->abandoned)
            return; // the unit, if any, is released here and nobody sees it
        box->result = std::move(result);
        box->finished = true;
        box->done.notify_all();
    }).detach();

    std::unique_lock guard(box->lock);
    if (!box->done.wait_for(guard, timeout, [&] { return box->finished; })) {
        box->abandoned = true;
        return {nullptr, "instantiation timed out after " +
                             std::to_string(static_cast<long long>(timeout.count())) + "s"};
    }
    return std::move(box->result);
}

AUHostedEffect::~AUHostedEffect() { detach(); }

void AUHostedEffect::failLocked(std::string message) {
    state_ = State::failed;
    message_ = std::move(message);
}

bool AUHostedEffect::attach(std::unique_ptr<PluginUnit> unit, double sampleRate, std::uint32_t maximumFrames,
                            const std::optional<std::vector<std::uint8_t>>& presetData,
                            const Parameters& parameters) {
    std::lock_guard guard(lock_);
    sampleRate_ = sampleRate;
    maxFrames_ = maximumFrames;
    if (!unit || !(sampleRate > 0) || !std::isfinite(sampleRate)) {
        failLocked("no stereo format at " + std::to_string(sampleRate));
        return false;
    }
    std::string error;
    AURunningSlot::enter(AURunningSlot::Activity::load, slotID_);
    bool prepared = !presetData || unit->restoreState(*presetData, error);
    if (prepared) {
        for (const auto& [symbol, value] : parameters)
            unit->setParameter(symbol, static_cast<float>(value));
        prepared = unit->prepare(maximumFrames, error);
    }
    AURunningSlot::leave(AURunningSlot::Activity::load);
    if (!prepared) {
        failLocked("format/allocate: " + error);
        return false;
    }
    try {
        inScratch_.assign(2 * std::size_t{maximumFrames}, 0.0f);
        outScratch_.assign(2 * std::size_t{maximumFrames}, 0.0f);
    } catch (const std::bad_alloc&) {
        unit->release();
        failLocked("scratch buffer allocation failed");
        return false;
    }
    unit_ = std::move(unit);
    renderSampleTime_ = 0;
    state_ = State::ready;
    renderStatus_ = 0;
    failureReported_ = false;
    return true;
}

void AUHostedEffect::detach() {
    std::lock_guard guard(lock_);
    if (unit_)
        unit_->release();
    unit_.reset();
    std::vector<float>().swap(inScratch_);
    std::vector<float>().swap(outScratch_);
    state_ = State::loading;
}

bool AUHostedEffect::applyPresetData(const std::optional<std::vector<std::uint8_t>>& presetData,
                                     const Parameters& parameters) {
    std::lock_guard guard(lock_);
    if (state_ != State::ready || !unit_)
        return false;
    std::string error;
    if (presetData && !unit_->restoreState(*presetData, error))
        return false;
    for (const auto& [symbol, value] : parameters)
        unit_->setParameter(symbol, static_cast<float>(value));
    return true;
}

void AUHostedEffect::process(std::span<float> buffer) {
    std::lock_guard guard(lock_);
    if (state_ != State::ready || !unit_ || inScratch_.empty() || outScratch_.empty())
        return;
    const std::size_t frames = buffer.size() / 2;
    const float* const in[2] = {inScratch_.data(), inScratch_.data() + maxFrames_};
    float* const out[2] = {outScratch_.data(), outScratch_.data() + maxFrames_};
    for (std::size_t start = 0; start < frames; start += maxFrames_) {
        const std::size_t chunk = std::min<std::size_t>(maxFrames_, frames - start);
        float* samples = buffer.data() + 2 * start;
        for (std::size_t f = 0; f < chunk; ++f) {
            inScratch_[f] = samples[2 * f];
            inScratch_[maxFrames_ + f] = samples[2 * f + 1];
        }
        AURunningSlot::enter(AURunningSlot::Activity::render, slotID_);
        const int status = unit_->render(in, out, static_cast<std::uint32_t>(chunk));
        AURunningSlot::leave(AURunningSlot::Activity::render);
        if (status != 0) {
            // The message is made off the audio thread, when the failure is delivered.
            state_ = State::failed;
            renderStatus_ = status;
            return;
        }
        for (std::size_t f = 0; f < chunk; ++f) {
            samples[2 * f] = outScratch_[f];
            samples[2 * f + 1] = outScratch_[maxFrames_ + f];
        }
        renderSampleTime_ += static_cast<double>(chunk);
    }
}

void AUHostedEffect::deliverFailure() {
    std::string message;
    {
        // A render that is inside its plug-in holds the lock, and one that never comes back is the
        // worker's to notice: this never waits for it.
        std::unique_lock guard(lock_, std::try_to_lock);
        if (!guard.owns_lock() || state_ != State::failed || renderStatus_ == 0 || failureReported_)
            return;
        failureReported_ = true;
        message_ = "render error " + std::to_string(renderStatus_);
        message = message_;
    }
    if (onFailure_)
        onFailure_(message);
}

bool AUHostedEffect::isReady() {
    std::lock_guard guard(lock_);
    return state_ == State::ready && unit_;
}

int AUHostedEffect::latencySamples() {
    std::lock_guard guard(lock_);
    if (state_ != State::ready || !unit_)
        return 0;
    return static_cast<int>(std::lround(unit_->latencyFrames()));
}

AUHostedEffect::State AUHostedEffect::state() {
    std::lock_guard guard(lock_);
    return state_;
}

std::string AUHostedEffect::failureMessage() {
    std::lock_guard guard(lock_);
    if (state_ == State::failed && renderStatus_ != 0)
        return "render error " + std::to_string(renderStatus_);
    return message_;
}

} // namespace tonavi
