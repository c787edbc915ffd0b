#include "audio/effects/EQ10Settings.hpp"

#include <algorithm>
#include <cmath>

namespace kavore {

namespace {
double clampGain(double db) {
    if (!std::isfinite(db))
        return 0.0;
    return std::clamp(db, -12.0, 12.0);
}
} // namespace

EQ10Settings::EQ10Settings(const std::vector<double>& gains, double preamp, bool enabled_)
    : preampDB(clampGain(preamp)), enabled(enabled_) {
    for (std::size_t i = 0; i < bandCount && i < gains.size(); ++i)
        bandGainsDB[i] = clampGain(gains[i]);
}

bool EQ10Settings::isNeutral() const {
    if (std::fabs(preampDB) >= 0.01)
        return false;
    return std::all_of(bandGainsDB.begin(), bandGainsDB.end(), [](double g) { return std::fabs(g) < 0.01; });
}

} // namespace kavore
