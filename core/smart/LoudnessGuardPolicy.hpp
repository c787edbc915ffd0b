#pragma once
// Which outputs the loudness ceiling protects: those worn on the ears.

#include "core/wire/DeviceLiveStatus.hpp"

#include <string_view>

namespace tonavi::LoudnessGuardPolicy {

// Bluetooth, or a name that says headphones. Brand words such as "bose" and "jbl" also name
// loudspeakers, so they do not count here.
bool isProtectedOutput(DeviceLiveStatus::Transport transport, std::string_view name);

} // namespace tonavi::LoudnessGuardPolicy
