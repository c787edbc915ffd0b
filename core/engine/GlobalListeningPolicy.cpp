#include "core/engine/GlobalListeningPolicy.hpp"

#include "core/engine/EngagementEngine.hpp"
#include "core/engine/LatencySensitiveAppPolicy.hpp"
#include "core/engine/TonaviTapSafety.hpp"

#include <algorithm>

namespace tonavi::GlobalListeningPolicy {

namespace {

bool contains(const std::vector<std::string>& list, std::string_view id) {
    return std::find(list.begin(), list.end(), id) != list.end();
}

} // namespace

bool mayProcess(std::string_view bundleID, const AppAudioState* app,
                const std::vector<std::string>& hiddenAppIDs, const SmartSettings& smart) {
    if (!TonaviTapSafety::mayCapture(bundleID))
        return false;
    if (contains(hiddenAppIDs, bundleID))
        return false;
    if (contains(smart.leaveAloneBundleIDs, bundleID))
        return false;
    const bool latencySensitive = LatencySensitiveAppPolicy::prefersDirectSoftMaster(bundleID);
    if (smart.protectMusicApps && latencySensitive)
        return false;
    if (app && (app->directLocked || app->chain.bypassed))
        return false;
    if (!latencySensitive)
        return true;
    // A latency-sensitive app gets the treatment only when the user asked for control.
    return app && EngagementEngine::isEngaged(*app);
}

} // namespace tonavi::GlobalListeningPolicy
