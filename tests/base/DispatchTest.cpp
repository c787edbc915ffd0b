#include "base/Dispatch.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <future>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace tonavi;
using namespace std::chrono_literals;

TEST(DispatchQueue, SerialQueueRunsInOrderOnOneThreadAndSyncRunsInlineOnItsOwnQueue) {
    DispatchQueue q("test.serial");
    std::vector<int> order;
    std::set<std::thread::id> threads;
    for (int i = 0; i < 1000; ++i)
        q.async([&, i] { order.push_back(i), threads.insert(std::this_thread::get_id()); });
    q.sync([] {}); // waits for the work queued so far
    EXPECT_TRUE(order.size() == 1000 && std::is_sorted(order.begin(), order.end()));
    EXPECT_TRUE(threads.size() == 1 && !threads.count(std::this_thread::get_id()));
    EXPECT_EQ(std::pair(q.isCurrent(), q.syncResult([&] { return q.isCurrent(); })), std::pair(false, true));
    // A nested sync on the same queue would deadlock if it queued; it must run inline.
    EXPECT_EQ(q.syncResult([&] { return q.syncResult([] { return 7; }); }), 7);
    EXPECT_THROW(q.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
    EXPECT_EQ(q.syncResult([] { return 1; }), 1); // the queue survives a throwing item
}

TEST(DispatchQueue, AfterWithManualClockFiresExactlyWhenDueInTimeOrderUnlessCancelled) {
    auto clock = std::make_shared<ManualClock>();
    DispatchQueue q("test.after", clock);
    std::vector<std::string> fired; // only touched on the queue
    auto record = [&](std::string s) { return [&, s] { fired.push_back(s); }; };
    // The same due time keeps submission order.
    for (auto [delay, name] : {std::pair{300ms, "c"}, {100ms, "a"}, {200ms, "b1"}, {200ms, "b2"}})
        q.after(delay, record(name));
    auto item = std::make_shared<WorkItem>(record("cancelled"));
    q.after(150ms, item);
    item->cancel();
    const auto at = [&](std::chrono::milliseconds by) {
        clock->advance(by);
        return q.syncResult([&] { return fired; });
    };
    EXPECT_TRUE(at(99ms).empty());
    EXPECT_EQ(at(1ms), (std::vector<std::string>{"a"}));
    EXPECT_EQ(at(200ms), (std::vector<std::string>{"a", "b1", "b2", "c"}));

    // On the real clock, never early.
    DispatchQueue real("test.after-real");
    const auto start = std::chrono::steady_clock::now();
    std::promise<std::chrono::steady_clock::duration> firedAt;
    real.after(20ms, [&] { firedAt.set_value(std::chrono::steady_clock::now() - start); });
    EXPECT_GE(firedAt.get_future().get(), 20ms);
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
        q.sync([] {}), q.sync([] {});
        return ticks.load();
    };
    // Ten periods pass at once (to 28.999 s): one tick, not a burst; the next keeps to the grid (30 s).
    const std::pair<std::chrono::milliseconds, int> steps[] = {{1999ms, 0}, {2s, 1},     {2s, 2}, {2s, 3},
                                                               {21s, 4},    {1000ms, 4}, {1ms, 5}};
    for (auto [by, ticksThen] : steps)
        EXPECT_EQ(step(by), ticksThen) << by.count();
    timer.cancel();
    EXPECT_EQ(step(10s), 5);
}

TEST(DispatchQueue, GlobalQueueRunsConcurrentlyAndMainRunsOnTheThreadThatRunsIt) {
    // Two items that each wait for the other can only finish if they run at the same time.
    // The items own what they touch: the first may still be leaving its wait when the test ends.
    auto& g = DispatchQueue::global(QoS::utility);
    struct Meeting {
        std::promise<void> a, b, done;
        std::shared_future<void> fa = a.get_future().share(), fb = b.get_future().share();
    };
    auto meeting = std::make_shared<Meeting>();
    auto done = meeting->done.get_future();
    g.async([meeting] { meeting->a.set_value(), meeting->fb.wait(); });
    g.async([meeting] { meeting->b.set_value(), meeting->fa.wait(), meeting->done.set_value(); });
    EXPECT_EQ(done.wait_for(10s), std::future_status::ready);

    std::atomic<bool> stop{false};
    std::thread::id ranOn;
    std::jthread feeder([&] {
        DispatchQueue::main().async([&] { ranOn = std::this_thread::get_id(); });
        DispatchQueue::main().async([&] { stop = true; });
    });
    DispatchQueue::runMainUntil([&] { return stop.load(); });
    EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(EventSources, SignalsAndProcessExitsArriveOnTheirQueueAndNeverOnceCancelled) {
    DispatchQueue q("test.sources");
    std::promise<bool> delivered;
    SignalSource source(SIGUSR1, q, [&] { delivered.set_value(q.isCurrent()); });
    source.resume();
    ::raise(SIGUSR1);
    auto f = delivered.get_future();
    EXPECT_TRUE(f.wait_for(10s) == std::future_status::ready && f.get());
    source.cancel();
    ::raise(SIGUSR1); // a cancelled source swallows the signal instead of killing the process

    // Process exits, once the handler reaps; the child waits until it is killed.
    const auto startChild = [] {
        const pid_t pid = ::fork();
        while (pid == 0)
            ::pause();
        return pid;
    };
    // With a pid descriptor, and as a kernel without them makes us watch: a dead child is a zombie
    // until the handler reaps it, and must count as gone all the same.
    for (const bool descriptors : {true, false}) {
        ProcessExitSource::setPidDescriptorsForTesting(descriptors);
        const pid_t child = startChild();
        std::promise<std::pair<bool, int>> fired;
        auto result = fired.get_future();
        ProcessExitSource watch(child, q, [&, status = 0]() mutable {
            ::waitpid(child, &status, 0);
            fired.set_value({q.isCurrent(), WIFSIGNALED(status) ? WTERMSIG(status) : -1});
        });
        watch.resume();
        EXPECT_EQ(result.wait_for(150ms), std::future_status::timeout) << "fired while the child lives";
        ::kill(child, SIGKILL);
        EXPECT_TRUE(result.wait_for(5s) == std::future_status::ready && result.get() == std::pair(true, SIGKILL))
            << "pid descriptors " << descriptors;
    }
    ProcessExitSource::setPidDescriptorsForTesting(true);

    // A cancelled watch never fires; a process already gone fires at once.
    const pid_t held = startChild();
    std::atomic<int> calls{0};
    {
        ProcessExitSource cancelled(held, q, [&] { ++calls; });
        cancelled.resume();
        cancelled.cancel();
    } // destruction waits for the watch thread
    ::kill(held, SIGKILL);
    ::waitpid(held, nullptr, 0);
    std::promise<void> lateFired;
    ProcessExitSource late(held, q, [&] { lateFired.set_value(); });
    late.resume();
    EXPECT_EQ(lateFired.get_future().wait_for(5s), std::future_status::ready);
    q.sync([] {});
    EXPECT_EQ(calls.load(), 0);
}
