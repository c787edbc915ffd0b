#pragma once
// Which apps may get a new tap because they really played, and which are held back because they
// play digital silence. An app that reports running output without making a sound (a paused
// browser tab) would be tapped again by the next snapshot after its idle tap was released; it is
// held back until it has stopped playing once. A plain value owned by the runtime's queue.

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/config/AppAudioState.hpp"

namespace tonavi {

class OutputEligibility {
  public:
    using IDSet = std::set<std::string, std::less<>>;

    // A running-output edge of one of `owner`'s processes (the fast path). False when the app is
    // held back; otherwise it becomes eligible and the caller records the onset and reconciles.
    bool noteRunningOutput(const std::string& owner);
    // After each snapshot: a held-back app that stopped playing is forgiven, the others that play
    // become eligible, and so does every app that holds a tap, so a live tap never loses it here.
    void publish(const IDSet& playing, const std::vector<std::string>& engaged);
    // An idle tap was released: the app loses eligibility, and is held back if it still "plays".
    void releaseIdle(const std::string& bundleID, bool playing);
    // A row that needs a tap without sound makes the app eligible at once; a row without that need
    // leaves it eligible only while it plays.
    void noteRowChanged(const std::string& bundleID, bool standingNeed, bool playing);
    // The app's processes are gone, or the user hid it: nothing of it is kept.
    void forget(const std::string& bundleID);

    // What the engine's creation eligibility is set to.
    IDSet creationEligibility(const IDSet& standingControl) const;

    // Apps with a need for a tap that exists without sound: rows that ask for control, and rows
    // that keep a mute while direct; during solo also every audible app that is not soloed, since
    // it must be silenced.
    static IDSet standingControl(const std::vector<AppAudioState>& apps, const std::optional<IDSet>& soloed,
                                 const IDSet& audibleNow);
    static bool hasStandingNeed(const AppAudioState& app);

    const IDSet& outputEligible() const { return outputEligible_; }
    const IDSet& outputSuppressedUntilPlaybackStops() const { return suppressed_; }

  private:
    IDSet outputEligible_;
    IDSet suppressed_;
};

} // namespace tonavi
