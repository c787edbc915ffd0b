#include "service/worker/TapRecoveryBackoff.hpp"

#include <gtest/gtest.h>

using namespace tonavi;

TEST(TapRecoveryBackoff, DelaysDoubleToTheMaximumPerKeyAndStartAfreshOnANewIssueOrAReset) {
    TapRecoveryBackoff backoff(2.0, 30.0);
    double now = 100.0;
    for (double delay : {2, 4, 8, 16, 30, 30}) {
        ASSERT_TRUE(backoff.permit("app", "issue", now));
        EXPECT_FALSE(backoff.permit("app", "issue", now + delay - 0.01)) << delay;
        now += delay;
    }
    EXPECT_TRUE(backoff.permit("other", "issue", now)) << "keys are independent";
    EXPECT_TRUE(backoff.permit("app", "b", now)) << "a changed cause goes at once";
    EXPECT_FALSE(backoff.permit("app", "b", now + 1.9));
    backoff.reset("app");
    EXPECT_TRUE(backoff.permit("app", "b", now + 1.9));

    TapRecoveryBackoff floored(0.0, 0.0);
    EXPECT_TRUE(floored.permit("app", "a", 0));
    EXPECT_DOUBLE_EQ(floored.entries().at("app").nextAllowedAt, 0.1);
    EXPECT_TRUE(floored.permit("app", "a", 0.1));
    EXPECT_DOUBLE_EQ(floored.entries().at("app").nextAllowedAt, 0.2) << "capped at the initial delay";
}
