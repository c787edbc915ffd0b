#pragma once
// Turns a client's text (a UID, a name or a nickname, or part of one) into a device UID.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/outputs/AudioEndpointRole.hpp"
#include "core/wire/DeviceLiveStatus.hpp"

namespace tonavi::AudioEndpointResolver {

// Strict passes: an exact UID anywhere beats a name match on an earlier device, and a whole name
// or nickname (ignoring case) beats a part of one.
std::optional<std::string> resolve(std::string_view text, const std::vector<DeviceLiveStatus>& devices,
                                   AudioEndpointRole role);

} // namespace tonavi::AudioEndpointResolver
