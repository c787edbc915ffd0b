#include "audio/headphone/HeadphoneEQ.hpp"

#include "audio/primitives/BiquadCascade.hpp"

#include <algorithm>
#include <cmath>

namespace kavore {

void HeadphoneEQ::configure(const HeadphoneProfile* profile, double sampleRate, bool enabled) {
    if (profile == nullptr || !enabled) {
        active_ = false;
        return;
    }
    active_ = true;
    preampLinear_ = profile->preampDB <= -120.0 ? 0.0 : std::pow(10.0, profile->preampDB / 20.0);
    cascade_.clear();
    cascade_.reserve(profile->filters.size());
    for (const auto& f : profile->filters) {
        Biquad biquad;
        switch (f.kind) {
        case ParametricFilter::Kind::peaking:
            biquad.setPeaking(f.freqHz, sampleRate, f.gainDB, f.q);
            break;
        case ParametricFilter::Kind::lowShelf:
            biquad.setLowShelf(f.freqHz, sampleRate, f.gainDB, f.q);
            break;
        case ParametricFilter::Kind::highShelf:
            biquad.setHighShelf(f.freqHz, sampleRate, f.gainDB, f.q);
            break;
        }
        cascade_.push_back(biquad);
    }
}

void HeadphoneEQ::process(std::span<float> buffer) {
    if (!active_) {
        return;
    }
    BiquadCascade::processFloat(cascade_, buffer, preampLinear_);
}

} // namespace kavore
