#pragma once
// How the client's lists of devices are ordered. Pure: records in, records out.

#include "core/wire/DeviceLiveStatus.hpp"

#include <vector>

namespace tonavi::DeviceListPolicy {

// Stable: display rank ascending with no rank last, then the name ignoring case, then the UID.
std::vector<DeviceLiveStatus> ordered(std::vector<DeviceLiveStatus> devices);

// The devices used most, for a "frequently used" shortcut list: visible, not the current default
// output, used at least once; most used first, then the one used last, then by name. A limit below 1
// gives none.
std::vector<DeviceLiveStatus> frequentlyUsed(const std::vector<DeviceLiveStatus>& devices, int limit);

} // namespace tonavi::DeviceListPolicy
