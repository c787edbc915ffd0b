#include "core/engine/DefaultMixerAppPolicy.hpp"
#include "core/engine/HealthEvent.hpp"
#include "core/engine/LatencySensitiveAppPolicy.hpp"
#include "core/engine/TonaviTapSafety.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

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

TEST(HealthEvent, WireFormRoundTripsAndRequiresEveryKey) {
    const HealthEvent event{"0F8D3C1A-0000-4000-8000-000000000001", 1700000000.5, "tap-failure", "x"};
    const nlohmann::json json = event;
    EXPECT_EQ(json.get<HealthEvent>(), event);
    nlohmann::json missing = json;
    missing.erase("detail");
    EXPECT_THROW(missing.get<HealthEvent>(), nlohmann::json::exception);
}

} // namespace
} // namespace tonavi
