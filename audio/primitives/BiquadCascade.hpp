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

// A block size for callers that stage float buffers in double on the stack.
inline constexpr std::size_t blockSize = 256;

// Filters the block in place and advances every section's memory.
void process(std::span<Biquad> sections, std::span<double> block);

} // namespace kavore::BiquadCascade
