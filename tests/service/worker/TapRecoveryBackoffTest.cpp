#include "service/worker/TapRecoveryBackoff.hpp"

#include <gtest/gtest.h>

using namespace tonavi;

TEST(TapRecoveryBackoff, OneIssueIsRetriedAfterDoublingDelaysUpToTheMaximum) {
    TapRecoveryBackoff backoff(2.0, 30.0);
    double now = 100.0;
    const double delays[] = {2, 4, 8, 16, 30, 30};
    for (double delay : delays) {
        ASSERT_TRUE(backoff.permit("app", "issue", now));
        EXPECT_FALSE(backoff.permit("app", "issue", now + delay - 0.01)) << delay;
        now += delay;
    }
    EXPECT_TRUE(backoff.permit("other", "issue", now)) << "keys are independent";
}

TEST(TapRecoveryBackoff, ANewIssueOrAResetStartsAFreshSeries) {
    TapRecoveryBackoff backoff(2.0, 30.0);
    EXPECT_TRUE(backoff.permit("app", "a", 0));
    EXPECT_TRUE(backoff.permit("app", "a", 2));
    EXPECT_TRUE(backoff.permit("app", "b", 2.5)) << "a changed cause goes at once";
    EXPECT_EQ(backoff.entries().at("app").attempt, 1);
    EXPECT_FALSE(backoff.permit("app", "b", 4.4));
    backoff.reset("app");
    EXPECT_TRUE(backoff.permit("app", "b", 4.4));
}

TEST(TapRecoveryBackoff, DelaysAreFlooredAtATenthAndTheMaximumAtTheInitial) {
    TapRecoveryBackoff backoff(0.0, 0.0);
    EXPECT_TRUE(backoff.permit("app", "a", 0));
    EXPECT_DOUBLE_EQ(backoff.entries().at("app").nextAllowedAt, 0.1);
    EXPECT_TRUE(backoff.permit("app", "a", 0.1));
    EXPECT_DOUBLE_EQ(backoff.entries().at("app").nextAllowedAt, 0.2) << "capped at the initial delay";
}
