#include "core/smart/SmartTickPolicy.hpp"

#include "core/engine/GlobalListeningPolicy.hpp"
#include "core/engine/LatencySensitiveAppPolicy.hpp"
#include "core/engine/TonaviTapSafety.hpp"
#include "core/smart/AutoDuckPolicy.hpp"
#include "core/smart/FollowMePolicy.hpp"
#include "core/smart/KnownAudioApps.hpp"
#include "core/smart/LoudnessGuardPolicy.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace tonavi::SmartTickPolicy {

namespace {

bool contains(const std::vector<std::string>& list, std::string_view id) {
    return std::find(list.begin(), list.end(), id) != list.end();
}

void unite(BundleIDSet& into, const BundleIDSet& from) {
    into.insert(from.begin(), from.end());
}

std::string joined(const BundleIDSet& ids) {
    std::string text;
    for (const auto& id : ids) {
        if (!text.empty())
            text += ", ";
        text += id;
    }
    return text;
}

} // namespace

bool leavesAlone(const SmartSettings& smart, std::string_view bundleID) {
    if (contains(smart.leaveAloneBundleIDs, bundleID))
        return true;
    return smart.protectMusicApps && LatencySensitiveAppPolicy::prefersDirectSoftMaster(bundleID);
}

BundleIDSet eligible(const BundleIDSet& ids, const TonaviConfig& config,
                     const BundleIDPredicate& runsAsRegularApp) {
    BundleIDSet kept;
    for (const auto& id : ids) {
        if (!TonaviTapSafety::mayCapture(id) || contains(config.hiddenAppIDs, id))
            continue;
        if (KnownAudioApps::isAudioApp(id) || config.app(id) != nullptr ||
            (runsAsRegularApp && runsAsRegularApp(id)))
            kept.insert(kept.end(), id);
    }
    return kept;
}

BundleIDSet stableAudible(SmartTickState& state, const BundleIDSet& current,
                          const std::vector<std::string>& hiddenAppIDs, std::uint64_t nowNanos) {
    for (const auto& id : current)
        state.audibleLastSeen[id] = nowNanos;
    BundleIDSet audible;
    for (auto it = state.audibleLastSeen.begin(); it != state.audibleLastSeen.end();) {
        const auto& [id, seen] = *it;
        const bool fresh = nowNanos >= seen && nowNanos - seen <= audibleHoldNanos;
        if (contains(hiddenAppIDs, id) || !fresh) {
            it = state.audibleLastSeen.erase(it);
            continue;
        }
        audible.insert(audible.end(), id);
        ++it;
    }
    return audible;
}

BundleIDSet applyLoudnessGuard(SmartTickState& state, SmartTickPlan& plan, const SmartSettings& smart,
                               const std::string& outputName, DeviceLiveStatus::Transport outputTransport,
                               const BundleIDSet& audible) {
    if (!smart.loudnessGuard || !LoudnessGuardPolicy::isProtectedOutput(outputTransport, outputName)) {
        if (state.loudnessGuardWasOn) {
            plan.loudnessGuard = SmartTickPlan::LoudnessGuard{false, 0};
            state.loudnessGuardWasOn = false;
        }
        return {};
    }
    plan.loudnessGuard = SmartTickPlan::LoudnessGuard{true, smart.loudnessGuardCeilingDBFS};
    if (!state.loudnessGuardWasOn) {
        const auto ceiling = std::isfinite(smart.loudnessGuardCeilingDBFS)
                                 ? static_cast<long long>(smart.loudnessGuardCeilingDBFS)
                                 : 0LL;
        plan.logLines.push_back("tonavi: loudness guard ON, ceiling " + std::to_string(ceiling) +
                                " dBFS on headphones");
        state.loudnessGuardWasOn = true;
    }
    return audible;
}

BundleIDSet applyFollowMe(SmartTickState& state, SmartTickPlan& plan, const SmartSettings& smart,
                          const std::function<std::optional<std::string>()>& frontmost,
                          const BundleIDSet& audible) {
    if (!smart.followMe) {
        if (state.followMeHeroLast) {
            plan.followMe = SmartTickPlan::FollowMe{std::nullopt, 1.0};
            state.followMeHeroLast.reset();
        }
        plan.smartProtected.clear();
        return {};
    }
    const std::optional<std::string> front = frontmost ? frontmost() : std::nullopt;
    if (front != state.followMeFrontLast) {
        plan.logLines.push_back("tonavi: follow-me sees frontmost " + front.value_or("nil"));
        state.followMeFrontLast = front;
    }

    BundleIDSet protectedIDs = state.lastCapturingIDs;
    for (const auto& id : audible) {
        if (leavesAlone(smart, id))
            protectedIDs.insert(id);
    }
    BundleIDSet candidates;
    std::set_difference(audible.begin(), audible.end(), protectedIDs.begin(), protectedIDs.end(),
                        std::inserter(candidates, candidates.end()), candidates.key_comp());
    plan.smartProtected = protectedIDs;

    auto hero = FollowMePolicy::hero(front, candidates, state.followMeHeroLast, TonaviTapSafety::mayCapture);
    if (hero != state.followMeHeroLast)
        plan.logLines.push_back("tonavi: follow-me hero -> " + hero.value_or("none"));
    const double percent =
        std::isfinite(smart.followMeBackgroundPercent) ? smart.followMeBackgroundPercent : 100.0;
    const double background = std::clamp(percent / 100.0, 0.0, 1.0);
    plan.followMe = SmartTickPlan::FollowMe{hero, background};
    state.followMeHeroLast = hero;
    // With no hero, or a background that is nearly unity, nobody needs a tap for this.
    if (hero && background < 0.999)
        return candidates;
    return {};
}

BundleIDSet applySoftMaster(SmartTickPlan& plan, const TonaviConfig& config, bool hasHardwareVolume,
                            const BundleIDSet& audible) {
    double gain = 1.0;
    if (!hasHardwareVolume)
        gain = config.softMasterMuted ? 0.0 : config.softMasterPercent / 100.0;
    plan.softMasterGain = gain;
    BundleIDSet needs;
    if (hasHardwareVolume || !(std::abs(gain - 1.0) > 0.0005))
        return needs;
    for (const auto& id : audible) {
        if (!LatencySensitiveAppPolicy::prefersDirectSoftMaster(id))
            needs.insert(needs.end(), id);
    }
    return needs;
}

BundleIDSet applyAutoDuck(SmartTickState& state, SmartTickPlan& plan, const SmartSettings& smart,
                          const std::vector<AutoDuckRule>& duckRules, const BundleIDSet& audible,
                          const BundleIDSet& capturing) {
    if (!smart.autoDuck) {
        if (state.autoDuckWasOn)
            plan.logLines.emplace_back("tonavi: auto-duck released (feature off)");
        state.autoDuckWasOn = false;
        state.lastAutoDuckCount = 0;
        plan.autoDuckApps.clear();
        plan.autoDuckDB = 0;
        plan.activeTriggers.clear();
        return {};
    }
    BundleIDSet triggers;
    for (const auto& rule : duckRules) {
        if (rule.enabled && audible.contains(rule.triggerBundleID))
            triggers.insert(rule.triggerBundleID);
    }
    plan.activeTriggers = triggers;
    BundleIDSet ruleTargets;
    for (const auto& rule : duckRules) {
        if (!rule.enabled || !triggers.contains(rule.triggerBundleID))
            continue;
        for (const auto& id : rule.duckedBundleIDs) {
            if (audible.contains(id))
                ruleTargets.insert(id);
        }
    }

    auto ducked = AutoDuckPolicy::ducked(audible, capturing,
                                         [&](std::string_view id) { return leavesAlone(smart, id); });
    state.lastAutoDuckCount = static_cast<std::int64_t>(ducked.size());
    plan.autoDuckApps = ducked;
    plan.autoDuckDB = ducked.empty() ? 0.0 : smart.autoDuckDepthDB;

    // The edge follows the microphone, not the ducked set: a live mic with nobody to ease still logs.
    const bool micLive = !capturing.empty();
    if (micLive != state.autoDuckWasOn) {
        if (micLive)
            plan.logLines.push_back("tonavi: auto-duck ON, mic live in " + joined(capturing) + "; easing " +
                                    std::to_string(ducked.size()) + " app(s)");
        else
            plan.logLines.emplace_back("tonavi: auto-duck released, mic quiet");
        state.autoDuckWasOn = micLive;
    }
    unite(ducked, ruleTargets);
    return ducked;
}

BundleIDSet listeningNeeds(const TonaviConfig& config, const BundleIDSet& audible) {
    BundleIDSet needs;
    if (!config.globalListening.changesAudio())
        return needs;
    for (const auto& id : audible) {
        if (GlobalListeningPolicy::mayProcess(id, config.app(id), config.hiddenAppIDs, config.smart))
            needs.insert(needs.end(), id);
    }
    return needs;
}

SmartTickPlan plan(SmartTickState& state, const TonaviConfig& config, const SmartTickInputs& inputs) {
    SmartTickPlan result;
    const auto playing = eligible(inputs.playing, config, inputs.runsAsRegularApp);
    const auto audible = stableAudible(state, playing, config.hiddenAppIDs, inputs.nowNanos);
    const auto capturing = eligible(inputs.capturing, config, inputs.runsAsRegularApp);
    // Stored before the features run: a capturing app is protected from Follow-me in this very pass.
    state.lastCapturingIDs = capturing;

    const SmartSettings& smart = config.smart;
    BundleIDSet engage = applyLoudnessGuard(state, result, smart, inputs.defaultOutputName,
                                            inputs.defaultOutputTransport, audible);
    unite(engage, applyFollowMe(state, result, smart, inputs.frontmost, audible));
    unite(engage, applySoftMaster(result, config, inputs.hasHardwareVolume, audible));
    if (inputs.manualDuckDB < 0)
        unite(engage, audible);
    unite(engage, applyAutoDuck(state, result, smart, config.duckRules, audible, capturing));
    unite(engage, listeningNeeds(config, audible));
    if (inputs.soloActive) {
        // A soloed mix needs every other playing app under control in order to silence it.
        for (const auto& id : playing) {
            if (!inputs.soloedBundleIDs.contains(id))
                engage.insert(id);
        }
    }
    result.forceEngaged = std::move(engage);
    return result;
}

std::vector<MicFollowPolicy::InputCandidate> micFollowCandidates(const std::vector<SmartInputDevice>& devices,
                                                                 const TonaviConfig& config) {
    using Transport = DeviceLiveStatus::Transport;
    std::vector<MicFollowPolicy::InputCandidate> candidates;
    for (const auto& device : devices) {
        if (device.inputChannels < 1 || !device.uid || device.uid->empty())
            continue;
        const std::string& uid = *device.uid;
        const bool hidden = std::any_of(config.devices.begin(), config.devices.end(),
                                        [&](const DeviceSettings& s) { return s.id == uid && s.hidden; });
        if (hidden)
            continue;
        // A virtual input is only used by explicit request.
        const bool virtualKind =
            device.transport == Transport::virtual_ || device.transport == Transport::aggregate;
        if (virtualKind && !contains(config.smart.preferredMicUIDs, uid))
            continue;
        candidates.push_back({uid, device.transport, device.relatedUIDs});
    }
    return candidates;
}

std::optional<std::string> micFollowPick(const TonaviConfig& config, bool stageMode,
                                         const std::vector<SmartInputDevice>& devices) {
    if (!config.smart.micFollow || stageMode)
        return std::nullopt;
    BundleIDSet outputOnly;
    for (const auto& memory : config.bluetooth) {
        if (memory.outputOnlyMode)
            outputOnly.insert(memory.id);
    }
    return MicFollowPolicy::pick(micFollowCandidates(devices, config), outputOnly,
                                 config.smart.preferredMicUIDs);
}

std::string micFollowSelectedLine(const std::string& nameOrUID) {
    return "tonavi: mic auto-follow selected " + nameOrUID;
}

SmartLiveStatus liveStatus(const SmartTickState& state, const SmartSettings& smart, const LiveFacts& facts) {
    auto name = [&](const std::string& id) { return facts.displayName ? facts.displayName(id) : id; };
    SmartLiveStatus status;
    status.followMeHeroID = state.followMeHeroLast;
    if (state.followMeHeroLast)
        status.followMeHeroName = name(*state.followMeHeroLast);
    status.loudnessGuardActive = state.loudnessGuardWasOn;
    if (state.loudnessGuardWasOn)
        status.loudnessGuardOutputName = facts.defaultOutputName;
    status.autoDuckActive = state.lastAutoDuckCount > 0;
    status.autoDuckCount = state.lastAutoDuckCount;
    for (const auto& id : state.lastCapturingIDs) // already in ID order
        status.autoDuckMicNames.push_back(name(id));
    if (smart.micFollow)
        status.micFollowName = facts.defaultInputName;
    return status;
}

} // namespace tonavi::SmartTickPolicy
