// Process and hardware discovery of TonaviRuntime, who may get a tap, and the watchdog that
// rebuilds or lets go of taps whose ground moved.

#include "service/TonaviRuntime.hpp"
#include "service/RuntimeCallbacks.hpp"

#include "base/Log.hpp"
#include "core/engine/RouteRefreshPolicy.hpp"
#include "core/engine/TonaviTapSafety.hpp"
#include "service/taps/OutputEligibility.hpp"
#include "service/taps/TonaviTapProvider.hpp"

#include <cassert>

namespace tonavi {

// MARK: Process discovery

void TonaviRuntime::refreshAudioSnapshotsIfNeeded(bool force) {
    assert(serialQueue_->isCurrent());
    if (audioSnapshotProbeInFlight_) {
        audioSnapshotRefreshRequested_ = audioSnapshotRefreshRequested_ || force;
        return;
    }
    const double t = now();
    if (!force) {
        const SmartSettings& smart = engine_->config().smart;
        const double interval =
            smart.autoDuck || smart.micFollow ? audioSnapshotFastInterval : audioSnapshotInterval;
        const double age = t - audioSnapshotAt_;
        if (age >= 0 && age < interval)
            return;
        const double sinceAttempt = t - audioDiscoveryHealth_.lastAttempt;
        if (!audioDiscoveryHealth_.latestReadSucceeded && sinceAttempt >= 0 &&
            sinceAttempt < audioSnapshotRetryAfterFailure)
            return;
    }
    audioSnapshotProbeInFlight_ = true;
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    // The probe holds the machine, not the runtime: a slow audio daemon stalls only this queue.
    // The health records when the probe began: data is as old as its reading, not its arrival.
    discoveryQueue_->async([weak, t, audio = audio_, workspace = workspace_] {
        std::optional<AudioSnapshot> snapshot = TonaviTapProvider::audioSnapshot(*audio, *workspace);
        withRuntime(weak, [&](TonaviRuntime& rt) {
            rt.serialQueue_->async([weak, t, snapshot = std::move(snapshot)]() mutable {
                withRuntime(weak, [&](TonaviRuntime& rt) { rt.finishAudioProbe(std::move(snapshot), t); });
            });
        });
    });
}

void TonaviRuntime::finishAudioProbe(std::optional<AudioSnapshot> snapshot, double t) {
    audioSnapshotProbeInFlight_ = false;
    audioDiscoveryHealth_.lastAttempt = t;
    audioDiscoveryHealth_.latestReadSucceeded = snapshot.has_value();
    if (!snapshot)
        return; // the last good tables stay; the watchdog stops trusting them
    audioDiscoveryHealth_.lastSuccessfulRead = t;
    applyAudioSnapshot(std::move(*snapshot));
    IDSet playing;
    for (const auto& [id, activity] : resolvedAudioSnapshot_)
        if (activity.playing)
            playing.insert(playing.end(), id);
    recordPlaybackOnsets(playing);
    publishCreationEligibility();
    // The automations act on every fresh view of who plays and who records.
    smartTick();
    if (audioSnapshotRefreshRequested_) {
        audioSnapshotRefreshRequested_ = false;
        refreshAudioSnapshotsIfNeeded(true);
    }
}

void TonaviRuntime::applyAudioSnapshot(AudioSnapshot snapshot) {
    assert(serialQueue_->isCurrent());
    statusInputsChanged();
    audioProcessSnapshot_.clear();
    for (const auto& p : snapshot.processes)
        audioProcessSnapshot_.push_back({p.bundleID, static_cast<pid_t>(p.pid), p.isRunning});
    resolvedAudioSnapshot_.clear();
    for (const auto& [id, activity] : snapshot.resolved)
        resolvedAudioSnapshot_[id] = Activity{activity.playing, activity.capturing};
    audioGroups_ = {snapshot.groups.begin(), snapshot.groups.end()};
    audioOwnersByObject_ = std::move(snapshot.ownersByObject);
    audioSnapshotAt_ = audioDiscoveryHealth_.lastSuccessfulRead;
    armOutputRunningListeners();
    rememberAudibleInstalledApps();
}

void TonaviRuntime::armOutputRunningListeners() {
    assert(serialQueue_->isCurrent());
    const auto address = globalAddress(kAudioProcessPropertyIsRunningOutput);
    for (auto it = armedOutputListeners_.begin(); it != armedOutputListeners_.end();) {
        if (audioOwnersByObject_.contains(it->first)) {
            ++it;
            continue;
        }
        audio_->removePropertyListener(it->first, address, *activityListenerQueue_, it->second);
        it = armedOutputListeners_.erase(it);
    }
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    for (const auto& [object, owner] : audioOwnersByObject_) {
        if (armedOutputListeners_.contains(object))
            continue;
        AudioObjectPropertyListenerBlock block =
            std::make_shared<const std::function<void(std::span<const AudioObjectPropertyAddress>)>>(
                [weak, object](std::span<const AudioObjectPropertyAddress>) {
                    withRuntime(weak, [&](TonaviRuntime& rt) { rt.onRunningOutputEdge(object); });
                });
        if (audio_->addPropertyListener(object, address, *activityListenerQueue_, block) == noErr)
            armedOutputListeners_.emplace(object, std::move(block));
    }
}

void TonaviRuntime::removeOutputRunningListeners() {
    const auto address = globalAddress(kAudioProcessPropertyIsRunningOutput);
    for (const auto& [object, block] : armedOutputListeners_)
        audio_->removePropertyListener(object, address, *activityListenerQueue_, block);
    armedOutputListeners_.clear();
}

// On activityListenerQueue. The fast path: a tap can attach within moments of an app's first sound,
// without waiting for the next snapshot.
void TonaviRuntime::onRunningOutputEdge(AudioObjectID object) {
    std::uint32_t running = 0;
    if (audio_->get(object, globalAddress(kAudioProcessPropertyIsRunningOutput), running) != noErr ||
        running != 1)
        return;
    const auto owner = TonaviTapProvider::ownerBundleID(*audio_, *workspace_, object);
    if (!owner)
        return;
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    serialQueue_->async([weak, owner = *owner] {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            // An app that plays digital silence stays out until it really stopped once.
            if (!rt.eligibility_.noteRunningOutput(owner))
                return;
            rt.recency_->noteHeard(owner);
            rt.noteSoundOnset(owner);
            rt.engine_->setCreationEligibility(rt.creationEligibilitySet());
            rt.engine_->requestReconcile();
        });
    });
}

void TonaviRuntime::publishCreationEligibility() {
    assert(serialQueue_->isCurrent());
    IDSet playing;
    for (const auto& [id, activity] : resolvedAudioSnapshot_)
        if (activity.playing)
            playing.insert(id);
    eligibility_.publish(playing, engine_->engagedBundleIDs());
    engine_->setCreationEligibility(creationEligibilitySet());
    engine_->requestReconcile();
}

TonaviRuntime::IDSet TonaviRuntime::creationEligibilitySet() {
    IDSet set = eligibility_.creationEligibility(standingControl());
    for (auto& id : engine_->engagedBundleIDs())
        set.insert(std::move(id));
    return set;
}

TonaviRuntime::IDSet TonaviRuntime::standingControl() {
    const TonaviConfig config = engine_->config();
    const std::optional<IDSet> soloed = engine_->soloActive() ? engine_->soloedBundleIDs() : std::nullopt;
    // A solo claims taps only for the apps it has to silence, which are those heard now.
    const IDSet audible = soloed ? audibleAppsNow() : IDSet{};
    IDSet standing;
    for (const auto& id : OutputEligibility::standingControl(config.apps, soloed, audible))
        if (TonaviTapSafety::mayCapture(id))
            standing.insert(id);
    return standing;
}

// MARK: Hardware discovery

// MARK: Refresh and watchdog

bool TonaviRuntime::routeNeedsRefresh(const std::string& bundleID, bool forced) {
    if (!engine_->hasTap(bundleID))
        return true;
    const std::string defaultUID = engine_->currentDefaultOutputUID();
    const std::string route = engine_->routeFor(bundleID);
    const std::string desiredTarget =
        !route.empty() && TonaviTapProvider::deviceExists(*audio_, route) ? route : defaultUID;
    const std::string boundSource = tapProvider_->sourceDevice(bundleID).value_or("");
    const std::string boundTarget = tapProvider_->targetDevice(bundleID).value_or("");
    return RouteRefreshPolicy::requiresRefresh({boundSource, boundTarget}, {defaultUID, desiredTarget},
                                               !tapProvider_->ioStale(bundleID, ioStaleSeconds),
                                               tapProvider_->processGroupChanged(bundleID), forced);
}

// The engine learns that an app lost its eligibility before its tap goes: a reconcile running on the
// tap-lifecycle queue meanwhile must not find it eligible and without a tap, and take a new one.
void TonaviRuntime::withdrawEligibility(const std::string& bundleID) {
    IDSet set = creationEligibilitySet();
    if (!standingControl().contains(bundleID))
        set.erase(bundleID);
    engine_->setCreationEligibility(std::move(set));
}

bool TonaviRuntime::discoveryTrusted(double t) const {
    const auto fresh = [t](const DiscoveryHealth& h) {
        return h.latestReadSucceeded && h.lastSuccessfulRead <= t &&
               t - h.lastSuccessfulRead < trustedDiscoverySeconds;
    };
    return fresh(audioDiscoveryHealth_) && fresh(hardwareDiscoveryHealth_);
}

std::optional<std::string> TonaviRuntime::selfHealReason(const std::string& id, const IDSet& connected,
                                                         const std::string& defaultUID) {
    const std::string target = tapProvider_->targetDevice(id).value_or("");
    const std::string source = tapProvider_->sourceDevice(id).value_or("");
    const std::string route = engine_->routeFor(id);
    if (engine_->hasTap(id) && tapProvider_->ioStale(id, ioStaleSeconds))
        return "io path stale";
    if (!target.empty() && !connected.contains(target))
        return "device vanished";
    if (!route.empty() && connected.contains(route) && route != target)
        return "device returned";
    if ((!defaultUID.empty() && source != defaultUID) || (route.empty() && !target.empty() && target != defaultUID))
        return "default output moved";
    if (auto group = audioGroups_.find(id); group != audioGroups_.end() && !group->second.objects.empty() &&
                                            tapProvider_->processGroupChanged(id, group->second))
        return "app audio client changed";
    return std::nullopt;
}

void TonaviRuntime::watchdogPass() {
    assert(serialQueue_->isCurrent());
    if (!coreAudioReady_.load())
        return;
    enforceDeviceLimits();
    // Keep both discovery caches young enough to be trusted by the next pass.
    refreshAudioSnapshotsIfNeeded(false);
    refreshHardwareSnapshotIfNeeded(false);

    const double t = now();
    const IDSet connected(hardwareSnapshot_.deviceUIDs.begin(), hardwareSnapshot_.deviceUIDs.end());
    IDSet playing;
    for (const auto& [id, activity] : resolvedAudioSnapshot_)
        if (activity.playing)
            playing.insert(id);
    const std::string defaultUID = engine_->currentDefaultOutputUID();
    // Untrusted discovery is no basis for rebuilding or releasing anything.
    const bool trusted = discoveryTrusted(t);

    if (trusted) {
        for (const auto& id : engine_->engagedBundleIDs()) {
            const auto reason = selfHealReason(id, connected, defaultUID);
            if (!reason) {
                tapRecoveryBackoff_.reset(id);
                continue;
            }
            const std::string issue = *reason + "|" + tapProvider_->targetDevice(id).value_or("") + "|" +
                                      engine_->routeFor(id) + "|" + defaultUID;
            if (tapRecoveryBackoff_.permit(id, issue, t)) {
                Log::info("tonavi: self-heal rebuilding " + id + " (" + *reason + ", bounded retry)");
                engine_->refreshTap(id);
            }
        }
    }

    // Idle release: an app without row-level control does not keep a tap for ever.
    const TonaviConfig config = engine_->config();
    for (const auto& id : engine_->engagedBundleIDs()) {
        if (const AppAudioState* row = config.app(id))
            if (EngagementEngine::isEngaged(*row) || row->muteWhileBypassed)
                continue;
        if (engine_->isSoloSuppressed(id))
            continue;
        const auto idle = tapProvider_->secondsSinceRawAudio(id);
        if (!idle || *idle <= idleReleaseSeconds)
            continue;
        // It still "plays" (digital silence): held back until it really stopped once.
        eligibility_.releaseIdle(id, playing.contains(id));
        withdrawEligibility(id);
        engine_->releaseTap(id, "output idle");
        Log::info("tonavi: released idle output tap for " + id);
    }

    // Eligibility as after a snapshot, without its reconcile.
    eligibility_.publish(playing, engine_->engagedBundleIDs());
    engine_->setCreationEligibility(creationEligibilitySet());

    // Exit: a tap whose processes are all gone has nothing left to carry.
    if (trusted) {
        for (const auto& id : engine_->engagedBundleIDs()) {
            auto group = audioGroups_.find(id);
            if (group != audioGroups_.end() && !group->second.objects.empty())
                continue;
            eligibility_.forget(id);
            onsetTrail_.forget(id);
            withdrawEligibility(id);
            engine_->releaseTap(id, "process exited");
        }
    }

    engine_->requestReconcile();

    // Timed mutes that ran out are cleared.
    bool cleared = false;
    for (const auto& app : config.apps) {
        if (app.timedMuteUntil && *app.timedMuteUntil <= t) {
            AppAudioState row = app;
            row.timedMuteUntil.reset();
            engine_->updateApp(row);
            cleared = true;
        }
    }
    if (cleared)
        persist();
}

} // namespace tonavi
