#pragma once
// Settings of the slow automatic leveler: one amount (0...1).

namespace kavore {

struct LevelerSettings {
    double amount = 0.0;
    bool enabled = false;

    LevelerSettings() = default;
    // Settings made in code clamp the amount to 0...1.
    LevelerSettings(double amount, bool enabled);
    // Settings read from JSON keep the stored amount.
    static LevelerSettings unclamped(double amount, bool enabled);

    static LevelerSettings off() { return LevelerSettings(); }

    bool operator==(const LevelerSettings&) const = default;
};

} // namespace kavore
