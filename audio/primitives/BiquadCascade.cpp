#include "audio/primitives/BiquadCascade.hpp"

#include <algorithm>

namespace kavore::BiquadCascade {

namespace {

template <std::size_t N> void processGroup(Biquad* sections, double* block, std::size_t count) {
    double b0[N], b1[N], b2[N], a1[N], a2[N], z1[N], z2[N];
    for (std::size_t k = 0; k < N; ++k) {
        b0[k] = sections[k].b0;
        b1[k] = sections[k].b1;
        b2[k] = sections[k].b2;
        a1[k] = sections[k].a1;
        a2[k] = sections[k].a2;
        z1[k] = sections[k].z1;
        z2[k] = sections[k].z2;
    }
    for (std::size_t i = 0; i < count; ++i) {
        double x = block[i];
        for (std::size_t k = 0; k < N; ++k) {
            const double y = b0[k] * x + z1[k];
            z1[k] = z2[k] + (b1[k] * x - y * a1[k]);
            z2[k] = b2[k] * x - y * a2[k];
            x = y;
        }
        block[i] = x;
    }
    for (std::size_t k = 0; k < N; ++k) {
        sections[k].z1 = z1[k];
        sections[k].z2 = z2[k];
    }
}

} // namespace

void process(std::span<Biquad> sections, std::span<double> block) {
    Biquad* s = sections.data();
    std::size_t left = sections.size();
    // Five sections at a time measured fastest on x86-64: their memory stays in registers, and
    // coefficients that do not fit are read from the stack, off the recurrence's critical path.
    for (; left >= 5; left -= 5, s += 5)
        processGroup<5>(s, block.data(), block.size());
    switch (left) {
    case 4:
        processGroup<4>(s, block.data(), block.size());
        break;
    case 3:
        processGroup<3>(s, block.data(), block.size());
        break;
    case 2:
        processGroup<2>(s, block.data(), block.size());
        break;
    case 1:
        processGroup<1>(s, block.data(), block.size());
        break;
    default:
        break;
    }
}

void processFloat(std::span<Biquad> sections, std::span<float> buffer, double gain) {
    double block[blockSize];
    for (std::size_t start = 0; start < buffer.size(); start += blockSize) {
        const std::size_t n = std::min(blockSize, buffer.size() - start);
        float* const samples = buffer.data() + start;
        for (std::size_t i = 0; i < n; ++i)
            block[i] = static_cast<double>(samples[i]) * gain;
        process(sections, std::span<double>(block, n));
        for (std::size_t i = 0; i < n; ++i)
            samples[i] = static_cast<float>(block[i]);
    }
}

} // namespace kavore::BiquadCascade
