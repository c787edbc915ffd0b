#include "core/outputs/VerifiedOutputSwitch.hpp"

#include <gtest/gtest.h>

#include <deque>

namespace tonavi {
namespace {

// A system whose default output becomes the requested one after `settleReads` further reads,
// and that can ignore the write altogether.
struct FakeSystem {
    std::string current = "speakers";
    std::string pending;
    int settleReads = 0;
    bool acceptWrite = true;
    bool dropWrite = false;
    int requests = 0;
    int reads = 0;

    bool request(const std::string& target) {
        ++requests;
        if (!acceptWrite)
            return false;
        if (!dropWrite)
            pending = target;
        return true;
    }
    std::optional<std::string> read() {
        ++reads;
        if (!pending.empty() && settleReads-- <= 0) {
            current = pending;
            pending.clear();
        }
        return current;
    }
};

TEST(VerifiedOutputSwitch, BlockingSwitchSucceedsOnlyWhenTheSystemReportsTheTarget) {
    struct Case {
        const char* why;
        std::string target;
        int attempts;
        int settleReads;
        bool accept;
        bool drop;
        bool expected;
        int requests;
    };
    const std::vector<Case> cases{
        {"already there", "speakers", 3, 0, true, false, true, 0},
        {"immediate", "usb", 3, 0, true, false, true, 1},
        {"settles within the attempts", "bt", 3, 2, true, false, true, 1},
        {"settles too late", "bt", 3, 5, true, false, false, 1},
        {"write dropped", "usb", 3, 0, true, true, false, 1},
        {"write refused", "usb", 3, 0, false, false, false, 1},
        {"no attempts", "usb", 0, 0, true, false, false, 0},
        {"empty target", "", 3, 0, true, false, false, 0},
    };
    for (const auto& c : cases) {
        FakeSystem sys;
        sys.settleReads = c.settleReads;
        sys.acceptWrite = c.accept;
        sys.dropWrite = c.drop;
        int waits = 0;
        const bool ok = VerifiedOutputSwitch::perform(
            c.target, c.attempts, [&] { return sys.request(c.target); }, [&] { return sys.read(); },
            [&] { ++waits; });
        EXPECT_EQ(ok, c.expected) << c.why;
        EXPECT_EQ(sys.requests, c.requests) << c.why;
        EXPECT_LE(waits, c.attempts) << c.why;
    }
}

// Scheduled steps are kept until the test runs them, like a queue stepped by hand.
struct StepQueue {
    std::deque<std::function<void()>> steps;
    VerifiedOutputSwitch::Schedule schedule() {
        return [this](std::function<void()> f) { steps.push_back(std::move(f)); };
    }
    int drain() {
        int n = 0;
        while (!steps.empty()) {
            auto f = std::move(steps.front());
            steps.pop_front();
            f();
            ++n;
        }
        return n;
    }
};

TEST(VerifiedOutputSwitch, AsyncSwitchPollsAndStopsWhenSuperseded) {
    {
        FakeSystem sys;
        sys.settleReads = 3;
        StepQueue q;
        std::optional<bool> result;
        VerifiedOutputSwitch::performAsync(
            "bt", 5, [&] { return sys.request("bt"); }, [&] { return sys.read(); }, [] { return true; },
            q.schedule(), [&](bool ok) { result = ok; });
        EXPECT_FALSE(result);
        q.drain();
        EXPECT_EQ(result, true);
    }
    {
        FakeSystem sys;
        sys.dropWrite = true;
        StepQueue q;
        std::optional<bool> result;
        VerifiedOutputSwitch::performAsync(
            "usb", 4, [&] { return sys.request("usb"); }, [&] { return sys.read(); }, [] { return true; },
            q.schedule(), [&](bool ok) { result = ok; });
        EXPECT_EQ(q.drain(), 4); // polls with 4, 3, 2, 1 remaining
        EXPECT_EQ(result, false);
    }
    {
        FakeSystem sys;
        sys.settleReads = 100;
        StepQueue q;
        bool current = true;
        std::optional<bool> result;
        VerifiedOutputSwitch::performAsync(
            "bt", 50, [&] { return sys.request("bt"); }, [&] { return sys.read(); }, [&] { return current; },
            q.schedule(), [&](bool ok) { result = ok; });
        current = false;
        EXPECT_EQ(q.drain(), 1);
        EXPECT_EQ(result, false);
    }
}

TEST(VerifiedOutputSwitch, NonblockingSwitchReadsAttemptsPlusOneTimes) {
    struct Case {
        const char* why;
        std::string target;
        int attempts;
        int settleReads;
        bool drop;
        bool expected;
        int reads;
    };
    const std::vector<Case> cases{
        {"already there: request reports true, first poll succeeds", "speakers", 3, 0, false, true, 1},
        {"settles on the last read", "bt", 3, 3, false, true, 4},
        {"dropped write fails after attempts + 1 reads", "usb", 3, 0, true, false, 4},
        {"zero attempts touches nothing", "usb", 0, 0, false, false, 0},
        {"empty target touches nothing", "", 3, 0, false, false, 0},
    };
    for (const auto& c : cases) {
        FakeSystem sys;
        sys.settleReads = c.settleReads;
        sys.dropWrite = c.drop;
        StepQueue q;
        std::optional<bool> result;
        VerifiedOutputSwitch::performNonblocking(
            c.target, c.attempts,
            [&](std::function<void(bool)> done) {
                // Like the device manager: a target that is already current needs no write.
                q.steps.push_back([&, done] { done(sys.current == c.target || sys.request(c.target)); });
            },
            [&](std::function<void(std::optional<std::string>)> done) {
                q.steps.push_back([&, done] { done(sys.read()); });
            },
            [] { return true; }, q.schedule(), [&](bool ok) { result = ok; });
        q.drain();
        EXPECT_EQ(result, c.expected) << c.why;
        EXPECT_EQ(sys.reads, c.reads) << c.why;
        const bool writes = c.attempts > 0 && !c.target.empty() && c.target != "speakers";
        EXPECT_EQ(sys.requests, writes ? 1 : 0) << c.why;
    }
}

} // namespace
} // namespace tonavi
