#include "core/engine/DefaultMixerAppPolicy.hpp"
#include "core/engine/LatencySensitiveAppPolicy.hpp"
#include "core/engine/RouteRefreshPolicy.hpp"
#include "core/engine/TonaviTapSafety.hpp"

#include <gtest/gtest.h>

namespace tonavi {
namespace {

TEST(SafetyPolicies, CaptureLatencyAndDefaultMixerRules) {
    EXPECT_FALSE(TonaviTapSafety::mayCapture("com.brelmoor.KavoreApp"));
    EXPECT_FALSE(TonaviTapSafety::mayCapture("com.rogueamoeba.Loopback")); // the whole family
    EXPECT_TRUE(TonaviTapSafety::mayCapture("com.brelmoor.tonaviapp"));    // exact IDs only
    EXPECT_TRUE(TonaviTapSafety::mayCapture("com.rogueamoebaX.app"));

    // Lowercased before matching.
    EXPECT_TRUE(LatencySensitiveAppPolicy::prefersDirectSoftMaster("com.ABLETON.live"));
    EXPECT_FALSE(LatencySensitiveAppPolicy::prefersDirectSoftMaster("com.apple.logic"));

    // A name matches a whole leading word, not a prefix of one.
    EXPECT_TRUE(DefaultMixerAppPolicy::includes("org.example.player", "Reason 12 Studio"));
    EXPECT_FALSE(DefaultMixerAppPolicy::includes("org.example.player", "Reasonable Player"));
    EXPECT_TRUE(DefaultMixerAppPolicy::includes("com.microsoft.edgemac", ""));
}

TEST(RouteRefreshPolicy, RebuildsWhenForcedDeadMovedOrBoundElsewhere) {
    const TapRouteIdentity speakers{"spk", "spk"};
    const std::tuple<const char*, TapRouteIdentity, bool, bool, bool, bool> cases[] = {
        {"all in place", speakers, true, false, false, false},
        {"forced", speakers, true, false, true, true},
        {"dead io", speakers, false, false, false, true},
        {"process group moved", speakers, true, true, false, true},
        {"playing on another target", {"spk", "usb"}, true, false, false, true}};
    for (const auto& [name, bound, ioAlive, groupChanged, forced, expected] : cases)
        EXPECT_EQ(RouteRefreshPolicy::requiresRefresh(bound, speakers, ioAlive, groupChanged, forced),
                  expected)
            << name;
}

} // namespace
} // namespace tonavi
