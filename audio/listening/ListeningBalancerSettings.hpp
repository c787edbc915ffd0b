#pragma once
// The slow level balancer of global listening. Building the record forces targetDBFS into
// -32...-12 and strengthPercent into 0...100, with non-finite values at their defaults.

namespace kavore {

struct ListeningBalancerSettings {
    static constexpr double defaultTargetDBFS = -20.0;
    static constexpr double defaultStrengthPercent = 50.0;

    bool enabled = false;
    double targetDBFS = defaultTargetDBFS;
    double strengthPercent = defaultStrengthPercent;

    ListeningBalancerSettings() = default;
    ListeningBalancerSettings(bool enabled, double targetDBFS, double strengthPercent);

    static ListeningBalancerSettings defaults() { return ListeningBalancerSettings(); }

    // Enabled with a strength that does anything.
    bool isActive() const { return enabled && strengthPercent > 0.1; }

    bool operator==(const ListeningBalancerSettings&) const = default;
};

} // namespace kavore
