#pragma once
// Writes interleaved 32-bit float samples as a WAVE file (IEEE float format), through a temporary
// file and a rename so that a reader never finds half a file.

#include <cstdint>
#include <span>
#include <string>

namespace tonavi {

struct WavFile {
    // Empty on success, else a message.
    static std::string writeFloat32(const std::string& path, double sampleRate, std::uint32_t channels,
                                    std::span<const float> interleaved);
};

} // namespace tonavi
