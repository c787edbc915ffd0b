#include "audio/primitives/EnvelopeFollower.hpp"

namespace kavore {

namespace {
// Two lanes, of which only the first matters: vector comparisons give masks, so the choice of
// coefficient needs no branch. Levels jump around the envelope at random, so a branch here is
// mispredicted about every other sample, which costs more than the whole update.
using Lanes = double __attribute__((vector_size(16)));
} // namespace

void EnvelopeFollower::follow(std::span<double> levels, double& envelope) const {
    const Lanes attack = {attackCoeff, attackCoeff};
    const Lanes release = {releaseCoeff, releaseCoeff};
    const Lanes attackRest = 1.0 - attack;
    const Lanes releaseRest = 1.0 - release;
    Lanes e = {envelope, envelope};
    for (double& slot : levels) {
        const Lanes level = {slot, slot};
        const Lanes rising = e * attack + level * attackRest;
        const Lanes falling = e * release + level * releaseRest;
        e = e < level ? rising : falling;
        slot = e[0];
    }
    envelope = e[0];
}

} // namespace kavore
