#pragma once
// Constants and pure rules of the trail of what just made a sound.

#include "core/smart/BundleIDSet.hpp"
#include "core/wire/AudioOnset.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace tonavi::AudioOnsetPolicy {

// How long the client treats an onset as just happened, in seconds.
inline constexpr double attentionWindow = 12.0;
// How far back the trail reaches, in seconds.
inline constexpr double trailWindow = 300.0;
// Stored events live a little longer than the trail shows them, so rounding loses nothing.
inline constexpr double retentionWindow = trailWindow + 2.0;
// The process that plays the system's alert sounds.
inline constexpr std::string_view alertSourceID = "systemsoundserverd";
// The single key under which alerts are stored.
inline constexpr std::string_view alertOnsetID = "alert:macos";

// `current` minus `previous`.
BundleIDSet newPlaying(const BundleIDSet& previous, const BundleIDSet& current);
// The events at most `trailWindow` old at `now`, newest first; equal times keep their order.
std::vector<AudioOnset> trail(std::vector<AudioOnset> onsets, double now);
// "Ns ago" (at least 1, negative counts as 0), "Nm ago" from a minute, "Nh ago" from an hour.
std::string agoText(double seconds);

} // namespace tonavi::AudioOnsetPolicy
