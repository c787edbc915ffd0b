#include "service/taps/TapProcessIdentity.hpp"

#include <algorithm>

namespace tonavi {

namespace {
template <class Set> bool isSubset(const Set& part, const Set& whole) {
    return std::includes(whole.begin(), whole.end(), part.begin(), part.end());
}
} // namespace

bool TapProcessIdentity::needsRefresh(const TapProcessIdentity& current) const {
    // The app was relaunched or its owner was found only now.
    if (current.ownerPID && (!ownerPID || *ownerPID != *current.ownerPID))
        return true;
    // Same processes, but their objects were replaced.
    if (pids == current.pids && !isSubset(objects, current.objects) && !isSubset(current.objects, objects))
        return true;
    // A process started playing that the tap does not include.
    if (!isSubset(current.activeObjects, objects))
        return true;
    if (!isSubset(current.activePids, pids))
        return true;
    // Nothing plays: no device to compare, and no reason to move.
    if (current.outputDevices.empty())
        return false;
    return outputDevices != current.outputDevices;
}

} // namespace tonavi
