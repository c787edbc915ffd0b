#pragma once
// The in-memory trail of when each app began to sound, when an alert played and when the output
// moved: the latest event per ID. Owned by the runtime and used on its serial queue only; it holds no
// lock and reads no clock or platform: time and the frontmost app are handed in.

#include "core/smart/BundleIDSet.hpp"
#include "core/wire/AudioOnset.hpp"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tonavi {

class AudioOnsetTrail {
  public:
    // Asked only when an alert needs the app in front: the last activation seen, else the front window.
    using FrontmostSource = std::function<std::optional<std::string>()>;

    // One audio snapshot's playing set. The first call is a baseline: apps already playing at start
    // are not onsets. Returns the log lines to write.
    std::vector<std::string> recordPlaybackOnsets(const BundleIDSet& current, double now,
                                                  const FrontmostSource& frontmost);
    // An app began to sound; the alert player is stored once, under the alert key, with the app in
    // front. Returns the log line to write, if any.
    std::optional<std::string> noteSoundOnset(const std::string& id, double now,
                                              const FrontmostSource& frontmost);
    void noteOutputMove(const std::string& uid, const std::string& name, double now);
    // An app whose processes have all exited leaves the trail.
    void forget(std::string_view id) {
        if (auto it = events_.find(id); it != events_.end())
            events_.erase(it);
    }
    // The trail as shown: alerts, output moves, and apps the user has not hidden, newest first.
    std::vector<AudioOnset> currentAudioOnsets(const std::vector<std::string>& hiddenAppIDs,
                                               double now) const;

    // Everything stored, hidden apps included, for inspection.
    const std::map<std::string, AudioOnset, std::less<>>& events() const { return events_; }

  private:
    void prune(double now);

    std::map<std::string, AudioOnset, std::less<>> events_;
    bool playingSeeded_ = false;
    BundleIDSet previouslyPlaying_;
};

} // namespace tonavi
