#pragma once
// The engine instructions and log lines that one smart pass decided. The runtime carries them out in
// the order of the fields, then writes the lines in their order.

#include "core/smart/BundleIDSet.hpp"

#include <optional>
#include <string>
#include <vector>

namespace tonavi {

struct SmartTickPlan {
    struct LoudnessGuard {
        bool active = false;
        double ceilingDBFS = 0;
        bool operator==(const LoudnessGuard&) const = default;
    };
    struct FollowMe {
        std::optional<std::string> hero;
        double background = 1.0;
        bool operator==(const FollowMe&) const = default;
    };

    // setLoudnessGuard(active:ceilingDBFS:), only when the engine needs telling.
    std::optional<LoudnessGuard> loudnessGuard;
    // setSmartProtected, every pass.
    BundleIDSet smartProtected;
    // setFollowMe(hero:background:), only when the engine needs telling.
    std::optional<FollowMe> followMe;
    // setSoftMasterGain, every pass.
    double softMasterGain = 1.0;
    // setActiveTriggers, every pass.
    BundleIDSet activeTriggers;
    // setAutoDuck(apps:db:), every pass.
    BundleIDSet autoDuckApps;
    double autoDuckDB = 0;
    // setForceEngaged(_, names: empty), every pass: the union of every feature's needs.
    BundleIDSet forceEngaged;
    std::vector<std::string> logLines;

    bool operator==(const SmartTickPlan&) const = default;
};

} // namespace tonavi
