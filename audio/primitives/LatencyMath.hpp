#pragma once
// Converts a latency in samples to milliseconds for display and status.

#include <cstdint>

namespace kavore::LatencyMath {

// 0 when the rate is not positive.
double ms(std::int64_t samples, double sampleRate);

} // namespace kavore::LatencyMath
