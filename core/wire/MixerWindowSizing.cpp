#include "core/wire/MixerWindowSizing.hpp"

#include <algorithm>

namespace tonavi::MixerWindowSizing {

namespace {

constexpr double minWidth = 500;
constexpr double minHeight = 420;
constexpr double maxExtent = 1100;

} // namespace

Size constrained(Size size, Size available) {
    return {std::min(std::max(size.width, minWidth), std::clamp(available.width, minWidth, maxExtent)),
            std::min(std::max(size.height, minHeight), std::clamp(available.height, minHeight, maxExtent))};
}

Size fittedRows(int rows, Size available, bool compact) {
    const bool narrow = compact || available.width < 1050;
    const double width = std::min(std::clamp(available.width, minWidth, maxExtent), narrow ? 640.0 : 960.0);
    const double rowHeight = narrow ? 100 : 52;
    const double wanted = rowHeight * std::max(rows, 1) + 360;
    const double height =
        std::max(std::min(std::clamp(available.height, minHeight, maxExtent), wanted), minHeight);
    return {width, height};
}

} // namespace tonavi::MixerWindowSizing
