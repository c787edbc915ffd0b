#pragma once
// One hosted plug-in unit, rendered from interleaved stereo buffers in place. The unit comes from the
// platform's plug-in host; loading it runs plug-in code and may take long, so `instantiate` waits
// at most a time-out and a completion that comes later changes nothing.
//
// `lock` is held across render and across attach, detach and state changes, so a unit is never
// used while it is torn down; the render thread may wait behind a state change. Render allocates
// nothing: its scratch buffers are made in `attach`. A render failure is recorded on the audio
// thread and reported once, later, by `deliverFailure` off it (a report allocates and logs).

#include "platform/PluginHost.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tonavi {

class AUHostedEffect {
  public:
    enum class State { loading, ready, failed };

    struct Instantiation {
        std::unique_ptr<PluginUnit> unit;
        std::optional<std::string> error;
    };

    // Parameter symbol to value, applied over the restored state.
    using Parameters = std::map<std::string, double>;

    static constexpr std::uint32_t maximumFramesPerRender = 4096;

    // Runs `load` on a thread of its own and waits for it at most `timeout`.
    static Instantiation instantiate(std::function<Instantiation()> load, std::chrono::duration<double> timeout);

    explicit AUHostedEffect(std::string slotID) : slotID_(std::move(slotID)) {}
    ~AUHostedEffect();

    bool attach(std::unique_ptr<PluginUnit> unit, double sampleRate, std::uint32_t maximumFrames,
                const std::optional<std::vector<std::uint8_t>>& presetData, const Parameters& parameters);
    void detach();
    // A new state and parameters on a ready unit, without reloading; false leaves the unit as it was.
    bool applyPresetData(const std::optional<std::vector<std::uint8_t>>& presetData, const Parameters& parameters);
    // Audio thread.
    void process(std::span<float> buffer);
    bool isReady();
    int latencySamples();
    State state();
    std::string failureMessage();

    void setOnFailure(std::function<void(const std::string&)> onFailure) { onFailure_ = std::move(onFailure); }
    // Off the audio thread: reports a render failure once, if one happened since the attach.
    void deliverFailure();

  private:
    void failLocked(std::string message);

    const std::string slotID_;
    std::mutex lock_; // "AUHostedEffect.lock": the unit, scratch, state
    std::unique_ptr<PluginUnit> unit_;
    std::vector<float> inScratch_, outScratch_; // planar: left then right, maxFrames each
    std::uint32_t maxFrames_ = 0;
    double renderSampleTime_ = 0;
    double sampleRate_ = 0;
    State state_ = State::loading;
    std::string message_;
    int renderStatus_ = 0; // set on the audio thread; the message is made when it is reported
    bool failureReported_ = false;
    std::function<void(const std::string&)> onFailure_;
};

} // namespace tonavi
