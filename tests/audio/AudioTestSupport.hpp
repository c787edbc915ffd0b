#pragma once
// Test signals and measurements for processors that work on interleaved stereo floats, and effect
// slots for the chain and listening tests.

#include "audio/chain/ChainSettingsJSON.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <span>
#include <string>
#include <vector>

namespace kavore::test {

// frames of a sine of the given peak amplitude, the same on both channels.
inline std::vector<float> stereoSine(double hz, double amplitude, double sampleRate, std::size_t frames) {
    std::vector<float> buffer(frames * 2);
    for (std::size_t i = 0; i < buffer.size(); ++i)
        buffer[i] = float(amplitude * std::sin(2.0 * std::numbers::pi * hz * double(i / 2) / sampleRate));
    return buffer;
}

// samples of a sine as one stream, for processors that do not tell channels apart.
inline std::vector<float> monoSine(double hz, double amplitude, double sampleRate, std::size_t samples) {
    std::vector<float> v(samples);
    for (std::size_t i = 0; i < samples; ++i)
        v[i] = static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * hz * double(i) / sampleRate));
    return v;
}

// A square wave of constant magnitude, flipping every two samples: its level is the same at every
// sample, on both channels.
inline std::vector<float> square(std::size_t samples, float amplitude) {
    std::vector<float> v(samples);
    for (std::size_t i = 0; i < samples; ++i)
        v[i] = (i / 2) % 2 == 0 ? amplitude : -amplitude;
    return v;
}

inline double rms(std::span<const float> samples) {
    double sum = 0.0;
    for (const float s : samples)
        sum += double(s) * double(s);
    return samples.empty() ? 0.0 : std::sqrt(sum / static_cast<double>(samples.size()));
}

inline double dbRatio(double out, double in) {
    return 20.0 * std::log10(out / in);
}

inline double dbToLinear(double db) {
    return std::pow(10.0, db / 20.0);
}

// The largest difference in dB between two renderings, over the samples the expected one does not
// leave near silence.
inline double worstDBApart(std::span<const float> expected, std::span<const float> actual) {
    double worst = 0.0;
    for (std::size_t i = 0; i < expected.size(); ++i)
        if (std::fabs(expected[i]) > 1e-7f)
            worst = std::max(worst, std::fabs(dbRatio(std::fabs(actual[i]), std::fabs(expected[i]))));
    return worst;
}

// A sine sweeping in level from -100 to +3 dBFS, the range the dynamics must track exactly.
inline std::vector<float> levelSweep(std::size_t n = 96000) {
    std::vector<float> sweep(n);
    for (std::size_t i = 0; i < n; ++i)
        sweep[i] = float(dbToLinear(-100.0 + 103.0 * double(i) / double(n)) * std::sin(0.031 * double(i)));
    return sweep;
}

// A slot whose settings bytes are given as they are stored.
inline EffectSlot rawSlot(const std::string& id, EffectKind kind, const std::string& bytes,
                          bool bypassed = false) {
    EffectSlot s;
    s.id = id;
    s.kind = kind;
    s.bypassed = bypassed;
    s.settingsJSON.assign(bytes.begin(), bytes.end());
    return s;
}

inline EffectSlot slot(const std::string& id, EffectKind kind, const nlohmann::json& settings,
                       bool bypassed = false) {
    return rawSlot(id, kind, settings.dump(), bypassed);
}

// A plug-in slot of the given component type ("aufx" is an effect).
inline EffectSlot auSlot(const std::string& id, const char* type = "aufx", bool bypassed = false) {
    EffectSlot s = rawSlot(id, EffectKind::audioUnit, "", bypassed);
    s.auComponent =
        AUComponentKey{fourCharCode(type), fourCharCode("abcd"), fourCharCode("tstm"), "FX", "Maker"};
    return s;
}

} // namespace kavore::test
