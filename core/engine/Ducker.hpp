#pragma once
// Per-app gains of the app-to-app ducking rules. When a trigger app is active, the apps its rules
// name ramp down linearly; when it stops they ramp back over the rule's recovery time. The ramp
// advances with rendered frames, so it needs no timer. No lock of its own: the engine's lock
// guards every access.

#include "core/config/AutoDuckRule.hpp"

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi {

class Ducker {
  public:
    Ducker(std::vector<AutoDuckRule> rules, double sampleRate);

    const std::vector<AutoDuckRule>& rules() const { return rules_; }
    double sampleRate() const { return sampleRate_; }

    // Replaces the active triggers. No ramp moves here.
    void setActiveTriggers(std::set<std::string, std::less<>> triggers);
    const std::set<std::string, std::less<>>& currentActiveTriggers() const { return activeTriggers_; }

    // The present gain, 1.0 for an app without an entry.
    double currentGain(std::string_view bundleID) const;
    // Whether the app has a gain entry at all (only apps named by a rule ever get one).
    bool hasGainEntry(std::string_view bundleID) const;
    // The deepest depth among enabled rules with an active trigger that name the app.
    double targetGain(std::string_view bundleID) const;

    // Moves every named app's gain towards its target by `frameCount` frames of audio.
    // Allocation-free: it runs on the audio thread.
    void advance(double frameCount);
    // As above, but guarded by host time: a second call within the same IO cycle, or a clock that
    // repeats or runs backward, moves nothing.
    void advance(long long frames, double hostTimeSeconds);

    std::optional<double> lastHostTimeSeconds() const { return lastHostTimeSeconds_; }

  private:
    std::vector<AutoDuckRule> rules_;
    double sampleRate_;
    std::set<std::string, std::less<>> activeTriggers_;
    // The distinct IDs named by any rule, sorted, and their gains in the same order. The slots are
    // made at construction so the audio thread never allocates; an empty slot is a missing entry.
    std::vector<std::string> duckedIDs_;
    std::vector<std::optional<double>> gains_;
    std::optional<double> lastHostTimeSeconds_;

    std::ptrdiff_t indexOf(std::string_view bundleID) const;
};

} // namespace tonavi
