#include "audio/primitives/LatencyMath.hpp"

namespace kavore::LatencyMath {

double ms(std::int64_t samples, double sampleRate) {
    if (!(sampleRate > 0.0))
        return 0.0;
    return static_cast<double>(samples) / sampleRate * 1000.0;
}

} // namespace kavore::LatencyMath
