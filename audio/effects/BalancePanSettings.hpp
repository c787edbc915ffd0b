#pragma once
// Settings of the stereo balance: -1 is hard left, 0 the centre, 1 hard right.

namespace kavore {

struct BalancePanSettings {
    double balance = 0.0;
    bool enabled = false;

    BalancePanSettings() = default;
    // Settings made in code clamp the balance to -1...1.
    BalancePanSettings(double balance, bool enabled);
    // Settings read from JSON keep the stored balance.
    static BalancePanSettings unclamped(double balance, bool enabled);

    static BalancePanSettings off() { return BalancePanSettings(); }

    bool operator==(const BalancePanSettings&) const = default;
};

} // namespace kavore
