#include "audio/primitives/Biquad.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace kavore {

namespace {

// Gains this close to 0 dB are treated as flat, so a neutral band costs nothing audible.
constexpr double minimumGainDB = 0.01;

struct Angles {
    double cosw;
    double alpha;
};

Angles anglesFor(double frequency, double sampleRate, double q) {
    const double w = 2.0 * std::numbers::pi * frequency / sampleRate;
    return {std::cos(w), std::sin(w) / (2.0 * q)};
}

bool gainDesignApplies(double freqHz, double sampleRate, double gainDB) {
    return std::abs(gainDB) > minimumGainDB && freqHz > 0.0 && sampleRate > 0.0;
}

void assign(Biquad& f, double a0, double b0, double b1, double b2, double a1, double a2) {
    f.b0 = b0 / a0;
    f.b1 = b1 / a0;
    f.b2 = b2 / a0;
    f.a1 = a1 / a0;
    f.a2 = a2 / a0;
}

} // namespace

void Biquad::setPassthrough() {
    b0 = 1.0;
    b1 = 0.0;
    b2 = 0.0;
    a1 = 0.0;
    a2 = 0.0;
}

void Biquad::setLowpass(double cutoffHz, double sampleRate, double q) {
    if (!(cutoffHz > 0.0 && sampleRate > 0.0)) {
        setPassthrough();
        return;
    }
    const double cutoff = std::min(cutoffHz, 0.45 * sampleRate);
    const auto [cosw, alpha] = anglesFor(cutoff, sampleRate, q);
    assign(*this, 1.0 + alpha, (1.0 - cosw) / 2.0, 1.0 - cosw, (1.0 - cosw) / 2.0, -2.0 * cosw, 1.0 - alpha);
}

void Biquad::setHighpass(double cutoffHz, double sampleRate, double q) {
    if (!(cutoffHz > 0.0 && sampleRate > 0.0)) {
        setPassthrough();
        return;
    }
    const auto [cosw, alpha] = anglesFor(cutoffHz, sampleRate, q);
    assign(*this, 1.0 + alpha, (1.0 + cosw) / 2.0, -(1.0 + cosw), (1.0 + cosw) / 2.0, -2.0 * cosw,
           1.0 - alpha);
}

void Biquad::setPeaking(double freqHz, double sampleRate, double gainDB, double q) {
    if (!gainDesignApplies(freqHz, sampleRate, gainDB)) {
        setPassthrough();
        return;
    }
    const double A = std::pow(10.0, gainDB / 40.0);
    const auto [cosw, alpha] = anglesFor(freqHz, sampleRate, q);
    assign(*this, 1.0 + alpha / A, 1.0 + alpha * A, -2.0 * cosw, 1.0 - alpha * A, -2.0 * cosw,
           1.0 - alpha / A);
}

void Biquad::setLowShelf(double freqHz, double sampleRate, double gainDB, double q) {
    if (!gainDesignApplies(freqHz, sampleRate, gainDB)) {
        setPassthrough();
        return;
    }
    const double A = std::pow(10.0, gainDB / 40.0);
    const auto [cosw, alpha] = anglesFor(freqHz, sampleRate, q);
    const double k = 2.0 * std::sqrt(A) * alpha;
    assign(*this, (A + 1.0) + (A - 1.0) * cosw + k, A * ((A + 1.0) - (A - 1.0) * cosw + k),
           2.0 * A * ((A - 1.0) - (A + 1.0) * cosw), A * ((A + 1.0) - (A - 1.0) * cosw - k),
           -2.0 * ((A - 1.0) + (A + 1.0) * cosw), (A + 1.0) + (A - 1.0) * cosw - k);
}

void Biquad::setHighShelf(double freqHz, double sampleRate, double gainDB, double q) {
    if (!gainDesignApplies(freqHz, sampleRate, gainDB)) {
        setPassthrough();
        return;
    }
    const double A = std::pow(10.0, gainDB / 40.0);
    const auto [cosw, alpha] = anglesFor(freqHz, sampleRate, q);
    const double k = 2.0 * std::sqrt(A) * alpha;
    assign(*this, (A + 1.0) - (A - 1.0) * cosw + k, A * ((A + 1.0) + (A - 1.0) * cosw + k),
           -2.0 * A * ((A - 1.0) + (A + 1.0) * cosw), A * ((A + 1.0) + (A - 1.0) * cosw - k),
           2.0 * ((A - 1.0) - (A + 1.0) * cosw), (A + 1.0) - (A - 1.0) * cosw - k);
}

double Biquad::magnitudeDB(double frequency, double sampleRate) const {
    if (!(sampleRate > 0.0)) {
        return 0.0;
    }
    const double w = 2.0 * std::numbers::pi * frequency / sampleRate;
    const double c1 = std::cos(w);
    const double s1 = std::sin(w);
    const double c2 = std::cos(2.0 * w);
    const double s2 = std::sin(2.0 * w);
    const double numRe = b0 + b1 * c1 + b2 * c2;
    const double numIm = -(b1 * s1) - b2 * s2;
    const double denRe = 1.0 + a1 * c1 + a2 * c2;
    const double denIm = -(a1 * s1) - a2 * s2;
    const double n = numRe * numRe + numIm * numIm;
    const double d = denRe * denRe + denIm * denIm;
    return 10.0 * std::log10(std::max(n / std::max(d, 1e-20), 1e-20));
}

} // namespace kavore
