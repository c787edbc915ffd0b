#include "service/taps/TapActivityWindow.hpp"

#include <cmath>

namespace tonavi::TapActivityWindow {

namespace {
double reference(double lastRawAudioAt, double createdAt) {
    return lastRawAudioAt > 0 ? lastRawAudioAt : createdAt;
}
} // namespace

std::optional<bool> recentSignal(double lastRawAudioAt, double createdAt, double lastIOAt, double now,
                                 double within) {
    if (!std::isfinite(lastRawAudioAt) || !std::isfinite(createdAt) || !std::isfinite(lastIOAt) ||
        !std::isfinite(now))
        return std::nullopt;
    return !(now - reference(lastRawAudioAt, createdAt) > within);
}

bool isRawAudioInactive(double lastRawAudioAt, double createdAt, double now, double olderThan) {
    return now - reference(lastRawAudioAt, createdAt) > olderThan;
}

} // namespace tonavi::TapActivityWindow
