#include "core/wire/MixerCommandBuffer.hpp"
#include "core/wire/MixerCommandDispatcher.hpp"
#include "core/wire/MixerPresentation.hpp"
#include "core/wire/MixerWindowSizing.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <latch>
#include <limits>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

using namespace tonavi;
using namespace std::chrono_literals;

namespace {

struct Append {
    const char* key; // nullptr: no key
    int value;
};

struct BufferCase {
    const char* name;
    std::vector<Append> appends;
    std::vector<int> expected; // values in the order they come out
};

TEST(MixerCommandBufferTest, OrdersAndCoalesces) {
    const BufferCase cases[] = {
        {"a newer key moves to the end", {{"a", 1}, {"b", 2}, {"a", 3}}, {2, 3}},
        {"a keyless entry is a barrier", {{"a", 1}, {nullptr, 2}, {"a", 3}}, {1, 2, 3}},
        {"no key removes nothing", {{nullptr, 1}, {nullptr, 1}, {"a", 2}, {nullptr, 3}}, {1, 1, 2, 3}},
        {"only the newest barrier counts",
         {{"a", 1}, {nullptr, 2}, {"a", 3}, {"b", 4}, {"a", 5}},
         {1, 2, 4, 5}},
        {"one replacement per append", {{"a", 1}, {"a", 2}, {"a", 3}}, {3}},
    };
    for (const auto& c : cases) {
        MixerCommandBuffer<int> buffer;
        for (const auto& a : c.appends)
            buffer.append(a.value, a.key ? std::optional<std::string>(a.key) : std::nullopt);
        EXPECT_EQ(buffer.count(), c.expected.size()) << c.name;
        std::vector<int> out;
        while (auto v = buffer.popFirst())
            out.push_back(*v);
        EXPECT_EQ(out, c.expected) << c.name;
        EXPECT_EQ(buffer.count(), 0u) << c.name;
    }
}

TEST(MixerPresentationTest, MeterSegments) {
    const std::pair<float, int> cases[] = {{1.5f, 10},
                                           {-1.f, 0},
                                           {0.19f, 1},
                                           {0.f, 0},
                                           {1.f, 10},
                                           {0.7f, 7},
                                           {0.0999f, 0},
                                           {std::numeric_limits<float>::quiet_NaN(), 0},
                                           {std::numeric_limits<float>::infinity(), 0}};
    for (const auto& [level, segments] : cases)
        EXPECT_EQ(MixerPresentation::meterSegments(level), segments) << level;
}

TEST(MixerWindowSizingTest, Rules) {
    using MixerWindowSizing::Size;
    struct Fitted {
        int rows;
        Size available;
        bool compact;
        Size expected;
    };
    const Fitted fitted[] = {
        {0, {800, 1400}, false, {640, 460}}, // 0 rows count as 1
        {1, {1400, 1400}, false, {960, 420}}, {10, {1400, 1400}, false, {960, 880}},
        {10, {1400, 700}, false, {960, 700}}, {3, {1049, 1400}, false, {640, 660}},
        {3, {1400, 1400}, true, {640, 660}},  {2, {300, 300}, true, {500, 420}},
    };
    for (const auto& f : fitted)
        EXPECT_EQ(MixerWindowSizing::fittedRows(f.rows, f.available, f.compact), f.expected)
            << f.rows << " rows in " << f.available.width << "x" << f.available.height;
    EXPECT_EQ(MixerWindowSizing::fittedRows(-4, {800, 1400}, false),
              MixerWindowSizing::fittedRows(1, {800, 1400}, false));

    const std::tuple<Size, Size, Size> constrained[] = {
        {{300, 300}, {2000, 2000}, {500, 420}},     {{900, 800}, {2000, 2000}, {900, 800}},
        {{1500, 1500}, {2000, 2000}, {1100, 1100}}, {{900, 800}, {700, 600}, {700, 600}},
        {{900, 800}, {100, 100}, {500, 420}},
    };
    for (const auto& [size, available, expected] : constrained)
        EXPECT_EQ(MixerWindowSizing::constrained(size, available), expected)
            << size.width << "x" << size.height;
}

TEST(MixerCommandDispatcherTest, SubmitsDuringARunningCommandJoinItsDrainAndCoalesce) {
    MixerCommandDispatcher dispatcher;
    std::latch entered(1), open(1); // the first command blocks until the test lets it go
    std::mutex ranLock;
    std::vector<std::string> ran;
    auto record = [&](std::string what) {
        return [&, what] {
            std::lock_guard guard(ranLock);
            ran.push_back(what);
        };
    };
    dispatcher.submit("Music.volume", [&] {
        entered.count_down();
        open.wait();
        record("Music 10%")();
    });
    entered.wait();
    for (int percent = 11; percent <= 60; ++percent)
        dispatcher.submit("Music.volume", record("Music " + std::to_string(percent) + "%"));
    dispatcher.submit("Music.mute", record("Music muted"));
    dispatcher.submit(std::nullopt, record("stage on"));
    dispatcher.submit("Music.volume", record("Music 70%"));
    EXPECT_EQ(dispatcher.drainsStarted(), 1u);
    open.count_down();
    ASSERT_TRUE(dispatcher.waitUntilIdle(10s));
    EXPECT_EQ(ran,
              (std::vector<std::string>{"Music 10%", "Music 60%", "Music muted", "stage on", "Music 70%"}));
    EXPECT_EQ(dispatcher.drainsStarted(), 1u);

    // Idle again: the next submit starts a drain of its own.
    dispatcher.submit("Music.volume", record("Music 80%"));
    ASSERT_TRUE(dispatcher.waitUntilIdle(10s));
    EXPECT_EQ(dispatcher.drainsStarted(), 2u);
    EXPECT_EQ(ran.back(), "Music 80%");
}

// Many threads drag their own control while the drain runs: commands never overlap, and for every key the
// last value submitted is the last one run.
TEST(MixerCommandDispatcherTest, ManyThreadsSubmittingWhileTheDrainRuns) {
    constexpr int threads = 8;
    constexpr int perThread = 2000;
    MixerCommandDispatcher dispatcher;
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    std::atomic<int> executed{0};
    std::map<int, int> lastRun; // touched only by commands, which run one at a time
    std::vector<std::thread> senders;
    for (int t = 0; t < threads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 1; i <= perThread; ++i) {
                // Every hundredth command of a thread is a barrier.
                const bool barrier = i % 100 == 50;
                dispatcher.submit(barrier ? std::nullopt
                                          : std::optional<std::string>("app" + std::to_string(t)),
                                  [&, t, i] {
                                      if (running.fetch_add(1) != 0)
                                          overlapped = true;
                                      lastRun[t] = i;
                                      executed.fetch_add(1);
                                      running.fetch_sub(1);
                                  });
            }
        });
    }
    for (auto& s : senders)
        s.join();
    ASSERT_TRUE(dispatcher.waitUntilIdle(30s));
    EXPECT_FALSE(overlapped);
    for (int t = 0; t < threads; ++t)
        EXPECT_EQ(lastRun[t], perThread) << "thread " << t;
    // Every barrier runs, so at least that many commands did; coalescing is what keeps it below the total.
    EXPECT_GE(executed.load(), threads * perThread / 100);
    EXPECT_LE(executed.load(), threads * perThread);
}

} // namespace
