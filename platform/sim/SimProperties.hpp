#pragma once
// Core Audio properties of a simulated world: what each object answers to a read, which writes it
// takes, and which addresses changed between two versions of the world. Stateless; the viewer pid
// decides which private taps and aggregates are visible, as Core Audio shows them only to their maker.

#include <sys/types.h>
#include <utility>
#include <vector>

#include "platform/AudioHardware.hpp"
#include "platform/sim/SimWorld.hpp"

namespace tonavi {

struct SimProperties {
    using Change = std::pair<AudioObjectID, AudioObjectPropertyAddress>;

    static bool isVisible(const SimWorld& world, pid_t viewer, AudioObjectID object);
    static std::vector<AudioObjectID> deviceList(const SimWorld& world, pid_t viewer);
    // Channels per stream; for an aggregate, derived from its sub-devices and taps.
    static std::vector<std::uint32_t> streams(const SimWorld& world, const SimDevice& device, bool input);
    // The channel count of a tap's stream.
    static std::uint32_t tapChannels(const SimWorld& world, const TapDescription& description);

    static OSStatus read(const SimWorld& world, pid_t viewer, AudioObjectID object,
                         const AudioObjectPropertyAddress& address, AudioPropertyValue& value);
    static OSStatus settable(const SimWorld& world, pid_t viewer, AudioObjectID object,
                             const AudioObjectPropertyAddress& address, bool& isSettable);
    static OSStatus write(SimWorld& world, pid_t viewer, AudioObjectID object,
                          const AudioObjectPropertyAddress& address, const AudioPropertyValue& value);

    // Every address whose answer differs between the two worlds, for objects in either.
    static std::vector<Change> changes(const SimWorld& before, const SimWorld& after, pid_t viewer);
    static bool matches(const AudioObjectPropertyAddress& listened,
                        const AudioObjectPropertyAddress& changed);
};

} // namespace tonavi
