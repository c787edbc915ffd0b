#include "service/taps/OutputEligibility.hpp"

#include "core/engine/EngagementEngine.hpp"

namespace tonavi {

bool OutputEligibility::noteRunningOutput(const std::string& owner) {
    if (suppressed_.count(owner))
        return false;
    outputEligible_.insert(owner);
    return true;
}

void OutputEligibility::publish(const IDSet& playing, const std::vector<std::string>& engaged) {
    std::erase_if(suppressed_, [&](const std::string& id) { return !playing.count(id); });
    for (const auto& id : playing)
        if (!suppressed_.count(id))
            outputEligible_.insert(id);
    outputEligible_.insert(engaged.begin(), engaged.end());
}

void OutputEligibility::releaseIdle(const std::string& bundleID, bool playing) {
    outputEligible_.erase(bundleID);
    if (playing)
        suppressed_.insert(bundleID);
}

void OutputEligibility::noteRowChanged(const std::string& bundleID, bool standingNeed, bool playing) {
    if (standingNeed)
        outputEligible_.insert(bundleID);
    else if (!playing)
        outputEligible_.erase(bundleID);
}

void OutputEligibility::forget(const std::string& bundleID) {
    outputEligible_.erase(bundleID);
    suppressed_.erase(bundleID);
}

OutputEligibility::IDSet OutputEligibility::creationEligibility(const IDSet& standingControl) const {
    IDSet joined = outputEligible_;
    joined.insert(standingControl.begin(), standingControl.end());
    return joined;
}

OutputEligibility::IDSet
OutputEligibility::standingControl(const std::vector<AppAudioState>& apps, const std::optional<IDSet>& soloed,
                                   const IDSet& audibleNow) {
    IDSet standing;
    for (const auto& app : apps)
        if (hasStandingNeed(app))
            standing.insert(app.id);
    if (soloed)
        for (const auto& id : audibleNow)
            if (!soloed->count(id))
                standing.insert(id);
    return standing;
}

bool OutputEligibility::hasStandingNeed(const AppAudioState& app) {
    return EngagementEngine::isEngaged(app) || (app.directLocked && app.muteWhileBypassed);
}

} // namespace tonavi
