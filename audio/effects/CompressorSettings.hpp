#pragma once
// Settings of the one-knob compressor: one amount (0...1) and a voicing that picks its timing.

#include <optional>
#include <string_view>

namespace kavore {

enum class CompressorVoicing { music, voice, podcast };

std::string_view compressorVoicingName(CompressorVoicing voicing);
std::optional<CompressorVoicing> compressorVoicingFromName(std::string_view name);

struct CompressorSettings {
    double amount = 0.0;
    CompressorVoicing voicing = CompressorVoicing::music;
    bool enabled = false;

    CompressorSettings() = default;
    // Settings made in code clamp the amount to 0...1.
    CompressorSettings(double amount, CompressorVoicing voicing, bool enabled);
    // Settings read from JSON keep the stored amount.
    static CompressorSettings unclamped(double amount, CompressorVoicing voicing, bool enabled);

    static CompressorSettings off() { return CompressorSettings(); }

    bool operator==(const CompressorSettings&) const = default;
};

} // namespace kavore
