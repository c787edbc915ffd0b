// A process killed at any moment of a save leaves a configuration file that loads to the old or the
// new configuration, never a mixture.

#include "core/config/TonaviConfigStore.hpp"
#include "tests/core/config/ConfigTestSupport.hpp"

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
    const TonaviConfigStore store(folder.path());
    // Large enough that each write takes a while, so kills land inside saves.
    const TonaviConfig a = testing::largeConfig(60, 10, 5);
    TonaviConfig b = a;
    b.softMasterPercent = 42.0;
    b.apps.resize(30);
    store.save(a);

    std::mt19937 random(20240611);
    int killedWhileSaving = 0;
    constexpr int rounds = 300;
    for (int round = 0; round < rounds; ++round) {
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(ready[0]);
            const char byte = 1;
            (void)!::write(ready[1], &byte, 1);
            for (int i = 0;; ++i) {
                try {
                    store.save(i % 2 ? a : b);
                } catch (...) {
                    ::_exit(3);
                }
            }
        }
        ::close(ready[1]);
        char byte = 0;
        ASSERT_EQ(::read(ready[0], &byte, 1), 1); // the child is about to save
        ::close(ready[0]);
        // A random moment within the first few saves.
        const timespec pause{0, static_cast<long>(random() % 3'000'000)};
        ::nanosleep(&pause, nullptr);
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the saving child failed on its own";

        if (std::filesystem::exists(store.temporaryURL()))
            ++killedWhileSaving;
        const TonaviConfig onDisk = decodeTonaviConfig(testing::readText(store.configURL()));
        ASSERT_TRUE(onDisk == a || onDisk == b) << "round " << round;
        if (std::filesystem::exists(store.previousURL())) {
            const TonaviConfig previous = decodeTonaviConfig(testing::readText(store.previousURL()));
            ASSERT_TRUE(previous == a || previous == b) << "round " << round;
        }
        // The next save clears whatever the killed one left.
        if (round % 50 == 0) {
            store.save(a);
            EXPECT_FALSE(std::filesystem::exists(store.temporaryURL()));
        }
    }
    // Most kills should hit a save in progress; otherwise the test proves little.
    EXPECT_GT(killedWhileSaving, rounds / 20);
}

} // namespace
} // namespace tonavi
