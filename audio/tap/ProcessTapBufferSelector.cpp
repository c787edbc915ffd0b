#include "audio/tap/ProcessTapBufferSelector.hpp"

#include <algorithm>

namespace kavore::ProcessTapBufferSelector {

std::optional<std::size_t> index(std::span<const int> channelCounts) {
    for (std::size_t i = channelCounts.size(); i-- > 0;) {
        if (channelCounts[i] == 2) {
            return i;
        }
    }
    for (std::size_t i = channelCounts.size(); i-- > 0;) {
        if (channelCounts[i] >= 1) {
            return i;
        }
    }
    return std::nullopt;
}

std::vector<std::uint32_t> inputStreamUsage(std::span<const int> channelCounts) {
    std::vector<std::uint32_t> usage(channelCounts.size(), 0);
    if (const auto found = index(channelCounts)) {
        usage[*found] = 1;
    }
    return usage;
}

int preferredFrameSize(int minimum, int maximum, int target) {
    if (minimum < 1 || maximum < minimum) {
        return target;
    }
    return std::clamp(target, minimum, maximum);
}

} // namespace kavore::ProcessTapBufferSelector
