// When a live tap must be rebuilt.

#include "core/engine/RouteRefreshPolicy.hpp"

#include <gtest/gtest.h>

using namespace tonavi;

TEST(RouteRefreshPolicy, RebuildsWhenForcedDeadMovedOrBoundElsewhere) {
    const TapRouteIdentity speakers{"spk", "spk"};
    const std::tuple<const char*, TapRouteIdentity, bool, bool, bool, bool> cases[] = {
        {"all in place", speakers, true, false, false, false},
        {"forced", speakers, true, false, true, true},
        {"dead io", speakers, false, false, false, true},
        {"process group moved", speakers, true, true, false, true},
        {"tapping another source", {"usb", "spk"}, true, false, false, true},
        {"playing on another target", {"spk", "usb"}, true, false, false, true}};
    for (const auto& [name, bound, ioAlive, groupChanged, forced, expected] : cases)
        EXPECT_EQ(RouteRefreshPolicy::requiresRefresh(bound, speakers, ioAlive, groupChanged, forced),
                  expected)
            << name;
}
