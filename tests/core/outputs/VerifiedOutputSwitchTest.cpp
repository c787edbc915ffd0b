#include "core/outputs/VerifiedOutputSwitch.hpp"

#include <gtest/gtest.h>

#include <deque>

namespace tonavi {
namespace {

// A default output that moves to the requested device after `settleReads` further reads, unless
// the write is refused or silently dropped. Scheduled steps wait until the test drains them.
struct FakeSystem {
    std::string current = "speakers", pending;
    int settleReads = 0, requests = 0, reads = 0;
    bool refuse = false, drop = false;
    std::deque<std::function<void()>> steps;

    bool request(const std::string& target) {
        ++requests;
        if (!drop && !refuse)
            pending = target;
        return !refuse;
    }
    std::optional<std::string> read() {
        ++reads;
        if (!pending.empty() && settleReads-- <= 0)
            current = std::exchange(pending, "");
        return current;
    }
    VerifiedOutputSwitch::Schedule schedule() {
        return [this](std::function<void()> f) { steps.push_back(std::move(f)); };
    }
    void drain() {
        while (!steps.empty()) {
            auto f = std::move(steps.front());
            steps.pop_front();
            f();
        }
    }
};

const std::vector<std::tuple<const char*, std::string, int, int, bool, bool, bool, int>> cases{
    {"already there: nothing requested", "speakers", 3, 0, false, false, true, 0},
    {"settles within the attempts", "bt", 3, 2, false, false, true, 1},
    {"settles too late", "bt", 3, 9, false, false, false, 1},
    {"dropped write", "usb", 3, 0, false, true, false, 1},
    {"refused write", "usb", 3, 0, true, false, false, 1},
    {"empty target", "", 3, 0, false, false, false, 0}};

TEST(VerifiedOutputSwitch, EveryFormSucceedsOnlyWhenTheSystemReportsTheTarget) {
    for (const auto& [why, target, attempts, settleReads, refuse, drop, expected, requests] : cases) {
        const FakeSystem fresh{"speakers", "", settleReads, 0, 0, refuse, drop, {}};
        FakeSystem blocking = fresh, async = fresh, nb = fresh;
        EXPECT_EQ(VerifiedOutputSwitch::perform(
                      target, attempts, [&] { return blocking.request(target); },
                      [&] { return blocking.read(); }, [] {}),
                  expected)
            << why;
        EXPECT_EQ(blocking.requests, requests) << why;

        std::optional<bool> asyncResult;
        VerifiedOutputSwitch::performAsync(
            target, attempts, [&] { return async.request(target); }, [&] { return async.read(); },
            [] { return true; }, async.schedule(), [&](bool ok) { asyncResult = ok; });
        async.drain();
        EXPECT_EQ(asyncResult, expected) << why;

        // The non-blocking request finds an already-current target itself and writes nothing.
        std::optional<bool> nbResult;
        VerifiedOutputSwitch::performNonblocking(
            target, attempts,
            [&](auto done) {
                nb.steps.push_back([&, done] { done(nb.current == target || nb.request(target)); });
            },
            [&](auto done) { nb.steps.push_back([&, done] { done(nb.read()); }); }, [] { return true; },
            nb.schedule(), [&](bool ok) { nbResult = ok; });
        nb.drain();
        EXPECT_EQ(nbResult, expected) << why;
        EXPECT_EQ(nb.requests, requests) << why;
        if (drop) { // attempts delays mean attempts + 1 reads
            EXPECT_EQ(nb.reads, attempts + 1) << why;
        }
    }
}

TEST(VerifiedOutputSwitch, ASupersededSwitchStopsAtTheNextPoll) {
    FakeSystem sys{"speakers", "", 100, 0, 0, false, false, {}};
    bool current = true;
    std::optional<bool> result;
    VerifiedOutputSwitch::performAsync(
        "bt", 50, [&] { return sys.request("bt"); }, [&] { return sys.read(); }, [&] { return current; },
        sys.schedule(), [&](bool ok) { result = ok; });
    EXPECT_FALSE(result);
    current = false;
    sys.drain();
    EXPECT_EQ(result, false);
    EXPECT_EQ(sys.reads, 2); // before the request and after it; the poll read nothing
}

} // namespace
} // namespace tonavi
