#include "core/engine/Ducker.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace tonavi {
namespace {

constexpr double rate = 48000.0;

AutoDuckRule rule(std::string trigger, std::vector<std::string> ducked, double db, double recoveryMS,
                  bool enabled = true) {
    AutoDuckRule r;
    r.id = trigger + "-rule";
    r.triggerBundleID = std::move(trigger);
    r.duckedBundleIDs = std::move(ducked);
    r.duckDB = db;
    r.recoveryMS = recoveryMS;
    r.enabled = enabled;
    return r;
}

// -20 dB is a linear 0.1, so the range is 0.9. The attack always takes 80 ms (3840 frames at
// 48 kHz), the recovery the rule's time.
TEST(Ducker, RampsDownLinearlyOverEightyMillisecondsAndRecoversOverTheRuleTime) {
    Ducker ducker({rule("voice", {"music"}, -20.0, 900.0)}, rate);
    ducker.setActiveTriggers({"voice"});
    EXPECT_DOUBLE_EQ(ducker.currentGain("music"), 1.0); // setting triggers moves nothing

    ducker.advance(1920.0);
    EXPECT_NEAR(ducker.currentGain("music"), 0.55, 1e-12);
    ducker.advance(1920.0);
    EXPECT_NEAR(ducker.currentGain("music"), 0.1, 1e-12);
    ducker.advance(1920.0); // never overshoots
    EXPECT_NEAR(ducker.currentGain("music"), 0.1, 1e-12);

    ducker.setActiveTriggers({});
    ducker.advance(4320.0); // a tenth of 900 ms: a tenth of the range
    EXPECT_NEAR(ducker.currentGain("music"), 0.19, 1e-12);
    ducker.advance(1e9);
    EXPECT_DOUBLE_EQ(ducker.currentGain("music"), 1.0);
}

TEST(Ducker, TriggerEndingMidAttackReversesFromWhereItStandsAtTheRecoveryRate) {
    Ducker ducker({rule("voice", {"music"}, -20.0, 900.0)}, rate);
    ducker.setActiveTriggers({"voice"});
    ducker.advance(1920.0);
    ASSERT_NEAR(ducker.currentGain("music"), 0.55, 1e-12);
    ducker.setActiveTriggers({});
    ducker.advance(4320.0);
    EXPECT_NEAR(ducker.currentGain("music"), 0.64, 1e-12);
    ducker.advance(-500.0); // negative counts are nothing
    EXPECT_NEAR(ducker.currentGain("music"), 0.64, 1e-12);
}

TEST(Ducker, DeepestRuleWinsAndDepthsDoNotAddUp) {
    Ducker ducker({rule("a", {"music"}, -6.0, 900.0), rule("b", {"music"}, -12.0, 900.0)}, rate);
    ducker.setActiveTriggers({"a", "b"});
    EXPECT_NEAR(ducker.targetGain("music"), 0.251188643150958, 1e-12);
    ducker.setActiveTriggers({"a"});
    EXPECT_NEAR(ducker.targetGain("music"), 0.501187233627272, 1e-12);
    ducker.advance(1e9);
    EXPECT_NEAR(ducker.currentGain("music"), 0.501187233627272, 1e-12);
}

TEST(Ducker, DisabledRulesDoNotDuckButStillSetRangeAndRecoveryOfTheirApps) {
    // The first rule naming "music" is disabled; it still gives range 0.9 and 100 ms recovery.
    Ducker ducker({rule("x", {"music"}, -20.0, 100.0, false), rule("voice", {"music"}, -6.0, 2000.0)}, rate);
    ducker.setActiveTriggers({"x"});
    EXPECT_DOUBLE_EQ(ducker.targetGain("music"), 1.0);

    ducker.setActiveTriggers({"voice"});
    ducker.advance(1920.0);
    EXPECT_NEAR(ducker.currentGain("music"), 0.55, 1e-12);
    ducker.advance(1920.0);
    const double sixDB = 0.501187233627272;
    EXPECT_NEAR(ducker.currentGain("music"), sixDB, 1e-12);
    ducker.setActiveTriggers({});
    ducker.advance(2400.0); // half of 100 ms: half the 0.9 range
    EXPECT_NEAR(ducker.currentGain("music"), sixDB + 0.45, 1e-12);
}

TEST(Ducker, ZeroDepthAndZeroRecoveryEdges) {
    Ducker flat({rule("voice", {"music"}, 0.0, 900.0)}, rate);
    flat.setActiveTriggers({"voice"});
    flat.advance(128.0);
    EXPECT_DOUBLE_EQ(flat.currentGain("music"), 1.0);
    EXPECT_TRUE(flat.hasGainEntry("music"));
    EXPECT_FALSE(flat.hasGainEntry("other")); // never named by a rule

    // A recovery under one frame steps by range x frames: back in one cycle.
    Ducker instant({rule("voice", {"music"}, -20.0, 0.0)}, rate);
    instant.setActiveTriggers({"voice"});
    instant.advance(1e9);
    ASSERT_NEAR(instant.currentGain("music"), 0.1, 1e-12);
    instant.setActiveTriggers({});
    instant.advance(2.0);
    EXPECT_DOUBLE_EQ(instant.currentGain("music"), 1.0);
}

TEST(Ducker, HostTimeGuardIgnoresRepeatedAndBackwardTimesAndLimitsToElapsedFrames) {
    Ducker ducker({rule("voice", {"music"}, -20.0, 900.0)}, rate);
    ducker.setActiveTriggers({"voice"});
    ducker.advance(384, 10.0); // first call: the full count
    const double afterFirst = 1.0 - 0.9 * 384.0 / 3840.0;
    EXPECT_NEAR(ducker.currentGain("music"), afterFirst, 1e-12);

    ducker.advance(384, 10.0); // a second caller in the same cycle
    ducker.advance(384, 9.5);  // a clock that ran backward
    EXPECT_NEAR(ducker.currentGain("music"), afterFirst, 1e-12);
    EXPECT_EQ(ducker.lastHostTimeSeconds(), 10.0);

    // Only 96 frames of time passed, although 384 were offered.
    ducker.advance(384, 10.0 + 96.0 / rate);
    EXPECT_NEAR(ducker.currentGain("music"), afterFirst - 0.9 * 96.0 / 3840.0, 1e-12);

    // A time that is not finite advances by the count and leaves the stored time alone.
    ducker.advance(384, std::nan(""));
    EXPECT_NEAR(ducker.currentGain("music"), afterFirst - 0.9 * 480.0 / 3840.0, 1e-12);
    EXPECT_EQ(ducker.lastHostTimeSeconds(), 10.0 + 96.0 / rate);
}

} // namespace
} // namespace tonavi
