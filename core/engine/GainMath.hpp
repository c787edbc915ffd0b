#pragma once
// Decibel to linear conversion with this system's silence floor: -120 dB and below is silence.

#include <cmath>

namespace tonavi {

inline double linearFromDB(double db) {
    if (!(db > -120.0))
        return 0.0;
    return std::pow(10.0, db / 20.0);
}

} // namespace tonavi
