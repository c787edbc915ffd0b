#pragma once
// Who receives the user-wide listening treatment. Allocation-free: the render path asks it every
// cycle.

#include "core/config/AppAudioState.hpp"
#include "core/config/SmartSettings.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace tonavi::GlobalListeningPolicy {

// `app` may be null when the app has no row.
bool mayProcess(std::string_view bundleID, const AppAudioState* app,
                const std::vector<std::string>& hiddenAppIDs, const SmartSettings& smart);

} // namespace tonavi::GlobalListeningPolicy
