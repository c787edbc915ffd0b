#include "core/engine/DefaultMixerAppPolicy.hpp"
#include "core/engine/HealthEvent.hpp"
#include "core/engine/LatencySensitiveAppPolicy.hpp"
#include "core/engine/TonaviTapSafety.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tonavi {
namespace {

TEST(TonaviTapSafety, RefusesOwnAppsAndRoutingInfrastructure) {
    for (const char* id : {"com.brelmoor.tonavi", "com.brelmoor.kavore", "com.brelmoor.KavoreApp",
                           "com.brelmoor.TonaviApp", "com.rogueamoeba.arkaudiod", "com.rogueamoeba.Loopback",
                           "com.rogueamoeba."})
        EXPECT_FALSE(TonaviTapSafety::mayCapture(id)) << id;
    for (const char* id : {"com.apple.Safari", "com.brelmoor.tonavi.helper", "com.brelmoor.tonaviapp",
                           "com.rogueamoebaX.app", ""})
        EXPECT_TRUE(TonaviTapSafety::mayCapture(id)) << id;
    EXPECT_EQ(TonaviTapSafety::blockedBundleIDs().size(), 5u);
}

TEST(LatencySensitiveAppPolicy, MatchesProductionToolsCaseInsensitively) {
    EXPECT_TRUE(LatencySensitiveAppPolicy::prefersDirectSoftMaster("com.ABLETON.live"));
    EXPECT_TRUE(LatencySensitiveAppPolicy::prefersDirectSoftMaster("com.apple.logic10"));
    EXPECT_TRUE(LatencySensitiveAppPolicy::prefersDirectSoftMaster("com.avid.Pro.Tools"));
    EXPECT_TRUE(LatencySensitiveAppPolicy::prefersDirectSoftMaster("com.Native-Instruments.Maschine"));
    EXPECT_FALSE(LatencySensitiveAppPolicy::prefersDirectSoftMaster("com.apple.Music"));
    EXPECT_FALSE(LatencySensitiveAppPolicy::prefersDirectSoftMaster("com.apple.logic"));
    EXPECT_FALSE(LatencySensitiveAppPolicy::prefersDirectSoftMaster(""));
}

TEST(DefaultMixerAppPolicy, MatchesBundleFragmentsAndWholeLeadingNameWords) {
    EXPECT_TRUE(DefaultMixerAppPolicy::includes("com.google.Chrome", ""));
    EXPECT_TRUE(DefaultMixerAppPolicy::includes("com.microsoft.edgemac", "x"));  // "microsoft.edge"
    EXPECT_TRUE(DefaultMixerAppPolicy::includes("org.example.player", "Reason"));
    EXPECT_TRUE(DefaultMixerAppPolicy::includes("org.example.player", "Reason 12 Studio"));
    EXPECT_FALSE(DefaultMixerAppPolicy::includes("org.example.player", "Reasonable Player"));
    EXPECT_TRUE(DefaultMixerAppPolicy::includes("org.example.player", "Logic Pro"));
    EXPECT_FALSE(DefaultMixerAppPolicy::includes("org.example.player", "Logic"));
    EXPECT_FALSE(DefaultMixerAppPolicy::includes("org.example.player", "Arcade"));
    EXPECT_TRUE(DefaultMixerAppPolicy::includes("org.example.player", "ARC"));
}

TEST(HealthEvent, WireFormRoundTripsAndRequiresEveryKey) {
    const HealthEvent event{"0F8D3C1A-0000-4000-8000-000000000001", 1700000000.5, "tap-failure",
                            "could not create tap for a; staying direct"};
    const nlohmann::json json = event;
    EXPECT_EQ(json.at("kind"), "tap-failure");
    EXPECT_EQ(json.get<HealthEvent>(), event);

    nlohmann::json missing = json;
    missing.erase("detail");
    EXPECT_THROW(missing.get<HealthEvent>(), nlohmann::json::exception);
    nlohmann::json wrongType = json;
    wrongType["at"] = "yesterday";
    EXPECT_THROW(wrongType.get<HealthEvent>(), nlohmann::json::exception);
}

}  // namespace
}  // namespace tonavi
