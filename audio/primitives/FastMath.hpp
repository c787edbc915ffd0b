#pragma once
// Natural logarithm and exponential for the per-sample dynamics loops. libm's log and exp are
// correctly rounded but opaque calls, so a loop that uses them cannot be vectorised; these are
// branch-free inline code (bit manipulation, one division, polynomials) that the compiler turns
// into vector code, and agree with libm to within 1e-9 relative, far below anything audible.

#include <bit>
#include <cstdint>

namespace kavore::FastMath {

// ln(x) for x from the smallest normal double up to the largest finite one. The dynamics add
// 1e-12 to a magnitude before taking its level, which keeps them inside that range.
inline double ln(double x) {
    constexpr double ln2 = 0.69314718055994530942;
    constexpr double sqrt2 = 1.41421356237309504880;
    // 2^52 + 1023: subtracted from a double whose low bits hold the biased exponent, it leaves
    // the unbiased exponent without an integer-to-double conversion (missing from SSE2).
    constexpr double exponentBias = 4503599627370496.0 + 1023.0;
    constexpr std::uint64_t mantissaMask = 0x000FFFFFFFFFFFFFull;
    // Centring the mantissa on 1 keeps t below 0.172, where five terms of the series leave an
    // error below 1e-9: mantissas above sqrt(2) are halved and the exponent raised. Both are
    // done on the bits (an add and a shift, then the exponent field), which vectorises with
    // integer operations alone.
    constexpr std::uint64_t sqrt2Mantissa = std::bit_cast<std::uint64_t>(sqrt2) & mantissaMask;
    const std::uint64_t bits = std::bit_cast<std::uint64_t>(x);
    const std::uint64_t high = ((bits & mantissaMask) + (mantissaMask - sqrt2Mantissa)) >> 52;
    const double e = std::bit_cast<double>(0x4330000000000000ull | ((bits >> 52) + high)) - exponentBias;
    const double m = std::bit_cast<double>((bits & mantissaMask) | (0x3FF0000000000000ull - (high << 52)));
    // ln(m) = 2 atanh(t) = 2 (t + t^3/3 + t^5/5 + ...), t = (m - 1) / (m + 1).
    const double t = (m - 1.0) / (m + 1.0);
    const double t2 = t * t;
    const double series = 2.0 + t2 * (2.0 / 3.0 + t2 * (2.0 / 5.0 + t2 * (2.0 / 7.0 + t2 * (2.0 / 9.0))));
    return e * ln2 + t * series;
}

// e^x for x in [-708, 709]. Outside that range the result is meaningless; callers keep to it.
inline double exp(double x) {
    constexpr double log2e = 1.44269504088896340736;
    // ln 2 split so that n * ln2High is exact for the n in range.
    constexpr double ln2High = 0.693147180369123816490;
    constexpr double ln2Low = 1.90821492927058770002e-10;
    // 1.5 * 2^52: adding it rounds to an integer that then sits in the low mantissa bits.
    constexpr double roundingShift = 6755399441055744.0;
    const double shifted = x * log2e + roundingShift;
    const double n = shifted - roundingShift;
    const double r = (x - n * ln2High) - n * ln2Low;
    // |r| <= ln2 / 2: Taylor terms to r^8 leave a relative error below 3e-10.
    const double p =
        1.0 +
        r * (1.0 + r * (1.0 / 2 +
                        r * (1.0 / 6 +
                             r * (1.0 / 24 + r * (1.0 / 120 +
                                                  r * (1.0 / 720 + r * (1.0 / 5040 + r * (1.0 / 40320))))))));
    // 2^n, built from n's low bits: the biased exponent needs only 11 of them.
    const std::uint64_t scaleBits = (std::bit_cast<std::uint64_t>(shifted) + 1023) << 52;
    return p * std::bit_cast<double>(scaleBits);
}

} // namespace kavore::FastMath
