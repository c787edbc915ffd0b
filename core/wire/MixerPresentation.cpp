#include "core/wire/MixerPresentation.hpp"

#include <algorithm>
#include <cmath>

namespace tonavi::MixerPresentation {

int meterSegments(float level) {
    if (!std::isfinite(level))
        return 0;
    return static_cast<int>(std::floor(std::clamp(level, 0.0f, 1.0f) * 10.0f));
}

} // namespace tonavi::MixerPresentation
