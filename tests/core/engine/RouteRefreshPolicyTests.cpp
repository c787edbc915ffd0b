// When a live tap must be rebuilt.

#include "core/engine/RouteRefreshPolicy.hpp"

#include <gtest/gtest.h>

using namespace tonavi;

TEST(RouteRefreshPolicy, RebuildsWhenForcedDeadMovedOrBoundElsewhere) {
    const TapRouteIdentity speakers{"spk", "spk"};
    struct Case {
        const char* name;
        TapRouteIdentity bound;
        bool ioAlive, groupChanged, forced, expected;
    };
    const Case cases[] = {{"all in place", speakers, true, false, false, false},
                          {"forced", speakers, true, false, true, true},
                          {"dead io", speakers, false, false, false, true},
                          {"process group moved", speakers, true, true, false, true},
                          {"tapping another source", {"usb", "spk"}, true, false, false, true},
                          {"playing on another target", {"spk", "usb"}, true, false, false, true}};
    for (const auto& c : cases)
        EXPECT_EQ(RouteRefreshPolicy::requiresRefresh(c.bound, speakers, c.ioAlive, c.groupChanged, c.forced),
                  c.expected)
            << c.name;
}
