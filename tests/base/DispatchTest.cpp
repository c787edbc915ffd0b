#include "base/Dispatch.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <future>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

using namespace tonavi;
using namespace std::chrono_literals;

namespace {
// Waits for all work queued so far on a serial queue.
void drain(DispatchQueue& q) { q.sync([] {}); }
}  // namespace

TEST(DispatchQueue, SerialQueueRunsInSubmissionOrderOnOneThread) {
    DispatchQueue q("test.serial");
    std::vector<int> order;
    std::set<std::thread::id> threads;
    for (int i = 0; i < 1000; ++i) {
        q.async([&, i] {
            order.push_back(i);
            threads.insert(std::this_thread::get_id());
        });
    }
    drain(q);
    ASSERT_EQ(order.size(), 1000u);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(order[i], i);
    EXPECT_EQ(threads.size(), 1u);
    EXPECT_EQ(threads.count(std::this_thread::get_id()), 0u);
}

TEST(DispatchQueue, SyncReturnsResultsRunsInlineOnItsOwnQueueAndPropagatesExceptions) {
    DispatchQueue q("test.sync");
    EXPECT_FALSE(q.isCurrent());
    EXPECT_EQ(q.syncResult([&] { return q.isCurrent() ? 42 : -1; }), 42);
    // A nested sync on the same queue would deadlock if it queued; it must run inline.
    int nested = q.syncResult([&] { return q.syncResult([] { return 7; }); });
    EXPECT_EQ(nested, 7);
    EXPECT_THROW(q.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
    EXPECT_EQ(q.syncResult([] { return 1; }), 1);  // the queue survives a throwing item
}

TEST(DispatchQueue, CancelledWorkItemNeverRunsAndUncancelledOneDoes) {
    DispatchQueue q("test.cancel");
    std::promise<void> gate;
    auto gateFuture = gate.get_future().share();
    q.async([gateFuture] { gateFuture.wait(); });  // hold the queue while we cancel
    int ran = 0;
    auto cancelled = std::make_shared<WorkItem>([&] { ran += 1; });
    auto kept = std::make_shared<WorkItem>([&] { ran += 10; });
    q.async(cancelled);
    q.async(kept);
    cancelled->cancel();
    gate.set_value();
    drain(q);
    EXPECT_EQ(ran, 10);
    EXPECT_TRUE(cancelled->isCancelled());
}

TEST(DispatchQueue, AfterWithManualClockFiresExactlyWhenDueInTimeOrder) {
    auto clock = std::make_shared<ManualClock>();
    DispatchQueue q("test.after", clock);
    std::mutex m;
    std::vector<std::string> fired;
    auto record = [&](std::string s) {
        return [&, s] {
            std::lock_guard<std::mutex> g(m);
            fired.push_back(s);
        };
    };
    q.after(300ms, record("c"));
    q.after(100ms, record("a"));
    q.after(200ms, record("b1"));
    q.after(200ms, record("b2"));  // same due time keeps submission order
    auto item = std::make_shared<WorkItem>(record("cancelled"));
    q.after(150ms, item);
    item->cancel();

    clock->advance(99ms);
    drain(q);
    EXPECT_TRUE(fired.empty());
    clock->advance(1ms);
    drain(q);
    EXPECT_EQ(fired, (std::vector<std::string>{"a"}));
    clock->advance(200ms);
    drain(q);
    EXPECT_EQ(fired, (std::vector<std::string>{"a", "b1", "b2", "c"}));
}

TEST(DispatchTimer, RepeatsAtItsIntervalSkipsMissedTicksAndStopsWhenCancelled) {
    auto clock = std::make_shared<ManualClock>();
    DispatchQueue q("test.timer", clock);
    std::atomic<int> ticks{0};
    DispatchTimer timer(q, 2s, 2s, [&] { ticks++; });
    timer.resume();
    // The re-armed tick is queued by the fired one, hence two drains per step.
    const auto step = [&](std::chrono::milliseconds by) {
        clock->advance(by);
        drain(q);
        drain(q);
        return ticks.load();
    };
    EXPECT_EQ(step(1999ms), 0);
    for (int i = 1; i <= 3; ++i) EXPECT_EQ(step(2s), i);
    // Ten periods pass at once (to 28.999 s): one tick, not a burst; the next keeps to the grid (30 s).
    EXPECT_EQ(step(21s), 4);
    EXPECT_EQ(step(1000ms), 4);
    EXPECT_EQ(step(1ms), 5);
    timer.cancel();
    EXPECT_EQ(step(10s), 5);
}

TEST(DispatchTimer, RealClockNeverFiresEarly) {
    DispatchQueue q("test.timer-real");
    auto start = std::chrono::steady_clock::now();
    std::promise<std::vector<std::chrono::steady_clock::duration>> done;
    std::vector<std::chrono::steady_clock::duration> at;
    DispatchTimer timer(q, 20ms, 20ms, [&] {
        at.push_back(std::chrono::steady_clock::now() - start);
        if (at.size() == 3) done.set_value(at);
    });
    timer.resume();
    auto times = done.get_future().get();
    timer.cancel();
    drain(q);
    for (size_t i = 0; i < times.size(); ++i) {
        EXPECT_GE(times[i], std::chrono::milliseconds(20 * (i + 1)));
        EXPECT_LT(times[i], std::chrono::milliseconds(20 * (i + 1)) + 2s);  // generous: CI machines stall
    }
}

TEST(DispatchQueue, GlobalQueueRunsWorkConcurrently) {
    // Two items that each wait for the other can only finish if they run at the same time.
    auto& g = DispatchQueue::global(QoS::utility);
    std::promise<void> a, b;
    auto fa = a.get_future().share(), fb = b.get_future().share();
    std::promise<void> done1, done2;
    g.async([&] {
        a.set_value();
        fb.wait();
        done1.set_value();
    });
    g.async([&] {
        b.set_value();
        fa.wait();
        done2.set_value();
    });
    EXPECT_EQ(done1.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_EQ(done2.get_future().wait_for(10s), std::future_status::ready);
}

TEST(DispatchQueue, MainQueueRunsOnTheThreadThatRunsIt) {
    std::atomic<bool> stop{false};
    std::thread::id ranOn;
    std::thread feeder([&] {
        DispatchQueue::main().async([&] { ranOn = std::this_thread::get_id(); });
        DispatchQueue::main().async([&] { stop = true; });
    });
    DispatchQueue::runMainUntil([&] { return stop.load(); });
    feeder.join();
    EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(SignalSource, DeliversTheSignalToItsQueueNotInSignalContext) {
    DispatchQueue q("test.signal");
    std::promise<bool> delivered;
    SignalSource source(SIGUSR1, q, [&] { delivered.set_value(q.isCurrent()); });
    source.resume();
    ::raise(SIGUSR1);
    auto f = delivered.get_future();
    ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(f.get());
    source.cancel();
    ::raise(SIGUSR1);  // a cancelled source swallows the signal instead of killing the process
    drain(q);
}
