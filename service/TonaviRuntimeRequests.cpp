// Request dispatch of TonaviRuntime and the app mixer requests.

#include "service/TonaviRuntime.hpp"
#include "service/PayloadReply.hpp"
#include "service/RuntimeCallbacks.hpp"

#include "base/Log.hpp"
#include "core/engine/TonaviTapSafety.hpp"
#include "core/lists/AppListPolicy.hpp"

#include <algorithm>
#include <cassert>
#include <type_traits>

namespace tonavi {

// MARK: Entry

void TonaviRuntime::handleAsync(const TonaviRequest& request, std::function<void(TonaviReply)> completion) {
    // Output selection and scene loads wait for the operating system and complete later.
    // The installed-app list may have to read the disk, which never happens on serialQueue.
    // These answer later, off serialQueue: a poll that follows such an answer waits for a status
    // built after it.
    auto answered = [weak = std::weak_ptr<TonaviRuntime*>(weakSelf_), completion](TonaviReply reply) {
        withRuntime(weak, [](TonaviRuntime& rt) { rt.statusMustShowChangesSoFar(); });
        completion(std::move(reply));
    };
    if (handleOutputSelectionAsync(request, answered) || handleSceneLoadAsync(request, answered) ||
        handleDirectoryAsync(request, answered) || handleMIDILearnAsync(request, answered))
        return;
    completion(handle(request));
}

TonaviReply TonaviRuntime::handle(const TonaviRequest& request) {
    return serialQueue_->syncResult([&] {
        replyStatusStamp_.reset();
        TonaviReply reply = handleLocked(request);
        publishReplyStatus(reply);
        return reply;
    });
}

std::shared_ptr<const std::string> TonaviRuntime::encodedStatusReply() {
    const StatusLookup cached = lookUpStatusReply();
    if (cached.current)
        return cached.reply;
    if (cached.servable) {
        scheduleStatusRebuild();
        return cached.reply;
    }
    return serialQueue_->syncResult([&] { return encodedStatusReplyLocked(); });
}

TonaviReply TonaviRuntime::success(std::string message) {
    TonaviReply reply = TonaviReply::success(std::move(message));
    replyStatusStamp_.emplace(currentStatusRevisions(), now());
    reply.status = buildStatus();
    return reply;
}

TonaviReply TonaviRuntime::failure(std::string message) {
    TonaviReply reply = TonaviReply::failure(std::move(message));
    replyStatusStamp_.emplace(currentStatusRevisions(), now());
    reply.status = buildStatus();
    return reply;
}

TonaviReply TonaviRuntime::notAvailable(std::string_view caseName) {
    return failure(std::string(caseName) + " is not available yet: this service does not have that feature");
}

TonaviReply TonaviRuntime::handleLocked(const TonaviRequest& request) {
    assert(serialQueue_->isCurrent());
    using R = TonaviRequest;
    return std::visit(
        [&](const auto& c) -> TonaviReply {
            using T = std::decay_t<decltype(c)>;
            if constexpr (std::is_same_v<T, R::Ping>) {
                // No status: ping must answer while the service is still warming up.
                return TonaviReply::success("tonavi " + version_);
            } else if constexpr (std::is_same_v<T, R::Status>) {
                return success();
            } else if constexpr (std::is_same_v<T, R::Diagnostics>) {
                TonaviReply reply = TonaviReply::success();
                reply.payload = buildDiagnostics();
                return reply;
            } else if constexpr (std::is_same_v<T, R::Shutdown>) {
                engine_->releaseAllTapsForShutdown();
                return TonaviReply::success("audio returned to the OS");
            } else if constexpr (std::is_same_v<T, R::EngageApp>) {
                return mutateApp(c.bundleID, false, [](AppAudioState& app) {
                    if (!EngagementEngine::isEngaged(app))
                        app.volume = std::min(app.volume, 0.9999);
                });
            } else if constexpr (std::is_same_v<T, R::DisengageApp>) {
                return mutateApp(c.bundleID, false, [](AppAudioState& app) {
                    app.volume = 1.0;
                    app.muted = false;
                    app.chain = kavore::ChainSettings::empty();
                    app.redirectUID.clear();
                    app.timedMuteUntil.reset();
                    app.volumePerDevice.clear();
                    app.controlAttached = false;
                });
            } else if constexpr (std::is_same_v<T, R::UnlockDirect>) {
                return mutateApp(c.bundleID, false, [](AppAudioState& app) {
                    app.directLocked = false;
                    app.muteWhileBypassed = false;
                });
            } else if constexpr (std::is_same_v<T, R::RelockDirect>) {
                return mutateApp(c.bundleID, false, [](AppAudioState& app) {
                    app.directLocked = true;
                    app.muteWhileBypassed = false;
                });
            } else if constexpr (std::is_same_v<T, R::SetAppVolume>) {
                const double volume = std::clamp(c.volume, 0.0, 1.0);
                const std::string defaultUID = engine_->currentDefaultOutputUID();
                return mutateApp(c.bundleID, true, [&](AppAudioState& app) {
                    app.controlAttached = true;
                    app.volume = volume;
                    // Remember the level per device, so that a return to this route restores it.
                    const std::string& route = app.redirectUID.empty() ? defaultUID : app.redirectUID;
                    if (!route.empty())
                        app.volumePerDevice[route] = volume;
                });
            } else if constexpr (std::is_same_v<T, R::SetAppMuted>) {
                return mutateApp(c.bundleID, false, [&](AppAudioState& app) {
                    app.controlAttached = true;
                    app.muted = c.muted;
                    app.muteWhileBypassed = c.muted && app.directLocked;
                    app.timedMuteUntil.reset(); // an explicit mute or unmute ends a timed one
                });
            } else if constexpr (std::is_same_v<T, R::SetAppSteadyVolume>) {
                return mutateApp(c.bundleID, false, [&](AppAudioState& app) { app.steadyVolume = c.on; });
            } else if constexpr (std::is_same_v<T, R::SetAppBoost>) {
                return mutateApp(c.bundleID, false, [&](AppAudioState& app) {
                    app.controlAttached = true;
                    app.chain.overdrive = kavore::OverdriveSettings(std::clamp(c.multiplier, 1.0, 4.0));
                });
            } else if constexpr (std::is_same_v<T, R::SetAppRedirect>) {
                return setAppRedirect(c.bundleID, c.deviceUID);
            } else if constexpr (std::is_same_v<T, R::SetAppChain>) {
                return mutateApp(c.bundleID, false, [&](AppAudioState& app) { app.chain = c.chain; });
            } else if constexpr (std::is_same_v<T, R::SetTimedMute>) {
                const double until = now() + std::clamp(c.seconds, 1.0, 86400.0);
                // `muted` stays: the engine treats the app as muted until that time.
                return mutateApp(c.bundleID, false, [&](AppAudioState& app) { app.timedMuteUntil = until; });
            } else if constexpr (std::is_same_v<T, R::CancelTimedMute>) {
                return mutateApp(c.bundleID, false, [](AppAudioState& app) { app.timedMuteUntil.reset(); });
            } else if constexpr (std::is_same_v<T, R::BypassAppEffects>) {
                return mutateApp(c.bundleID, false,
                                 [&](AppAudioState& app) { app.chain.bypassed = c.bypassed; });
            } else if constexpr (std::is_same_v<T, R::ResetApp>) {
                return mutateApp(c.bundleID, false, [&](AppAudioState& app) {
                    AppAudioState fresh = freshRecord(c.bundleID);
                    fresh.displayName = app.displayName;
                    app = std::move(fresh);
                });
            } else if constexpr (std::is_same_v<T, R::SetFavorite>) {
                return mutateApp(c.bundleID, false, [&](AppAudioState& app) {
                    app.favorite = c.favorite;
                    app.favoriteRank = c.rank;
                });
            } else if constexpr (std::is_same_v<T, R::SetPinnedEffects>) {
                return mutateApp(c.bundleID, false,
                                 [&](AppAudioState& app) { app.pinnedEffectIDs = c.slotIDs; });
            } else if constexpr (std::is_same_v<T, R::SetSoloApps>) {
                return setSoloApps(c.bundleIDs);
            } else if constexpr (std::is_same_v<T, R::SetAppSolo>) {
                return setAppSolo(c.bundleID, c.soloed);
            } else if constexpr (std::is_same_v<T, R::SetAppVisible>) {
                return setAppVisible(c.bundleID, c.visible);
            } else if constexpr (std::is_same_v<T, R::SetAppDisplayOrder>) {
                return setAppDisplayOrder(c.bundleIDs);
            } else if constexpr (std::is_same_v<T, R::StageMode>) {
                return setStageMode(c.on);
            } else if constexpr (std::is_same_v<T, R::SetManualDuck>) {
                return setManualDuck(c.on);
            } else if constexpr (std::is_same_v<T, R::SetSmartSettings>) {
                return setSmartSettings(c._0);
            } else if constexpr (std::is_same_v<T, R::SetPreferredMics>) {
                return setPreferredMics(c.uids);
            } else if constexpr (std::is_same_v<T, R::ListInstalledApps>) {
                // Internal callers get the cache: this branch runs on serialQueue, which never waits
                // for a scan. Clients go through handleDirectoryAsync.
                return installedAppsReply(appDirectory_->presentationApps());
            } else if constexpr (std::is_same_v<T, R::ListRunningAudioApps>) {
                return runningAudioAppsReply();
            } else if (auto reply = handleDeviceRequestLocked(request)) {
                return std::move(*reply);
            } else if (auto configReply = handleConfigRequestLocked(request)) {
                return std::move(*configReply);
            } else if (auto midiReply = handleMIDIRequestLocked(request)) {
                return std::move(*midiReply);
            } else if constexpr (std::is_same_v<T, R::ScanAudioUnits>) {
                return payloadReply(auCatalogue_->rescan());
            } else if constexpr (std::is_same_v<T, R::ListAudioUnits>) {
                if (!auCatalogue_->lastScan())
                    auCatalogue_->rescan();
                return payloadReply(auCatalogue_->units());
            } else {
                return notAvailable(request.caseName());
            }
        },
        request.value);
}

// MARK: App requests

AppAudioState TonaviRuntime::freshRecord(const std::string& bundleID) const {
    AppAudioState record(bundleID);
    record.displayName = displayName(bundleID);
    return record;
}

TonaviReply TonaviRuntime::mutateApp(const std::string& bundleID, bool continuous,
                                     const std::function<void(AppAudioState&)>& mutation) {
    if (!TonaviTapSafety::mayCapture(bundleID))
        return failure("That process is audio-routing infrastructure and cannot be captured.");
    const TonaviConfig config = engine_->config();
    if (std::find(config.hiddenAppIDs.begin(), config.hiddenAppIDs.end(), bundleID) !=
        config.hiddenAppIDs.end())
        return failure("Restore this app from Add App before changing it.");

    const AppAudioState* existing = config.app(bundleID);
    AppAudioState record = existing ? *existing : freshRecord(bundleID);
    mutation(record);

    const auto activity = resolvedAudioSnapshot_.find(bundleID);
    eligibility_.noteRowChanged(bundleID, OutputEligibility::hasStandingNeed(record),
                                activity != resolvedAudioSnapshot_.end() && activity->second.playing);
    engine_->setCreationEligibility(creationEligibilitySet());
    engine_->updateApp(record);
    if (continuous)
        persistContinuousControl();
    else
        persist();
    return success();
}

TonaviReply TonaviRuntime::setAppRedirect(const std::string& bundleID, const std::string& deviceUID) {
    const std::string validated = engine_->validateRedirect(bundleID, deviceUID);
    const bool accepted = validated == deviceUID;
    TonaviReply reply = mutateApp(bundleID, false, [&](AppAudioState& app) { app.redirectUID = validated; });
    if (reply.ok)
        engine_->refreshTap(bundleID);
    if (accepted)
        return reply;
    return failure("that device is a locked lane for another app");
}

TonaviReply TonaviRuntime::setSoloApps(const std::vector<std::string>& bundleIDs) {
    if (engine_->stageMode() && !bundleIDs.empty())
        return failure("Turn off Bypass All before starting Solo.");
    for (const auto& id : bundleIDs)
        if (!TonaviTapSafety::mayCapture(id))
            return failure("Audio-routing infrastructure cannot be soloed.");
    engine_->setSoloApps(IDSet(bundleIDs.begin(), bundleIDs.end()));
    tapProvider_->syncStates();
    refreshAudioSnapshotsIfNeeded(true);
    publishCreationEligibility();
    if (coreAudioReady_.load())
        smartTick();
    tapProvider_->syncStates();
    return success();
}

TonaviReply TonaviRuntime::setAppSolo(const std::string& bundleID, bool soloed) {
    IDSet set = engine_->soloedBundleIDs().value_or(IDSet{});
    if (soloed)
        set.insert(bundleID);
    else
        set.erase(bundleID);
    // A set iterates in sorted order.
    TonaviRequest request{TonaviRequest::SetSoloApps{std::vector<std::string>(set.begin(), set.end())}};
    return handleLocked(request);
}

TonaviReply TonaviRuntime::setAppVisible(const std::string& bundleID, bool visible) {
    // Both ways: a routing process can be neither added nor removed.
    if (!TonaviTapSafety::mayCapture(bundleID) || TonaviTapSafety::blockedBundleIDs().contains(bundleID))
        return failure("That routing process cannot be added to Tonavi.");
    const std::string name = displayName(bundleID);
    TonaviConfig config = engine_->config();
    if (!config.app(bundleID)) {
        AppAudioState record(bundleID);
        record.displayName = name;
        config.upsertApp(record);
    }
    config.setAppVisible(bundleID, visible);
    engine_->apply(config);
    if (!visible) {
        eligibility_.forget(bundleID);
        if (auto soloed = engine_->soloedBundleIDs(); soloed && soloed->contains(bundleID)) {
            soloed->erase(bundleID);
            engine_->setSoloApps(*soloed);
        }
    }
    persist();
    if (coreAudioReady_.load())
        smartTick();
    return success(visible ? "App restored to Tonavi." : "Removed from Tonavi and returned to direct audio.");
}

TonaviReply TonaviRuntime::setAppDisplayOrder(const std::vector<std::string>& bundleIDs) {
    if (std::set<std::string>(bundleIDs.begin(), bundleIDs.end()).size() != bundleIDs.size())
        return failure("App order contains duplicate entries.");

    TonaviConfig copy = engine_->config();
    std::vector<const AppAudioState*> ranked;
    for (const auto& app : copy.apps)
        if (app.displayRank)
            ranked.push_back(&app);
    std::stable_sort(ranked.begin(), ranked.end(), [](const AppAudioState* a, const AppAudioState* b) {
        return *a->displayRank < *b->displayRank;
    });
    std::vector<std::string> existing;
    for (const auto* app : ranked)
        existing.push_back(app->id);
    const std::vector<std::string> merged = AppListPolicy::mergingVisibleOrder(existing, bundleIDs);

    for (auto& app : copy.apps)
        app.displayRank.reset();
    for (std::size_t index = 0; index < merged.size(); ++index) {
        const std::string& id = merged[index];
        if (!TonaviTapSafety::mayCapture(id))
            continue; // its index stays used up
        if (!copy.app(id))
            copy.upsertApp(freshRecord(id));
        copy.app(id)->displayRank = static_cast<std::int64_t>(index);
    }

    try {
        saveConfigToDisk(copy); // under the store's exclusive lock
    } catch (const std::exception& e) {
        return failure(std::string("App order could not be saved: ") + e.what());
    }
    // A new order needs no change of audio.
    engine_->setConfigWithoutReconcile(copy);
    return success();
}

TonaviReply TonaviRuntime::setStageMode(bool on) {
    engine_->setStageMode(on);
    if (coreAudioReady_.load())
        smartTick();
    else if (on)
        engine_->setForceEngaged({}, {});
    persist();
    return success(on ? "stage mode ON: every tap released; muted apps are audible until you turn it off"
                      : "stage mode off: every setting restored, mutes included");
}

TonaviReply TonaviRuntime::setManualDuck(bool on) {
    engine_->setManualDuckDB(on ? manualDuckDepthDB : 0.0);
    manualDuckOn_ = on;
    statusInputsChanged();
    if (coreAudioReady_.load())
        smartTick();
    else
        engine_->setForceEngaged(on ? audibleAppsNow() : IDSet{}, {});
    Log::info(on ? "tonavi: manual duck ON" : "tonavi: manual duck off");
    return success();
}

} // namespace tonavi
