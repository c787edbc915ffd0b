#include "base/Dispatch.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <future>
#include <sys/wait.h>
#include <unistd.h>

using namespace tonavi;
using namespace std::chrono_literals;

namespace {
// A child that waits until it is killed.
pid_t startChild() {
    pid_t pid = ::fork();
    if (pid == 0) {
        for (;;)
            ::pause();
    }
    return pid;
}
} // namespace

TEST(ProcessExitSource, FiresOnItsQueueOnceTheProcessEndsAndLetsTheHandlerReapIt) {
    DispatchQueue queue("test.exit");
    const pid_t child = startChild();
    ASSERT_GT(child, 0);
    std::promise<std::pair<bool, int>> fired;
    ProcessExitSource source(child, queue, [&] {
        int status = 0;
        ::waitpid(child, &status, 0);
        fired.set_value({queue.isCurrent(), WIFSIGNALED(status) ? WTERMSIG(status) : -1});
    });
    source.resume();
    auto result = fired.get_future();
    EXPECT_EQ(result.wait_for(100ms), std::future_status::timeout) << "fired while the child lives";
    ::kill(child, SIGKILL);
    ASSERT_EQ(result.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(result.get(), std::make_pair(true, SIGKILL));
}

TEST(ProcessExitSource, AProcessAlreadyGoneFiresAtOnceAndACancelledSourceNever) {
    DispatchQueue queue("test.exit");
    const pid_t gone = startChild();
    ::kill(gone, SIGKILL);
    ::waitpid(gone, nullptr, 0);
    std::promise<void> fired;
    ProcessExitSource late(gone, queue, [&] { fired.set_value(); });
    late.resume();
    EXPECT_EQ(fired.get_future().wait_for(5s), std::future_status::ready);

    const pid_t child = startChild();
    std::atomic<int> calls{0};
    {
        ProcessExitSource cancelled(child, queue, [&] { ++calls; });
        cancelled.resume();
        cancelled.cancel();
        EXPECT_TRUE(cancelled.isCancelled());
    } // destruction waits for the watch thread
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    queue.sync([] {});
    EXPECT_EQ(calls.load(), 0);
}
