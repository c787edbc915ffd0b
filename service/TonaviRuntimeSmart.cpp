// The smart automation of TonaviRuntime: the pass that runs follow-me, loudness guard, auto-duck and
// microphone follow, the frontmost-app tracking it reads, the trail of audio onsets, and the two
// smart settings requests. The decisions are SmartTickPolicy's; this file gathers their inputs from
// the cached snapshots and carries the plan out on the engine.

#include "service/TonaviRuntime.hpp"
#include "service/RuntimeCallbacks.hpp"

#include "base/Log.hpp"
#include "core/smart/SmartTickPolicy.hpp"
#include "service/taps/TonaviTapProvider.hpp"

#include <cassert>
#include <chrono>

namespace tonavi {

namespace {

constexpr auto smartNudgeDelay = std::chrono::milliseconds(60);
constexpr auto smartTimerLeeway = std::chrono::milliseconds(250);

} // namespace

// MARK: Timer, nudges and the app in front

void TonaviRuntime::startSmartTimer() {
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    smartTimer_ = std::make_unique<DispatchTimer>(
        *serialQueue_, seconds(smartFirstSeconds), seconds(smartIntervalSeconds),
        [weak] { withRuntime(weak, [](TonaviRuntime& rt) { rt.smartTick(); }); }, smartTimerLeeway);
    smartTimer_->resume();
}

void TonaviRuntime::nudgeSmart() {
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    serialQueue_->async([weak] {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            if (rt.smartNudgeScheduled_)
                return;
            rt.smartNudgeScheduled_ = true;
            rt.serialQueue_->after(smartNudgeDelay, [weak] {
                withRuntime(weak, [](TonaviRuntime& rt) {
                    rt.smartNudgeScheduled_ = false;
                    rt.smartTick();
                });
            });
        });
    });
}

// Activations arrive on serialQueue rather than the main queue: the handler only stores the app
// under its lock and nudges, and the service's main queue is busy with nothing that needs it first.
void TonaviRuntime::startActiveAppTracking() {
    if (auto front = workspace_->frontmostApplication())
        noteActiveApp(*front);
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    workspaceObservers_.push_back(
        workspace_->addActivationObserver(*serialQueue_, [weak](const RunningApplication& app) {
            withRuntime(weak, [&](TonaviRuntime& rt) {
                rt.noteActiveApp(app);
                rt.nudgeSmart();
            });
        }));
}

void TonaviRuntime::noteActiveApp(const RunningApplication& app) {
    if (app.bundleIdentifier.empty())
        return;
    std::lock_guard guard(activeAppLock_);
    activeAppBundleID_ = app.bundleIdentifier;
}

std::optional<std::string> TonaviRuntime::frontmostBundleID() {
    {
        std::lock_guard guard(activeAppLock_);
        if (activeAppBundleID_)
            return activeAppBundleID_;
    }
    return currentFrontmostBundleID();
}

std::optional<std::string> TonaviRuntime::currentFrontmostBundleID() {
    const auto windows = workspace_->onScreenWindows();
    if (!windows) {
        auto front = workspace_->frontmostApplication();
        if (front && !front->bundleIdentifier.empty())
            return front->bundleIdentifier;
        return std::nullopt;
    }
    for (const auto& window : *windows) {
        if (window.layer != 0 || !window.ownerPID)
            continue;
        auto app = workspace_->runningApplication(*window.ownerPID);
        if (app && !app->bundleIdentifier.empty())
            return app->bundleIdentifier;
        return std::nullopt;
    }
    return std::nullopt;
}

// MARK: The pass

void TonaviRuntime::smartTick() {
    assert(serialQueue_->isCurrent());
    statusInputsChanged(); // the automations' live state and the mix they set
    if (!coreAudioReady_.load())
        return;
    refreshAudioSnapshotsIfNeeded(false);
    const TonaviConfig config = engine_->config();

    SmartTickInputs inputs;
    for (const auto& [id, activity] : resolvedAudioSnapshot_) {
        if (activity.playing)
            inputs.playing.insert(inputs.playing.end(), id);
        if (activity.capturing)
            inputs.capturing.insert(inputs.capturing.end(), id);
    }
    inputs.nowNanos = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(clock_->now().time_since_epoch()).count());
    for (const auto& device : hardwareSnapshot_.devices) {
        if (device.id == hardwareSnapshot_.defaultOutputUID) {
            inputs.defaultOutputName = device.name;
            inputs.defaultOutputTransport = device.transport;
            break;
        }
    }
    inputs.hasHardwareVolume = hardwareSnapshot_.outputHardwareVolume.has_value();
    inputs.manualDuckDB = manualDuckOn_ ? manualDuckDepthDB : 0.0;
    inputs.soloActive = engine_->soloActive();
    inputs.soloedBundleIDs = engine_->soloedBundleIDs().value_or(IDSet{});
    inputs.frontmost = [this] { return frontmostBundleID(); };
    inputs.runsAsRegularApp = [this](std::string_view id) {
        const auto apps = workspace_->runningApplications(std::string(id));
        return !apps.empty() && apps.front().activationPolicy == ActivationPolicy::regular;
    };

    const SmartTickPlan plan = SmartTickPolicy::plan(smartState_, config, inputs);
    if (plan.loudnessGuard)
        engine_->setLoudnessGuard(plan.loudnessGuard->active, plan.loudnessGuard->ceilingDBFS);
    engine_->setSmartProtected(plan.smartProtected);
    if (plan.followMe)
        engine_->setFollowMe(plan.followMe->hero, plan.followMe->background);
    engine_->setSoftMasterGain(plan.softMasterGain);
    engine_->setActiveTriggers(plan.activeTriggers);
    engine_->setAutoDuck(plan.autoDuckApps, plan.autoDuckDB);
    // An untouched app is tapped only while a feature acts on it; the engine lets the others go.
    engine_->setForceEngaged(plan.forceEngaged, {});
    for (const auto& line : plan.logLines)
        Log::info(line);
    applyMicFollow(config);
    tapProvider_->syncStates();
}

void TonaviRuntime::applySoftMasterNow() {
    const TonaviConfig config = engine_->config();
    engine_->setSoftMasterGain(config.softMasterMuted ? 0.0 : config.softMasterPercent / 100.0);
}

// The one feature that reads hardware, and only while it is on.
void TonaviRuntime::applyMicFollow(const TonaviConfig& config) {
    if (!config.smart.micFollow || engine_->stageMode())
        return;
    std::vector<SmartInputDevice> inputs;
    for (AudioObjectID id : devices_->readDeviceIDs().value_or(std::vector<AudioObjectID>{})) {
        const int channels = devices_->channelCount(id, true);
        if (channels < 1)
            continue;
        inputs.push_back({devices_->deviceUID(id), devices_->transport(id), channels, {}});
        auto& relatedSet = inputs.back().relatedUIDs;
        for (const auto& uid : devices_->relatedUIDs(id))
            relatedSet.insert(uid);
    }
    const auto pick = SmartTickPolicy::micFollowPick(config, engine_->stageMode(), inputs);
    if (!pick)
        return;
    const auto device = devices_->deviceID(*pick);
    if (!device)
        return;
    const auto currentInput = devices_->defaultDevice(true);
    if (currentInput && devices_->deviceUID(*currentInput) == *pick) {
        smartState_.micFollowLastPick = pick;
        return;
    }
    if (!devices_->setDefaultDevice(*device, true))
        return; // tried again at the next pass
    smartState_.micFollowLastPick = pick;
    const auto name = devices_->stringProperty(*device, kAudioObjectPropertyName);
    Log::info(SmartTickPolicy::micFollowSelectedLine(name && !name->empty() ? *name : *pick));
}

SmartLiveStatus TonaviRuntime::smartLiveStatus(const TonaviConfig& config,
                                                const std::vector<AppLiveStatus>& shown) const {
    SmartTickPolicy::LiveFacts facts;
    for (const auto& device : hardwareSnapshot_.devices) {
        if (device.id == hardwareSnapshot_.defaultOutputUID)
            facts.defaultOutputName = device.name;
        if (device.id == hardwareSnapshot_.defaultInputUID)
            facts.defaultInputName = device.name;
    }
    facts.displayName = [&](const std::string& id) {
        for (const auto& app : shown)
            if (app.id == id && !app.displayName.empty())
                return app.displayName;
        return displayName(id);
    };
    SmartLiveStatus live = SmartTickPolicy::liveStatus(smartState_, config.smart, facts);
    // Said plainly rather than left as a silent "no hero": a session without a focus source.
    if (config.smart.followMe)
        live.followMeNoFront = workspace_->frontmostUnavailableReason();
    return live;
}

// MARK: Audio onsets

void TonaviRuntime::recordPlaybackOnsets(const IDSet& current) {
    assert(serialQueue_->isCurrent());
    statusInputsChanged();
    const auto lines =
        onsetTrail_.recordPlaybackOnsets(current, now(), [this] { return frontmostBundleID(); });
    for (const auto& line : lines)
        Log::info(line);
}

void TonaviRuntime::noteSoundOnset(const std::string& id) {
    assert(serialQueue_->isCurrent());
    statusInputsChanged();
    if (auto line = onsetTrail_.noteSoundOnset(id, now(), [this] { return frontmostBundleID(); }))
        Log::info(*line);
}

void TonaviRuntime::noteOutputMove(const std::string& uid, const std::string& name) {
    assert(serialQueue_->isCurrent());
    statusInputsChanged();
    onsetTrail_.noteOutputMove(uid, name, now());
}

std::vector<AudioOnset> TonaviRuntime::currentAudioOnsets() const {
    return onsetTrail_.currentAudioOnsets(engine_->config().hiddenAppIDs, now());
}

// MARK: Requests

TonaviReply TonaviRuntime::setSmartSettings(SmartSettings settings) {
    TonaviConfig config = engine_->config();
    // Turning the automation on starts from the microphone the user has now.
    if (settings.micFollow && !config.smart.micFollow)
        if (auto input = devices_->defaultDevice(true))
            if (auto uid = devices_->deviceUID(*input))
                settings.preferMic(*uid);
    config.smart = std::move(settings);
    engine_->apply(config);
    if (coreAudioReady_.load())
        smartTick();
    refreshAudioSnapshotsIfNeeded(true);
    persist();
    return success();
}

TonaviReply TonaviRuntime::setPreferredMics(const std::vector<std::string>& uids) {
    TonaviConfig config = engine_->config();
    const std::size_t kept = std::min(uids.size(), SmartSettings::maxPreferredMics);
    config.smart.preferredMicUIDs.assign(uids.begin(), uids.begin() + static_cast<std::ptrdiff_t>(kept));
    engine_->apply(config);
    persist();
    nudgeSmart();
    return success();
}

} // namespace tonavi
