#pragma once
// What an output looks like to a tap bound to it: a change in any field means the tap must be rebuilt.

#include <cstdint>

namespace tonavi {

struct OutputRouteSignature {
    std::uint32_t objectID = 0;
    double sampleRate = 0;
    std::int64_t channels = 0;
    bool alive = false;

    bool operator==(const OutputRouteSignature&) const = default;
};

} // namespace tonavi
