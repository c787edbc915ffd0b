#include "core/engine/Ducker.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <variant>

namespace tonavi {
namespace {

constexpr double rate = 48000.0;
const double sixDB = 0.501187233627272, twelveDB = 0.251188643150958;

AutoDuckRule rule(std::string trigger, double db, double recoveryMS, bool enabled = true) {
    return {trigger + "-rule", trigger, {"music"}, db, recoveryMS, enabled};
}

// A script of trigger changes and advances, each followed by the gain "music" must then have.
// -20 dB is a linear 0.1, so the range is 0.9. The attack always takes 80 ms (3840 frames at
// 48 kHz), the recovery the rule's time.
using On = std::set<std::string, std::less<>>;
struct Step {
    std::variant<On, double> action; // new triggers, or frames to advance
    double gain;
};

TEST(Ducker, RampsFollowTheirScripts) {
    const std::tuple<const char*, std::vector<AutoDuckRule>, std::vector<Step>> cases[] = {
        // Setting triggers moves nothing, the attack never overshoots, and a tenth of 900 ms recovers a tenth
        // of the range.
        {"linear attack over 80 ms, recovery over the rule's time",
         {rule("voice", -20.0, 900.0)},
         {{On{"voice"}, 1}, {1920.0, 0.55}, {3840.0, 0.1}, {On{}, 0.1}, {4320.0, 0.19}, {1e9, 1}}},
        {"a trigger ending mid-attack reverses from where it stands",
         {rule("voice", -20.0, 900.0)},
         {{On{"voice"}, 1.0}, {1920.0, 0.55}, {On{}, 0.55}, {4320.0, 0.64}, {-500.0, 0.64}}},
        {"the deepest rule wins and depths do not add up",
         {rule("a", -6.0, 900.0), rule("b", -12.0, 900.0)},
         {{On{"a", "b"}, 1.0}, {1e9, twelveDB}, {On{"a"}, twelveDB}, {1e9, sixDB}}},
        // The first rule naming "music" is disabled; it still gives range 0.9 and 100 ms recovery.
        {"a disabled rule does not duck but sets range and recovery",
         {rule("x", -20.0, 100.0, false), rule("voice", -6.0, 2000.0)},
         {{On{"x"}, 1}, {1e9, 1}, {On{"voice"}, 1}, {3840.0, sixDB}, {On{}, sixDB}, {2400.0, sixDB + 0.45}}},
        // A recovery under one frame steps by range x frames: back in one cycle.
        {"zero recovery",
         {rule("voice", -20.0, 0.0)},
         {{On{"voice"}, 1.0}, {1e9, 0.1}, {On{}, 0.1}, {2.0, 1.0}}}};
    for (const auto& [name, rules, steps] : cases) {
        Ducker ducker(rules, rate);
        for (std::size_t i = 0; i < steps.size(); ++i) {
            if (const auto* triggers = std::get_if<On>(&steps[i].action))
                ducker.setActiveTriggers(*triggers);
            else
                ducker.advance(std::get<double>(steps[i].action));
            EXPECT_NEAR(ducker.currentGain("music"), steps[i].gain, 1e-12) << name << ", step " << i;
        }
        EXPECT_TRUE(ducker.hasGainEntry("music"));
        EXPECT_FALSE(ducker.hasGainEntry("other")); // never named by a rule
    }
}

TEST(Ducker, HostTimeGuardIgnoresRepeatedAndBackwardTimesAndLimitsToElapsedFrames) {
    Ducker ducker({rule("voice", -20.0, 900.0)}, rate);
    ducker.setActiveTriggers({"voice"});
    const auto afterFrames = [](double frames) { return 1.0 - 0.9 * frames / 3840.0; };
    ducker.advance(384, 10.0); // first call: the full count
    EXPECT_NEAR(ducker.currentGain("music"), afterFrames(384), 1e-12);
    ducker.advance(384, 10.0); // a second caller in the same cycle
    ducker.advance(384, 9.5);  // a clock that ran backward
    EXPECT_NEAR(ducker.currentGain("music"), afterFrames(384), 1e-12);
    EXPECT_EQ(ducker.lastHostTimeSeconds(), 10.0);
    // Only 96 frames of time passed, although 384 were offered.
    ducker.advance(384, 10.0 + 96.0 / rate);
    EXPECT_NEAR(ducker.currentGain("music"), afterFrames(480), 1e-12);
    // A time that is not finite advances by the count and leaves the stored time alone.
    ducker.advance(384, std::nan(""));
    EXPECT_NEAR(ducker.currentGain("music"), afterFrames(864), 1e-12);
    EXPECT_EQ(ducker.lastHostTimeSeconds(), 10.0 + 96.0 / rate);
}

} // namespace
} // namespace tonavi
