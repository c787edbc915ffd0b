#include "audio/effects/CompressorSettings.hpp"

#include <algorithm>

namespace kavore {

std::string_view compressorVoicingName(CompressorVoicing voicing) {
    switch (voicing) {
    case CompressorVoicing::music:
        return "music";
    case CompressorVoicing::voice:
        return "voice";
    case CompressorVoicing::podcast:
        return "podcast";
    }
    return "music";
}

std::optional<CompressorVoicing> compressorVoicingFromName(std::string_view name) {
    if (name == "music")
        return CompressorVoicing::music;
    if (name == "voice")
        return CompressorVoicing::voice;
    if (name == "podcast")
        return CompressorVoicing::podcast;
    return std::nullopt;
}

CompressorSettings::CompressorSettings(double amount_, CompressorVoicing voicing_, bool enabled_)
    : amount(std::clamp(amount_, 0.0, 1.0)), voicing(voicing_), enabled(enabled_) {}

CompressorSettings CompressorSettings::unclamped(double amount, CompressorVoicing voicing, bool enabled) {
    CompressorSettings s;
    s.amount = amount;
    s.voicing = voicing;
    s.enabled = enabled;
    return s;
}

} // namespace kavore
