#include "audio/primitives/VolumeLaw.hpp"

#include <cmath>
#include <cstdio>

namespace kavore::VolumeLaw {

double gain(double fromFader) {
    const double f = fromFader;
    if (!(f > 0.0)) {
        return 0.0;
    }
    if (f >= 1.0) {
        return 1.0;
    }
    return f * f;
}

double fader(double fromGain) {
    const double g = fromGain;
    if (!(g > 0.0)) {
        return 0.0;
    }
    if (g >= 1.0) {
        return 1.0;
    }
    return std::sqrt(g);
}

double db(double fromFader) {
    const double f = fromFader;
    if (!(f > 0.0) || f * f == 0.0) {
        return -120.0;
    }
    return 20.0 * std::log10(gain(f));
}

std::string displayDB(double fromFader) {
    if (!(fromFader > 0.0)) {
        return "\u2212\u221E dB";
    }
    double value = db(fromFader);
    if (std::abs(value) < 0.05) {
        value = 0.0;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f dB", value);
    return text;
}

} // namespace kavore::VolumeLaw
