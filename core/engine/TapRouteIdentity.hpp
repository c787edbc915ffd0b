#pragma once
// The pair of devices a tap is bound to: the output it taps from and the one it plays on.

#include <string>

namespace tonavi {

struct TapRouteIdentity {
    std::string sourceUID;
    std::string targetUID;

    friend bool operator==(const TapRouteIdentity&, const TapRouteIdentity&) = default;
};

} // namespace tonavi
