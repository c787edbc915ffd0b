#include "base/Log.hpp"
#include "tests/support/TempFolder.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

using namespace tonavi;
namespace fs = std::filesystem;

namespace {
class LogFile : public ::testing::Test {
  protected:
    void SetUp() override { Log::setFilePathForTesting(path); }
    static std::string read(fs::path p) { return (std::stringstream() << std::ifstream(p).rdbuf()).str(); }

    test::TempFolder folder;
    std::string path = folder.file("Tonavi-service.log");
    fs::path old = folder.file("Tonavi-service.old.log");
};
} // namespace

TEST_F(LogFile, LineIsUtcSecondTimestampBlankMessageNewline) {
    Log::info("tonavi: hello");
    Log::info("second");
    const std::string stamp = R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z )";
    EXPECT_TRUE(std::regex_match(read(path), std::regex(stamp + "tonavi: hello\n" + stamp + "second\n")))
        << read(path);
    // An unwritable location drops lines and creates nothing.
    Log::setFilePathForTesting(folder.file("missing-folder/Tonavi-service.log"));
    EXPECT_NO_THROW(Log::info("lost"));
    EXPECT_FALSE(fs::exists(folder.file("missing-folder")));
}

// The size is looked at every 500th line: one byte below the limit keeps the log until the next look,
// at the limit the old generation is replaced and the line that looked starts the new log.
TEST_F(LogFile, EveryFivehundredthLineRotatesAtExactlyTheLimit) {
    for (int i = 0; i < 499; ++i)
        Log::info("filler");
    std::ofstream(path, std::ios::trunc) << std::string(5'242'879, 'x');
    Log::info("line 500");
    for (int i = 0; i < 499; ++i) // now above the limit, but no look yet
        Log::info("more");
    EXPECT_FALSE(fs::exists(old));
    std::ofstream(path, std::ios::trunc) << std::string(5'242'880, 'x');
    std::ofstream(old) << "previous generation\n";
    Log::info("line 1000");
    EXPECT_EQ(read(old).size(), 5'242'880u) << "the old log is replaced, not appended to";
    EXPECT_EQ(read(path).substr(21), "line 1000\n");
}

TEST_F(LogFile, ConcurrentWritersNeverInterleaveLines) {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 100; ++i)
                Log::info("thread " + std::to_string(t) + " line " + std::to_string(i));
        });
    threads.clear(); // joins every writer
    // Line by line: one pattern repeated over the whole log backtracks as deep as the log is long.
    std::istringstream lines(read(path));
    const std::regex shape(R"(\S+Z (thread \d line \d+))");
    std::set<std::string> seen;
    std::smatch match;
    for (std::string line; std::getline(lines, line);) {
        ASSERT_TRUE(std::regex_match(line, match, shape)) << line;
        seen.insert(match[1]);
    }
    EXPECT_EQ(seen.size(), 400u);
}
