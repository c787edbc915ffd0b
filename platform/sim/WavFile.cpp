#include "platform/sim/WavFile.hpp"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace tonavi {

namespace {
void put16(std::vector<std::uint8_t>& out, std::uint32_t v) {
    out.push_back(static_cast<std::uint8_t>(v & 0xFF));
    out.push_back(static_cast<std::uint8_t>((v >> 8) & 0xFF));
}
void put32(std::vector<std::uint8_t>& out, std::uint32_t v) {
    put16(out, v & 0xFFFF);
    put16(out, v >> 16);
}
void tag(std::vector<std::uint8_t>& out, const char* t) {
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<std::uint8_t>(t[i]));
}
} // namespace

std::string WavFile::writeFloat32(const std::string& path, double sampleRate, std::uint32_t channels,
                                  std::span<const float> interleaved) {
    if (channels == 0 || channels > 64)
        return "a recording needs 1 to 64 channels";
    if (!(sampleRate >= 1.0 && sampleRate <= 1'000'000.0))
        return "a recording needs a valid sample rate";
    if (interleaved.size() % channels != 0)
        return "the samples do not fill whole frames";
    const auto dataBytes = static_cast<std::uint32_t>(interleaved.size() * sizeof(float));
    const auto frames = static_cast<std::uint32_t>(interleaved.size() / channels);
    const auto rate = static_cast<std::uint32_t>(std::lround(sampleRate));

    std::vector<std::uint8_t> header;
    tag(header, "RIFF");
    put32(header, 4 + (8 + 18) + (8 + 4) + (8 + dataBytes));
    tag(header, "WAVE");
    tag(header, "fmt ");
    put32(header, 18);
    put16(header, 3); // IEEE float
    put16(header, channels);
    put32(header, rate);
    put32(header, rate * channels * 4);
    put16(header, channels * 4);
    put16(header, 32);
    put16(header, 0);
    tag(header, "fact");
    put32(header, 4);
    put32(header, frames);
    tag(header, "data");
    put32(header, dataBytes);

    const std::string temp = path + ".tmp." + std::to_string(::getpid());
    std::FILE* file = std::fopen(temp.c_str(), "wb");
    if (!file)
        return "cannot write " + temp + ": " + std::strerror(errno);
    bool ok = std::fwrite(header.data(), 1, header.size(), file) == header.size();
    // Samples are stored little-endian, as the machine keeps them.
    if (ok && !interleaved.empty())
        ok = std::fwrite(interleaved.data(), sizeof(float), interleaved.size(), file) == interleaved.size();
    ok = std::fclose(file) == 0 && ok;
    if (!ok || std::rename(temp.c_str(), path.c_str()) != 0) {
        const std::string why = std::strerror(errno);
        std::remove(temp.c_str());
        return "cannot write " + path + ": " + why;
    }
    return {};
}

} // namespace tonavi
