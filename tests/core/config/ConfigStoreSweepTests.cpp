// The leftover sweep must never take a temporary file from under another process's save.

#include "core/config/TonaviConfigStore.hpp"
#include "tests/core/config/ConfigTestSupport.hpp"

#include <gtest/gtest.h>

namespace tonavi {
namespace {

namespace fs = std::filesystem;

TEST(ConfigStoreSweep, LeavesTemporariesAloneWhileAnotherWriterHoldsTheLock) {
    testing::TemporaryFolder folder;
    TonaviConfigStore store(folder.path(), std::make_shared<testing::FaultyFileSystem>());
    store.save(testing::sampleConfig(1));
    const fs::path inProgress = folder.path() / "state.json.Ab12Cd";
    testing::writeText(inProgress, "partial");
    {
        // Another process's save: a second open file description contends like a separate process.
        const StateFileLock writer(store.lockURL());
        ASSERT_TRUE(writer.isHeld());
        EXPECT_EQ(store.load(), testing::sampleConfig(1));
        EXPECT_TRUE(fs::exists(inProgress));
    }
    // Our own locked save still sweeps, without waiting on itself.
    store.withExclusiveAccess([&] { store.save(testing::sampleConfig(2)); });
    EXPECT_FALSE(fs::exists(inProgress));
    EXPECT_EQ(store.load(), testing::sampleConfig(2));
}

} // namespace
} // namespace tonavi
