// The status record, the diagnostics dump and the small questions requests ask of TonaviRuntime.
// Everything here runs on serialQueue and reads cached snapshots only: no hardware call.

#include "service/TonaviRuntime.hpp"
#include "service/RuntimeCallbacks.hpp"

#include "base/Log.hpp"
#include "core/engine/TonaviTapSafety.hpp"
#include "core/lists/AppListPolicy.hpp"
#include "core/outputs/OutputGroupIdentity.hpp"
#include "core/smart/AudioOnsetPolicy.hpp"
#include "core/smart/KnownAudioApps.hpp"
#include "core/wire/TonaviPayload.hpp"

#include <algorithm>
#include <cassert>
#include <cctype>
#include <climits>
#include <sys/utsname.h>

namespace tonavi {

namespace {

constexpr const char* controlIssueText =
    "Audio control could not attach. Sound is on the direct path; Tonavi is retrying.";
constexpr std::size_t statusHealthCount = 20;

bool contains(const std::vector<std::string>& list, const std::string& id) {
    return std::find(list.begin(), list.end(), id) != list.end();
}

std::string operatingSystemVersion() {
    utsname name{};
    if (::uname(&name) != 0)
        return "unknown";
    return std::string(name.sysname) + " " + name.release + " " + name.version;
}

} // namespace

std::string TonaviRuntime::displayName(const std::string& bundleID) const {
    // The application directory's names join here when it lands.
    std::string last;
    std::size_t start = 0;
    while (start <= bundleID.size()) {
        const std::size_t dot = bundleID.find('.', start);
        const std::size_t end = dot == std::string::npos ? bundleID.size() : dot;
        if (end > start)
            last = bundleID.substr(start, end - start);
        if (dot == std::string::npos)
            break;
        start = dot + 1;
    }
    if (last.empty())
        return bundleID;
    for (auto& ch : last)
        ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    last[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(last[0])));
    return last;
}

std::vector<std::string> TonaviRuntime::currentSystemRouteNames(const std::string& uid) const {
    std::vector<std::string> names;
    if (uid.empty())
        return names;
    if (uid == hardwareSnapshot_.defaultOutputUID)
        names.emplace_back("system output");
    if (uid == hardwareSnapshot_.defaultInputUID)
        names.emplace_back("system input");
    if (uid == hardwareSnapshot_.soundEffectsUID)
        names.emplace_back("alert sound");
    // A member of the group that plays as the system output (or the alert sound) carries that route too:
    // hiding it would take the group, and the user's sound, away.
    const std::vector<OutputGroup> groups = engine_->config().groups;
    auto memberOfGroupAt = [&](const std::string& routeUID) {
        if (routeUID.empty())
            return false;
        for (const auto& group : groups)
            if (OutputGroupIdentity::aggregateDeviceUID(group) == routeUID)
                return std::any_of(group.members.begin(), group.members.end(),
                                   [&](const OutputGroupMember& m) { return m.id == uid; });
        return false;
    };
    if (memberOfGroupAt(hardwareSnapshot_.defaultOutputUID))
        names.emplace_back("active output group");
    if (memberOfGroupAt(hardwareSnapshot_.soundEffectsUID))
        names.emplace_back("active alert-sound group");
    return names;
}

TonaviRuntime::IDSet TonaviRuntime::audibleAppsNow() {
    refreshAudioSnapshotsIfNeeded(false);
    IDSet out;
    const TonaviConfig config = engine_->config();
    for (const auto& [id, activity] : resolvedAudioSnapshot_) {
        if (!activity.playing || !TonaviTapSafety::mayCapture(id) || contains(config.hiddenAppIDs, id))
            continue;
        if (!KnownAudioApps::isAudioApp(id) && !config.app(id))
            continue;
        if (workspace_->runningApplications(id).empty())
            continue;
        out.insert(id);
    }
    return out;
}

TonaviStatus TonaviRuntime::buildStatus() {
    assert(serialQueue_->isCurrent());
    // Fresh data is asked for without waiting; the status uses what is cached now.
    refreshAudioSnapshotsIfNeeded(false);
    refreshHardwareSnapshotIfNeeded(false);

    TonaviConfig config = engine_->config();
    std::map<std::string, const ProcessEntry*> processes;
    for (const auto& entry : audioProcessSnapshot_)
        processes.emplace(entry.bundleID, &entry);

    // The apps to show: configured ones, audio processes of known audio apps, and below, regular
    // applications that play or record.
    std::set<std::string> shown;
    for (const auto& app : config.apps)
        shown.insert(app.id);
    for (const auto& entry : audioProcessSnapshot_)
        if (config.app(entry.bundleID) || KnownAudioApps::isAudioApp(entry.bundleID))
            shown.insert(entry.bundleID);
    // The workspace is asked once per app for its running applications.
    std::map<std::string, std::vector<RunningApplication>> running;
    auto runningOf = [&](const std::string& id) -> const std::vector<RunningApplication>& {
        auto [it, added] = running.try_emplace(id);
        if (added)
            it->second = workspace_->runningApplications(id);
        return it->second;
    };
    // An audio app is a regular running application whose processes play or record.
    std::map<std::string, std::string> runningNames;
    for (const auto& [id, activity] : resolvedAudioSnapshot_) {
        if (!activity.playing && !activity.capturing)
            continue;
        for (const auto& app : runningOf(id))
            if (app.activationPolicy == ActivationPolicy::regular) {
                shown.insert(id);
                runningNames.emplace(id, app.localizedName);
            }
    }
    // The row's name, else the running application's, else the one the system gives.
    auto nameOf = [&](const std::string& id, const AppAudioState* row) {
        if (row && !row->displayName.empty())
            return row->displayName;
        auto name = runningNames.find(id);
        return name != runningNames.end() && !name->second.empty() ? name->second : displayName(id);
    };
    const std::vector<std::string> engaged = engine_->engagedBundleIDs();
    shown.insert(engaged.begin(), engaged.end());
    const IDSet soloed = engine_->soloedBundleIDs().value_or(IDSet{});
    shown.insert(soloed.begin(), soloed.end());
    // An app that just began to sound is shown even before a snapshot lists it as an audio app.
    const double t = now();
    for (const auto& onset : currentAudioOnsets())
        if (onset.kind.value_or(AudioOnset::Kind::app) == AudioOnset::Kind::app &&
            t - onset.startedAt <= AudioOnsetPolicy::attentionWindow)
            shown.insert(onset.id);
    for (const auto& id : TonaviTapSafety::blockedBundleIDs())
        shown.erase(id);
    for (const auto& id : config.hiddenAppIDs)
        shown.erase(id);

    // Newly seen apps get a place at the end of the user's order.
    std::vector<std::pair<std::string, std::string>> named;
    for (const auto& id : shown)
        named.emplace_back(id, nameOf(id, config.app(id)));
    if (config.appendUnrankedMixerApps(named)) {
        engine_->setConfigWithoutReconcile(config);
        try {
            saveConfigToDisk(config);
        } catch (const std::exception&) {
        }
        Log::info("tonavi: appended newly discovered audio apps to stable My Order");
        config = engine_->config();
    }

    TonaviStatus status;
    for (const auto& id : shown) {
        const AppAudioState* row = config.app(id);
        AppLiveStatus live;
        live.id = id;
        live.displayName = nameOf(id, row);
        // The audio process first; an application without one yet is still running by the workspace.
        const std::vector<RunningApplication>& apps = runningOf(id);
        if (auto p = processes.find(id); p != processes.end()) {
            live.pid = p->second->pid;
            live.isRunning = p->second->isRunning;
        } else if (!apps.empty()) {
            live.pid = apps.front().processIdentifier;
            live.isRunning = true;
        }
        if (auto a = resolvedAudioSnapshot_.find(id); a != resolvedAudioSnapshot_.end()) {
            live.isPlayingAudio = a->second.playing;
            live.isCapturingAudio = a->second.capturing;
        }
        // A user's application has a window of its own; one that is not running counts when it has a row.
        live.isUserApp = apps.empty() ? row != nullptr
                                      : std::any_of(apps.begin(), apps.end(), [](const RunningApplication& app) {
                                            return app.activationPolicy == ActivationPolicy::regular;
                                        });
        live.audioCapable = KnownAudioApps::isAudioApp(id) || live.isPlayingAudio || live.isCapturingAudio ||
                            contains(config.historicallyAudibleAppIDs, id);
        live.secondsSinceAudio = recency_->secondsSince(id);
        live.hasRecentAudioSignal = tapProvider_->recentAudioSignal(id);
        live.engaged = engine_->hasTap(id);
        if (live.engaged) {
            live.level = tapProvider_->level(id);
            if (auto frames = tapProvider_->bufferFrames(id)) {
                live.addedLatencySamples = engine_->latencySamples(id, frames->tap, frames->output);
                const double rate = tapProvider_->sampleRate(id);
                if (rate > 0)
                    live.addedLatencyMS = static_cast<double>(live.addedLatencySamples) / rate * 1000.0;
            }
            live.tapSourceUID = tapProvider_->sourceDevice(id);
            live.tapOutputUID = tapProvider_->targetDevice(id);
        }
        if (row) {
            live.volume = engine_->effectiveVolume(*row);
            live.muted = row->muted;
            live.boost = row->chain.overdrive.multiplier;
            live.redirectUID = row->redirectUID;
            live.displayRank = row->displayRank;
            live.steadyVolume = row->steadyVolume;
            live.directLocked = row->directLocked;
            live.userControlled = EngagementEngine::isEngaged(*row);
        } else {
            live.volume = 1.0;
            live.boost = 1.0;
        }
        live.soloed = soloed.contains(id);
        if (engine_->hasControlFailure(id))
            live.controlIssue = controlIssueText;
        status.apps.push_back(std::move(live));
    }
    AppListPolicy::order(status.apps);

    const HardwareSnapshot& hw = hardwareSnapshot_;
    status.devices = hw.devices;
    status.defaultOutputUID = hw.defaultOutputUID;
    status.defaultInputUID = hw.defaultInputUID;
    status.soundEffectsUID = hw.soundEffectsUID;
    status.sampleRate = hw.sampleRate;
    status.bufferFrames = hw.bufferFrames;
    status.outputVolumeIsSoft = !hw.outputHardwareVolume.has_value();
    if (status.outputVolumeIsSoft) {
        status.outputVolume = config.softMasterPercent / 100.0;
        status.outputMuted = config.softMasterMuted;
    } else {
        status.outputVolume = *hw.outputHardwareVolume;
        status.outputMuted = hw.outputMuted;
    }

    status.recentOnsets = currentAudioOnsets();
    std::vector<HealthEvent> health = engine_->healthLog();
    if (health.size() > statusHealthCount)
        health.erase(health.begin(), health.end() - statusHealthCount);
    status.health = std::move(health);
    status.soloAppIDs = std::vector<std::string>(soloed.begin(), soloed.end());
    std::vector<std::string> unmuted;
    for (const auto& id : soloed) {
        const AppAudioState* row = config.app(id);
        if (!row || !row->muted)
            unmuted.push_back(id);
    }
    status.soloUnmutedAppIDs = std::move(unmuted);

    status.smartLive = smartLiveStatus(config, status.apps);

    status.stageMode = engine_->stageMode();
    status.anyEngaged = !engaged.empty();
    status.engagedCount = static_cast<std::int64_t>(engaged.size());
    status.manualDuckOn = manualDuckOn_;
    return status;
}

TonaviRuntime::StatusRevisions TonaviRuntime::currentStatusRevisions() const {
    return {statusRevision_.load(std::memory_order_acquire), engine_->revision(), tapProvider_->statusRevision()};
}

TonaviRuntime::StatusLookup TonaviRuntime::lookUpStatusReply() {
    const double t = now();
    const StatusRevisions revisions = currentStatusRevisions();
    const std::uint64_t required = statusRequiredRevision_.load(std::memory_order_acquire);
    std::lock_guard guard(statusCacheLock_);
    const StatusCache& cached = statusCache_;
    if (!cached.reply || t < cached.builtAt)
        return {};
    const double age = t - cached.builtAt;
    return {cached.reply, revisions == cached.built && age < statusCacheMaxAge,
            age < statusCacheServeFor && cached.built.runtime >= required};
}

void TonaviRuntime::scheduleStatusRebuild() {
    if (statusRebuildQueued_.exchange(true))
        return;
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    serialQueue_->async([weak] {
        withRuntime(weak, [](TonaviRuntime& rt) {
            rt.statusRebuildQueued_.store(false);
            rt.encodedStatusReplyLocked();
        });
    });
}

std::shared_ptr<const std::string> TonaviRuntime::encodedStatusReplyLocked() {
    assert(serialQueue_->isCurrent());
    // Fresh snapshots are asked for at least every time the cache ages, so pollers keep discovery moving.
    refreshAudioSnapshotsIfNeeded(false);
    refreshHardwareSnapshotIfNeeded(false);
    if (const StatusLookup cached = lookUpStatusReply(); cached.current)
        return cached.reply;
    // Revisions are read before the build: a change during it moves them, and the next poll rebuilds.
    StatusCache fresh{currentStatusRevisions(), now(), nullptr};
    fresh.reply = std::make_shared<const std::string>(encodeReplyOrFailure(success()));
    replyStatusStamp_.reset();
    std::lock_guard guard(statusCacheLock_);
    statusCache_ = fresh;
    return fresh.reply;
}

void TonaviRuntime::publishReplyStatus(const TonaviReply& reply) {
    assert(serialQueue_->isCurrent());
    const auto stamp = std::exchange(replyStatusStamp_, std::nullopt);
    if (!reply.status || !stamp)
        return;
    {
        std::lock_guard guard(statusCacheLock_);
        if (statusCache_.reply && statusCache_.built == stamp->first && statusCache_.builtAt >= stamp->second)
            return; // nothing moved: a read-only request
    }
    TonaviReply statusOnly = TonaviReply::success();
    statusOnly.status = reply.status;
    auto bytes = std::make_shared<const std::string>(encodeReplyOrFailure(statusOnly));
    std::lock_guard guard(statusCacheLock_);
    if (stamp->second >= statusCache_.builtAt)
        statusCache_ = {stamp->first, stamp->second, std::move(bytes)};
}

void TonaviRuntime::statusMustShowChangesSoFar() {
    const std::uint64_t revision = statusRevision_.fetch_add(1, std::memory_order_acq_rel) + 1;
    std::uint64_t required = statusRequiredRevision_.load(std::memory_order_acquire);
    while (required < revision && !statusRequiredRevision_.compare_exchange_weak(required, revision)) {
    }
}

Bytes TonaviRuntime::buildDiagnostics() {
    Diagnostics diagnostics;
    diagnostics.version = version_;
    diagnostics.timestamp = now();
    diagnostics.status = buildStatus();
    diagnostics.config = engine_->config();
    diagnostics.healthLog = engine_->healthLog();
    diagnostics.auCount = 0; // no hosted Audio Units in this build
    diagnostics.os = operatingSystemVersion();
    return TonaviPayload::encode(diagnostics);
}

} // namespace tonavi
