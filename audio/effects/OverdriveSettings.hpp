#pragma once
// The chain's final gain stage: a multiplier of 1 (off) up to 4, held under the ceiling by the
// overdrive limiter.

#include <array>

namespace kavore {

struct OverdriveSettings {
    double multiplier = 1.0;

    OverdriveSettings() = default;
    // Settings made in code are clamped to 1...4.
    explicit OverdriveSettings(double multiplier);
    // Settings read from JSON keep the stored value as it is.
    static OverdriveSettings unclamped(double multiplier);

    static OverdriveSettings off() { return OverdriveSettings(); }
    static constexpr std::array<double, 4> steps{1.0, 2.0, 3.0, 4.0};

    bool operator==(const OverdriveSettings&) const = default;
};

} // namespace kavore
