#pragma once
// The decisions of the smart pass, on plain values: which apps are audible and capturing, what each
// of the four automations tells the engine, and which apps must be tapped for it to have any effect.
// The runtime gathers the inputs, calls `plan`, carries out the plan, then runs Mic follow with
// `micFollowPick` and syncs the tap states.

#include "core/config/TonaviConfig.hpp"
#include "core/smart/BundleIDSet.hpp"
#include "core/smart/MicFollowPolicy.hpp"
#include "core/smart/SmartInputDevice.hpp"
#include "core/smart/SmartTickInputs.hpp"
#include "core/smart/SmartTickPlan.hpp"
#include "core/smart/SmartTickState.hpp"
#include "core/wire/DeviceLiveStatus.hpp"
#include "core/wire/SmartLiveStatus.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi::SmartTickPolicy {

// An app stays audible this long after it was last heard, in nanoseconds.
inline constexpr std::uint64_t audibleHoldNanos = 2'500'000'000;

// Exempt from Follow-me and Auto-duck: listed exactly, or a music tool while those are protected.
bool leavesAlone(const SmartSettings& smart, std::string_view bundleID);

// The IDs that may be tapped, are not hidden, and are known audio apps, configured, or regular
// running apps: a background agent that nobody ever configured is not touched.
BundleIDSet eligible(const BundleIDSet& ids, const TonaviConfig& config,
                     const BundleIDPredicate& runsAsRegularApp);

// Smooths activity that flickers between packets: records `current` as heard now, forgets hidden
// apps and those silent for longer than the hold, and returns the rest.
BundleIDSet stableAudible(SmartTickState& state, const BundleIDSet& current,
                          const std::vector<std::string>& hiddenAppIDs, std::uint64_t nowNanos);

// Each feature step records its engine instructions and log lines in `plan`, updates its edges in
// `state`, and returns the apps it needs engaged.
BundleIDSet applyLoudnessGuard(SmartTickState& state, SmartTickPlan& plan, const SmartSettings& smart,
                               const std::string& outputName, DeviceLiveStatus::Transport outputTransport,
                               const BundleIDSet& audible);
// Reads `state.lastCapturingIDs`, so the capturing set must be stored first.
BundleIDSet applyFollowMe(SmartTickState& state, SmartTickPlan& plan, const SmartSettings& smart,
                          const std::function<std::optional<std::string>()>& frontmost,
                          const BundleIDSet& audible);
BundleIDSet applySoftMaster(SmartTickPlan& plan, const TonaviConfig& config, bool hasHardwareVolume,
                            const BundleIDSet& audible);
BundleIDSet applyAutoDuck(SmartTickState& state, SmartTickPlan& plan, const SmartSettings& smart,
                          const std::vector<AutoDuckRule>& duckRules, const BundleIDSet& audible,
                          const BundleIDSet& capturing);
// The audible apps that global listening changes, when it changes anything.
BundleIDSet listeningNeeds(const TonaviConfig& config, const BundleIDSet& audible);

// The whole pass but Mic follow, in the order the features must run.
SmartTickPlan plan(SmartTickState& state, const TonaviConfig& config, const SmartTickInputs& inputs);

// Mic follow's candidates: devices with an input channel and a UID, not hidden by the user; virtual
// and aggregate inputs only when the user prefers them by UID.
std::vector<MicFollowPolicy::InputCandidate> micFollowCandidates(const std::vector<SmartInputDevice>& devices,
                                                                 const TonaviConfig& config);
// The input Mic follow wants as default, or none: off, stage mode (a stage setup must not change
// under a performer), or nothing suitable.
std::optional<std::string> micFollowPick(const TonaviConfig& config, bool stageMode,
                                         const std::vector<SmartInputDevice>& devices);
std::string micFollowSelectedLine(const std::string& nameOrUID);

// What the automations are doing, for the status record.
struct LiveFacts {
    std::string defaultOutputName;
    std::optional<std::string> defaultInputName;
    std::function<std::string(const std::string&)> displayName;
};
SmartLiveStatus liveStatus(const SmartTickState& state, const SmartSettings& smart, const LiveFacts& facts);

} // namespace tonavi::SmartTickPolicy
