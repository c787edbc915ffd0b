#pragma once
// Runs a block of samples through biquads in series. A per-sample loop over all sections reloads
// every section's coefficients and memory each sample; here the block passes through a few
// sections at a time with their coefficients and memory held in locals, which the compiler keeps
// in registers. Each section does the same arithmetic in the same order as Biquad::process, so
// the output is bit-identical to running the sections one sample at a time.

#include "audio/primitives/Biquad.hpp"

#include <cstddef>
#include <span>

namespace kavore::BiquadCascade {

// How many samples processFloat stages in double on the stack at a time.
inline constexpr std::size_t blockSize = 256;

// Filters the block in place and advances every section's memory.
void process(std::span<Biquad> sections, std::span<double> block);

// Scales a float buffer by `gain` and filters it in place. The signal stays in double between
// sections, as in a per-sample cascade; no allocation.
void processFloat(std::span<Biquad> sections, std::span<float> buffer, double gain);

} // namespace kavore::BiquadCascade
