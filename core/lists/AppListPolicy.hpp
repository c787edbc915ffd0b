#pragma once
// How the client's lists of applications are filtered and ordered. Pure: records in, records out.

#include "core/wire/AppLiveStatus.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace tonavi::AppListPolicy {

// Apps that take the microphone or the camera and never play: listed only while they capture.
bool isCaptureOnly(std::string_view bundleID);

// Stable: display rank ascending with no rank last, then the name ignoring case, then the ID.
void order(std::vector<AppLiveStatus>& apps);

// Keeps the user's full order when only part of it is on screen: the IDs of `existing` without
// duplicates, the visible ones among them placed in the order of `visible` in the positions that
// visible IDs held, and new visible IDs appended.
std::vector<std::string> mergingVisibleOrder(const std::vector<std::string>& existing,
                                             const std::vector<std::string>& visible);

} // namespace tonavi::AppListPolicy
