#pragma once
// Whether a live tap must be rebuilt: it was asked for, its IO died, its process group moved, or it
// is bound to other devices than the ones it should play through.

#include "core/engine/TapRouteIdentity.hpp"

namespace tonavi {

namespace RouteRefreshPolicy {

bool requiresRefresh(const TapRouteIdentity& bound, const TapRouteIdentity& desired, bool ioAlive,
                     bool processGroupChanged, bool forced);

} // namespace RouteRefreshPolicy

} // namespace tonavi
