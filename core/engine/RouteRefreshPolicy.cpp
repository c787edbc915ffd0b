#include "core/engine/RouteRefreshPolicy.hpp"

namespace tonavi::RouteRefreshPolicy {

bool requiresRefresh(const TapRouteIdentity& bound, const TapRouteIdentity& desired, bool ioAlive,
                     bool processGroupChanged, bool forced) {
    if (forced || !ioAlive || processGroupChanged)
        return true;
    return bound != desired;
}

} // namespace tonavi::RouteRefreshPolicy
