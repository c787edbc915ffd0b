// A writer killed at any moment of a save: only real processes and real renames show that every file
// is always whole.

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

namespace fs = std::filesystem;
using testing::readText;
using testing::writeText;

// Files a save may leave behind when cut short: the staged file and the siblings of atomic writes.
int leftoverCount(const fs::path& folder) {
    int count = 0;
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename().string();
        count += entry.is_regular_file() && name != "state.json" && name != "state.previous.json";
    }
    return count;
}

TEST(ConfigDamage, WriterKilledMidSaveLeavesOldOrNewFilesAndTheNextLoadClearsUp) {
    testing::TemporaryFolder folder;
    // A killed process loses nothing from the page cache, so flushing to the disk adds nothing here
    // but time: the renames alone make each file old or new.
    const TonaviConfigStore store(folder.path(), std::make_shared<RealFileSystem>(false));
    const TonaviConfig a = testing::largeConfig(40, 10, 5);
    TonaviConfig b = a;
    b.apps.resize(20);
    store.save(a);
    // Kill moments are drawn from the span of about two saves, measured here, so that the test
    // still lands inside saves on a slow or sanitised build.
    const auto started = std::chrono::steady_clock::now();
    for (int i = 0; i < 4; ++i)
        store.save(i % 2 ? a : b);
    const auto saveNanos = (std::chrono::steady_clock::now() - started) / std::chrono::nanoseconds(1) / 4;

    std::mt19937 random(20240611);
    int killedWhileSaving = 0;
    constexpr int rounds = 300;
    for (int round = 0; round < rounds; ++round) {
        int saved[2];
        ASSERT_EQ(::pipe(saved), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (int i = 0;; ++i) {
                try {
                    store.save(i % 2 ? a : b);
                } catch (...) {
                    ::_exit(3);
                }
                if (i == 0)
                    (void)!::write(saved[1], "1", 1);
            }
        }
        ::close(saved[1]);
        char byte = 0;
        // The child has finished one save and is inside the next.
        ASSERT_EQ(::read(saved[0], &byte, 1), 1);
        ::close(saved[0]);
        const timespec pause{0, static_cast<long>(random() % (2 * saveNanos + 1))};
        ::nanosleep(&pause, nullptr);
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the saving child failed on its own";

        killedWhileSaving += leftoverCount(folder.path()) > 0;
        for (const fs::path& file : {store.configURL(), store.previousURL()}) {
            const TonaviConfig onDisk = decodeTonaviConfig(readText(file));
            ASSERT_TRUE(onDisk == a || onDisk == b) << file << ", round " << round;
        }
        if (round % 2) {
            // The next load clears what the killed save left behind, and changes nothing else.
            const std::string before = readText(store.configURL());
            EXPECT_EQ(store.load(), decodeTonaviConfig(before));
            ASSERT_EQ(leftoverCount(folder.path()), 0) << "round " << round;
        }
    }
    // Enough kills must hit a save in progress, or the test proves little.
    EXPECT_GT(killedWhileSaving, rounds / 10);
}

} // namespace
} // namespace tonavi
