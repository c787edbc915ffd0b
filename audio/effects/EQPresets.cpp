#include "audio/effects/EQPresets.hpp"

#include <algorithm>
#include <cctype>
#include <string>

namespace kavore {

namespace {

struct Row {
    const char* name;
    const char* icon;
    std::vector<double> gains;
};

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

// "Bass Booster" -> "builtin-bass-booster".
std::string presetID(std::string_view name) {
    std::string id = "builtin-" + lower(name);
    std::replace(id.begin() + 8, id.end(), ' ', '-');
    return id;
}

std::vector<EQPreset> makePresets() {
    // Gains in dB at 32, 64, 125, 250, 500, 1k, 2k, 4k, 8k and 16k Hz.
    const std::vector<Row> rows = {
        {"Flat", "minus", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"Acoustic", "guitars", {5, 5, 4, 1, 2, 2, 3.5, 4, 3.5, 2}},
        {"Bass Booster", "speaker.wave.3", {5.5, 4.5, 3.5, 2.5, 1, 0, 0, 0, 0, 0}},
        {"Bass Reducer", "speaker.wave.1", {-5.5, -4.5, -3.5, -2.5, -1, 0, 0, 0, 0, 0}},
        {"Classical", "music.quarternote.3", {4.5, 3.5, 3, 2.5, -1.5, -1.5, 0, 2, 3, 3.5}},
        {"Dance", "figure.dance", {3.5, 6.5, 5, 0, 2, 3.5, 5, 4.5, 3.5, 0}},
        {"Deep", "water.waves", {5, 3.5, 1.5, 1, 3, 2.5, 1.5, -2, -3.5, -4.5}},
        {"Electronic", "waveform", {4, 3.5, 1, 0, -2, 2, 1, 1, 4, 4.5}},
        {"Hip-Hop", "beats.headphones", {5, 4, 1.5, 3, -1, -1, 1.5, -0.5, 2, 3}},
        {"Jazz", "music.note", {4, 3, 1.5, 2, -1.5, -1.5, 0, 1.5, 3, 3.5}},
        {"Latin", "music.note.list", {4.5, 3, 0, 0, -1.5, -1.5, -1.5, 0, 3, 4.5}},
        {"Loudness", "speaker.wave.3.fill", {6, 4, 0, 0, -2, 0, -1, -4.5, 5, 1}},
        {"Lounge", "sofa", {-3, -1.5, -0.5, 1.5, 4, 2.5, 0, -1.5, 2, 1}},
        {"Piano", "pianokeys", {3, 2, 0, 2.5, 3, 1.5, 3.5, 4.5, 3, 3.5}},
        {"Pop", "sparkles", {-1.5, -1, 0, 2, 4, 4, 2, 0, -1, -1.5}},
        {"R&B", "mic", {2.5, 7, 5.5, 1.5, -2, -1.5, 2.5, 2.5, 3, 3.5}},
        {"Rock", "bolt", {5, 4, 3, 1.5, -0.5, -1, 0.5, 2.5, 3.5, 4.5}},
        {"Small Speakers", "hifispeaker", {5.5, 4.5, 3.5, 2.5, 1, 0, -1, -2.5, -3.5, -4.5}},
        {"Spoken Word", "text.bubble", {-3.5, -0.5, 0, 0.5, 3.5, 4.5, 4.5, 4, 2.5, 0}},
        {"Treble Booster", "hare", {0, 0, 0, 0, 0, 1, 2.5, 3.5, 4.5, 5.5}},
        {"Treble Reducer", "tortoise", {0, 0, 0, 0, 0, -1, -2.5, -3.5, -4.5, -5.5}},
        {"Vocal Booster", "music.mic", {-1.5, -3, -3, 1.5, 3.5, 3.5, 3, 1.5, 0, -1.5}},
        {"Metal", "flame", {5.5, 4, 0, 3, 0, 1, 4, 0, 4, 4.5}},
        {"Podcast", "waveform.circle", {-2, -1, 1, 2.5, 3.5, 3.5, 3, 2, 0.5, -1}},
    };
    std::vector<EQPreset> presets;
    presets.reserve(rows.size());
    for (const auto& row : rows)
        presets.push_back(
            EQPreset{presetID(row.name), row.name, row.icon, EQ10Settings(row.gains, 0.0, true), true});
    return presets;
}

} // namespace

const std::vector<EQPreset>& EQPresets::all() {
    static const std::vector<EQPreset> presets = makePresets();
    return presets;
}

std::optional<EQPreset> EQPresets::named(std::string_view name) {
    const std::string wanted = lower(name);
    for (const auto& preset : all())
        if (lower(preset.name) == wanted)
            return preset;
    return std::nullopt;
}

} // namespace kavore
