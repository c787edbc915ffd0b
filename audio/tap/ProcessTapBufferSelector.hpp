#pragma once
// Finds the process tap's stream among an aggregate device's input streams, and picks an IO
// buffer size within a device's allowed range.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kavore::ProcessTapBufferSelector {

// The last stream with exactly two channels (the stereo tap follows any device inputs); failing
// that, the last stream with at least one channel; nothing when no stream has a channel.
std::optional<std::size_t> index(std::span<const int> channelCounts);

// One flag per stream enabling only the tap's stream; all zero when there is none.
std::vector<std::uint32_t> inputStreamUsage(std::span<const int> channelCounts);

// target clamped to minimum...maximum, unless the range is unknown (minimum below 1) or inverted.
int preferredFrameSize(int minimum, int maximum, int target);

} // namespace kavore::ProcessTapBufferSelector
