#pragma once
// Which audible app is the hero that Follow-me leaves at full level while the others are lowered.

#include "core/smart/BundleIDSet.hpp"

#include <optional>
#include <string>

namespace tonavi::FollowMePolicy {

// The frontmost app if it may be tapped and is audible; else the previous hero while it still
// sounds, so that clicking into a silent app does not dim the music; else none. `mayCapture` is asked
// about the frontmost app only.
std::optional<std::string> hero(const std::optional<std::string>& frontmost, const BundleIDSet& audible,
                                const std::optional<std::string>& held, const BundleIDPredicate& mayCapture);

} // namespace tonavi::FollowMePolicy
