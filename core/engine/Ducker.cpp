#include "core/engine/Ducker.hpp"

#include "core/engine/GainMath.hpp"

#include <algorithm>
#include <cmath>

namespace tonavi {

namespace {

bool names(const AutoDuckRule& rule, std::string_view bundleID) {
    return std::find(rule.duckedBundleIDs.begin(), rule.duckedBundleIDs.end(), bundleID) !=
           rule.duckedBundleIDs.end();
}

// Depth of a rule that names no app at all; only a guard, since the IDs come from the rules.
constexpr double fallbackDepthDB = -20.0;
constexpr double fallbackRecoverySeconds = 0.9;
constexpr double attackSeconds = 0.08;

} // namespace

Ducker::Ducker(std::vector<AutoDuckRule> rules, double sampleRate)
    : rules_(std::move(rules)), sampleRate_(sampleRate) {
    for (const auto& rule : rules_)
        duckedIDs_.insert(duckedIDs_.end(), rule.duckedBundleIDs.begin(), rule.duckedBundleIDs.end());
    std::sort(duckedIDs_.begin(), duckedIDs_.end());
    duckedIDs_.erase(std::unique(duckedIDs_.begin(), duckedIDs_.end()), duckedIDs_.end());
    gains_.assign(duckedIDs_.size(), std::nullopt);
}

void Ducker::setActiveTriggers(std::set<std::string, std::less<>> triggers) {
    activeTriggers_ = std::move(triggers);
}

std::ptrdiff_t Ducker::indexOf(std::string_view bundleID) const {
    auto it = std::lower_bound(duckedIDs_.begin(), duckedIDs_.end(), bundleID,
                               [](const std::string& a, std::string_view b) { return a < b; });
    if (it == duckedIDs_.end() || *it != bundleID)
        return -1;
    return it - duckedIDs_.begin();
}

double Ducker::currentGain(std::string_view bundleID) const {
    const auto index = indexOf(bundleID);
    if (index < 0)
        return 1.0;
    return gains_[static_cast<std::size_t>(index)].value_or(1.0);
}

bool Ducker::hasGainEntry(std::string_view bundleID) const {
    const auto index = indexOf(bundleID);
    return index >= 0 && gains_[static_cast<std::size_t>(index)].has_value();
}

double Ducker::targetGain(std::string_view bundleID) const {
    double gain = 1.0;
    for (const auto& rule : rules_) {
        if (!rule.enabled || !activeTriggers_.contains(rule.triggerBundleID) || !names(rule, bundleID))
            continue;
        gain = std::min(gain, linearFromDB(rule.duckDB));
    }
    return gain;
}

void Ducker::advance(double frameCount) {
    const double frames = frameCount > 0 ? frameCount : 0.0;
    for (std::size_t i = 0; i < duckedIDs_.size(); ++i) {
        const std::string& id = duckedIDs_[i];
        const double target = targetGain(id);
        const double current = gains_[i].value_or(1.0);
        if (std::abs(target - current) < 1e-9) {
            gains_[i] = target;
            continue;
        }
        // The first rule naming the app sets range and recovery, whether it is enabled or not, so
        // a rule disabled mid-duck still brings its app back at its own pace.
        const AutoDuckRule* owner = nullptr;
        for (const auto& rule : rules_) {
            if (names(rule, id)) {
                owner = &rule;
                break;
            }
        }
        const double depthDB = owner ? owner->duckDB : fallbackDepthDB;
        const double range = std::max(1.0 - linearFromDB(depthDB), 1e-6);
        const bool goingDown = target < current;
        const double seconds =
            goingDown ? attackSeconds : (owner ? owner->recoveryMS * 0.001 : fallbackRecoverySeconds);
        const double durationFrames = seconds * sampleRate_;
        const double step = durationFrames < 1.0 ? range * frames : range * frames / durationFrames;
        gains_[i] = goingDown ? std::max(current - step, target) : std::min(current + step, target);
    }
}

void Ducker::advance(long long frames, double hostTimeSeconds) {
    const double count = frames > 0 ? static_cast<double>(frames) : 0.0;
    if (!std::isfinite(hostTimeSeconds)) {
        advance(count);
        return;
    }
    if (!lastHostTimeSeconds_) {
        lastHostTimeSeconds_ = hostTimeSeconds;
        advance(count);
        return;
    }
    if (!(*lastHostTimeSeconds_ < hostTimeSeconds))
        return;
    const double elapsedFrames = (hostTimeSeconds - *lastHostTimeSeconds_) * sampleRate_;
    advance(std::min(count, elapsedFrames));
    lastHostTimeSeconds_ = hostTimeSeconds;
}

} // namespace tonavi
