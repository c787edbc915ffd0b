#pragma once
// The level detector of the dynamics processors: a one-pole follower of levels in dB that rises
// with one coefficient and falls with another, e = e c + level (1 - c).

#include <span>

namespace kavore {

struct EnvelopeFollower {
    double attackCoeff = 0.0;
    double releaseCoeff = 0.0;

    // Replaces each level with the envelope after it. The envelope carries over between calls.
    void follow(std::span<double> levels, double& envelope) const;
};

} // namespace kavore
