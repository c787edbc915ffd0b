// tonavi-render: runs a file of raw 32-bit float interleaved stereo at 48 kHz through the
// equaliser or the whole effect chain, 128 frames at a time as the audio thread would, for
// side-by-side runs against other tools (bench/audio/sox_compare.sh).
//
//   tonavi-render eq10|chain INPUT.f32 OUTPUT.f32
//
// Prints the processing time alone, in seconds, on stderr.

#include "audio/chain/RenderChain.hpp"
#include "audio/effects/EQ10.hpp"
#include "audio/effects/EQPresets.hpp"
#include "bench/audio/FullChainSettings.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <span>
#include <string>
#include <vector>

namespace {

constexpr double rate = 48000.0;
constexpr std::size_t bufferSamples = 128 * 2;

bool readFloats(const char* path, std::vector<float>& samples) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    const std::streamoff size = in ? std::streamoff(in.tellg()) : -1;
    if (size < 0 || size % static_cast<std::streamoff>(2 * sizeof(float)) != 0)
        return false;
    samples.resize(static_cast<std::size_t>(size) / sizeof(float));
    in.seekg(0);
    return static_cast<bool>(in.read(reinterpret_cast<char*>(samples.data()), size));
}

bool writeFloats(const char* path, const std::vector<float>& samples) {
    // Written beside the target and renamed over it, so a failed run leaves no half file.
    const std::string partial = std::string(path) + ".partial";
    {
        std::ofstream out(partial, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(samples.data()),
                  static_cast<std::streamsize>(samples.size() * sizeof(float)));
        if (!out.flush())
            return false;
    }
    return std::rename(partial.c_str(), path) == 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string mode = argc == 4 ? argv[1] : "";
    if (mode != "eq10" && mode != "chain") {
        std::cerr << "usage: tonavi-render eq10|chain INPUT.f32 OUTPUT.f32\n";
        return 2;
    }
    std::vector<float> samples;
    if (!readFloats(argv[2], samples)) {
        std::cerr << "tonavi-render: " << argv[2] << " is not readable raw float stereo\n";
        return 1;
    }

    kavore::EQ10 eq;
    eq.configure(kavore::EQPresets::named("Rock")->settings, rate);
    kavore::RenderChain chain;
    chain.configure(kavore::bench::fullChainSettings(), rate);
    const auto process = [&](std::span<float> b) { mode == "eq10" ? eq.process(b) : chain.process(b); };

    const auto start = std::chrono::steady_clock::now();
    for (std::size_t at = 0; at < samples.size(); at += bufferSamples)
        process(std::span<float>(samples).subspan(at, std::min(bufferSamples, samples.size() - at)));
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::cerr << took.count() << "\n";

    if (!writeFloats(argv[3], samples)) {
        std::cerr << "tonavi-render: cannot write " << argv[3] << "\n";
        return 1;
    }
    return 0;
}
