// The pure decisions around a live tap: when its process group has drifted, when it has gone quiet,
// which apps hold a standing claim to one, and how tap work on one key coalesces. (The app that plays
// digital silence is the watchdog's test.)

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "service/CoalescedRefreshState.hpp"
#include "service/taps/OutputEligibility.hpp"
#include "service/taps/TapActivityWindow.hpp"
#include "service/taps/TapProcessIdentity.hpp"

namespace tonavi {
namespace {

using IDSet = OutputEligibility::IDSet;

TEST(TapProcessIdentity, NeedsRefreshFollowsTheFirstRuleThatApplies) {
    // Bound: the app (object 10, pid 100) and its helper (11, 101), the app playing on device 50.
    const TapProcessIdentity bound{{10, 11}, {100, 101}, {50}, 100, {10}, {100}};
    const std::tuple<const char*, TapProcessIdentity, bool> cases[] = {
        {"identical", bound, false},
        {"owner relaunched", {{10, 11}, {100, 101}, {50}, 200, {10}, {100}}, true},
        {"owner unknown now", {{10, 11}, {100, 101}, {50}, std::nullopt, {10}, {100}}, false},
        {"objects replaced", {{12, 13}, {100, 101}, {50}, 100, {}, {}}, true},
        {"helper gone", {{10}, {100}, {50}, 100, {10}, {100}}, false},
        {"new helper plays", {{10, 11, 12}, {100, 101, 102}, {50}, 100, {12}, {102}}, true},
        {"known object, new pid plays", {{10, 11}, {100, 101, 103}, {50}, 100, {11}, {103}}, true},
        {"nothing plays", {{10, 11}, {100, 101}, {}, 100, {}, {}}, false},
        {"moved to another device", {{10, 11}, {100, 101}, {51}, 100, {10}, {100}}, true},
    };
    for (const auto& [what, current, refresh] : cases)
        EXPECT_EQ(bound.needsRefresh(current), refresh) << what;
}

TEST(CoalescedRefreshState, RequestsDuringAPassCostExactlyOneMorePass) {
    CoalescedRefreshState state;
    EXPECT_EQ(state.generationForNextPass("a"), 0u);
    ASSERT_TRUE(state.request("a")); // idle: the caller starts a pass
    const auto first = state.generationForNextPass("a");
    // Three requests while it runs start nothing, and another key is not held up by it.
    EXPECT_EQ(std::vector({state.request("a"), state.request("a"), state.request("b"), state.request("a")}),
              std::vector({false, false, true, false}));
    EXPECT_TRUE(state.finishPass("a", first)); // one more pass covers all three
    const auto second = state.generationForNextPass("a");
    EXPECT_GT(second, first);
    EXPECT_FALSE(state.finishPass("a", second));
    EXPECT_FALSE(state.isActive("a"));
    EXPECT_TRUE(state.isActive("b"));
    EXPECT_TRUE(state.request("a")); // idle again
}

TEST(TapActivityWindow, CountsFromTheLastSoundOrElseFromCreation) {
    // lastRawAudioAt, createdAt, lastIOAt, now; recent within 2 s; inactive beyond 20 s.
    const std::tuple<double, double, double, double, std::optional<bool>, bool> cases[] = {
        {0, 1000, 1000, 1001, true, false},
        {0, 1000, 1000, 1021, false, true},
        {1015, 1000, 1020, 1017, true, false},
        {1015, 1000, 1020, 1017.5, false, false},
        {1015, 1000, 1020, 1036, false, true},
        {NAN, 1000, 1000, 1001, std::nullopt, false},
        {0, 1000, INFINITY, 1001, std::nullopt, false},
    };
    for (const auto& [raw, created, io, now, recent, inactive] : cases) {
        EXPECT_EQ(TapActivityWindow::recentSignal(raw, created, io, now, 2.0), recent) << now;
        EXPECT_EQ(TapActivityWindow::isRawAudioInactive(raw, created, now, 20.0), inactive) << now;
    }
}

TEST(OutputEligibility, StandingControlNeedsNoSound) {
    std::vector<AppAudioState> apps{AppAudioState("a.half"), AppAudioState("b.unity"),
                                    AppAudioState("c.held"), AppAudioState("d.direct")};
    apps[0].volume = 0.5;
    apps[2].directLocked = apps[2].muteWhileBypassed = apps[3].directLocked = apps[3].muted = true;
    // A solo claims the audible apps it has to silence, and nothing else.
    const IDSet audible{"b.unity", "e.other"};
    EXPECT_EQ(OutputEligibility::standingControl(apps, std::nullopt, audible), (IDSet{"a.half", "c.held"}));
    EXPECT_EQ(OutputEligibility::standingControl(apps, IDSet{"b.unity"}, audible),
              (IDSet{"a.half", "c.held", "e.other"}));

    OutputEligibility eligibility;
    eligibility.publish({"a.half", "e.other"}, {});
    EXPECT_EQ(eligibility.creationEligibility({"x.standing"}), (IDSet{"a.half", "e.other", "x.standing"}));
    eligibility.forget("a.half");
    EXPECT_EQ(eligibility.outputEligible(), IDSet{"e.other"});
    // A row that loses its need keeps eligibility only while the app plays.
    eligibility.noteRowChanged("b.unity", true, false);
    eligibility.noteRowChanged("e.other", false, true);
    EXPECT_EQ(eligibility.outputEligible(), (IDSet{"b.unity", "e.other"}));
    eligibility.noteRowChanged("b.unity", false, false);
    EXPECT_EQ(eligibility.outputEligible(), IDSet{"e.other"});
}

} // namespace
} // namespace tonavi
