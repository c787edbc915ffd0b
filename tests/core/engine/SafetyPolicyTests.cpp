#include "core/engine/DefaultMixerAppPolicy.hpp"
#include "core/engine/LatencySensitiveAppPolicy.hpp"
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
    EXPECT_FALSE(DefaultMixerAppPolicy::includes("org.example.player", "Logic"));
    EXPECT_TRUE(DefaultMixerAppPolicy::includes("com.microsoft.edgemac", ""));
}

} // namespace
} // namespace tonavi
