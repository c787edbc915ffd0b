#pragma once
// What the smart pass remembers from one pass to the next. Owned by the runtime, on its serial queue.

#include "core/smart/BundleIDSet.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace tonavi {

struct SmartTickState {
    // Uptime in nanoseconds at which each app was last heard: the hold-over of the audible set.
    std::map<std::string, std::uint64_t, std::less<>> audibleLastSeen;
    // Capturing apps of the latest pass.
    BundleIDSet lastCapturingIDs;
    std::optional<std::string> followMeHeroLast;
    // The frontmost app last logged; starts as a value no app has, so the first pass logs.
    std::optional<std::string> followMeFrontLast = std::string("unset");
    bool loudnessGuardWasOn = false;
    bool autoDuckWasOn = false;
    std::int64_t lastAutoDuckCount = 0;
    std::optional<std::string> micFollowLastPick;

    bool operator==(const SmartTickState&) const = default;
};

} // namespace tonavi
