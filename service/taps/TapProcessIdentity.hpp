#pragma once
// The process objects, processes and devices a tap is bound to. A tap names its processes when it
// is made, so when an app starts a helper or moves to another device the live tap no longer covers
// what the app plays; `needsRefresh` is the decision to rebuild it.

#include <cstdint>
#include <optional>
#include <set>

#include "platform/AudioHardwareTypes.hpp"

namespace tonavi {

struct TapProcessIdentity {
    std::set<AudioObjectID> objects;
    std::set<std::int32_t> pids;
    std::set<AudioObjectID> outputDevices; // devices the group's processes play on
    std::optional<std::int32_t> ownerPID;  // the responsible app's process
    std::set<AudioObjectID> activeObjects; // objects that report running output
    std::set<std::int32_t> activePids;

    // With `*this` the identity bound to the live tap: whether `current` differs enough to rebuild.
    bool needsRefresh(const TapProcessIdentity& current) const;

    friend bool operator==(const TapProcessIdentity&, const TapProcessIdentity&) = default;
};

} // namespace tonavi
