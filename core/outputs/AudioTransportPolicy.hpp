#pragma once
// What a device's transport implies for timing.

#include "core/wire/DeviceLiveStatus.hpp"

namespace tonavi::AudioTransportPolicy {

// Wireless links, aggregates and virtual devices negotiate their own timing (rate, buffer size),
// which the service must leave alone.
bool preservesNegotiatedTiming(DeviceLiveStatus::Transport transport);

} // namespace tonavi::AudioTransportPolicy
