#pragma once
// Settings of the noise suppressor: one amount (0...1) drives the gate and the hiss shelf together.

namespace kavore {

struct NoiseSuppressorSettings {
    double amount = 0.0;
    bool enabled = false;

    NoiseSuppressorSettings() = default;
    // Settings made in code clamp the amount to 0...1.
    NoiseSuppressorSettings(double amount, bool enabled);
    // Settings read from JSON keep the stored amount.
    static NoiseSuppressorSettings unclamped(double amount, bool enabled);

    static NoiseSuppressorSettings off() { return NoiseSuppressorSettings(); }

    bool operator==(const NoiseSuppressorSettings&) const = default;
};

} // namespace kavore
