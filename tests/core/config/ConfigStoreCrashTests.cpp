// A process killed at any moment of a save leaves a configuration file that loads to the old or the
// new configuration, never a mixture.

#include "core/config/TonaviConfigStore.hpp"
#include "tests/core/config/ConfigTestSupport.hpp"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <random>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace tonavi {
namespace {

TEST(ConfigStoreCrash, KilledWhileSavingLeavesOldOrNewFile) {
    testing::TemporaryFolder folder;
    // A killed process loses nothing from the page cache, so flushing to the disk adds nothing here
    // but time: the renames alone make the file old or new.
    const TonaviConfigStore store(folder.path(), std::make_shared<RealFileSystem>(false));
    const TonaviConfig a = testing::largeConfig(40, 10, 5);
    TonaviConfig b = a;
    b.softMasterPercent = 42.0;
    b.apps.resize(20);
    store.save(a);

    // Kill moments are drawn from the span of about two saves, measured here, so that the test
    // still lands inside saves on a slow or sanitised build.
    const auto started = std::chrono::steady_clock::now();
    for (int i = 0; i < 4; ++i)
        store.save(i % 2 ? a : b);
    const auto saveNanos =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - started)
            .count() /
        4;

    std::mt19937 random(20240611);
    int killedWhileSaving = 0;
    constexpr int rounds = 300;
    for (int round = 0; round < rounds; ++round) {
        int saved[2];
        ASSERT_EQ(::pipe(saved), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(saved[0]);
            for (int i = 0;; ++i) {
                try {
                    store.save(i % 2 ? a : b);
                } catch (...) {
                    ::_exit(3);
                }
                const char byte = 1;
                if (i == 0)
                    (void)!::write(saved[1], &byte, 1);
            }
        }
        ::close(saved[1]);
        char byte = 0;
        // The child has finished one save and is inside the next.
        ASSERT_EQ(::read(saved[0], &byte, 1), 1);
        ::close(saved[0]);
        const timespec pause{0, static_cast<long>(random() % static_cast<std::uint64_t>(2 * saveNanos + 1))};
        ::nanosleep(&pause, nullptr);
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the saving child failed on its own";

        if (std::filesystem::exists(store.temporaryURL()))
            ++killedWhileSaving;
        const TonaviConfig onDisk = decodeTonaviConfig(testing::readText(store.configURL()));
        ASSERT_TRUE(onDisk == a || onDisk == b) << "round " << round;
        const TonaviConfig previous = decodeTonaviConfig(testing::readText(store.previousURL()));
        ASSERT_TRUE(previous == a || previous == b) << "round " << round;
    }
    // The next save clears what the killed one left behind.
    store.save(a);
    EXPECT_FALSE(std::filesystem::exists(store.temporaryURL()));
    EXPECT_FALSE(std::filesystem::exists(store.stagedPreviousURL()));
    // Enough kills must hit a save in progress, or the test proves little.
    EXPECT_GT(killedWhileSaving, rounds / 10);
}

} // namespace
} // namespace tonavi
