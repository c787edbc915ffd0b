#pragma once
// A second-order IIR section in transposed direct form II with 64-bit coefficients and state,
// and the Audio EQ Cookbook designs. The coefficients are normalised so that a0 is 1.

namespace kavore {

struct Biquad {
    double b0 = 1.0;
    double b1 = 0.0;
    double b2 = 0.0;
    double a1 = 0.0;
    double a2 = 0.0;
    double z1 = 0.0;
    double z2 = 0.0;

    // The designs only replace coefficients; the state is kept so a running filter can be retuned.
    void setPassthrough();
    // The cutoff is limited to 0.45 of the rate to keep the design clear of Nyquist.
    void setLowpass(double cutoffHz, double sampleRate, double q);
    void setHighpass(double cutoffHz, double sampleRate, double q);
    void setPeaking(double freqHz, double sampleRate, double gainDB, double q);
    // For the shelves q is a Q, not a slope.
    void setLowShelf(double freqHz, double sampleRate, double gainDB, double q);
    void setHighShelf(double freqHz, double sampleRate, double gainDB, double q);

    double process(double x) {
        const double y = b0 * x + z1;
        z1 = z2 + (b1 * x - y * a1);
        z2 = b2 * x - y * a2;
        return y;
    }

    // Clears the filter memory, keeping the coefficients.
    void clearState() {
        z1 = 0.0;
        z2 = 0.0;
    }

    // Magnitude of the transfer function at the given frequency, in decibels.
    double magnitudeDB(double frequency, double sampleRate) const;

    bool operator==(const Biquad&) const = default;
};

} // namespace kavore
