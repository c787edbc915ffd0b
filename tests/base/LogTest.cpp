#include "base/Log.hpp"
#include "base/Paths.hpp"
#include "tests/support/TempFolder.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

using namespace tonavi;
namespace fs = std::filesystem;

namespace {
class LogFile : public ::testing::Test {
protected:
    void SetUp() override { Log::setFilePathForTesting(path); }

    static std::string read(const std::string& p) {
        std::ifstream in(p);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    void writeSize(const std::string& p, size_t bytes) {
        std::ofstream out(p, std::ios::binary | std::ios::trunc);
        std::string chunk(bytes, 'x');
        out << chunk;
    }

    test::TempFolder folder;
    fs::path dir = folder.path();
    std::string path = folder.file("Tonavi-service.log");
};
}  // namespace

TEST_F(LogFile, LineIsUtcSecondTimestampBlankMessageNewline) {
    Log::info("tonavi: hello");
    Log::info("second");
    std::string text = read(path);
    std::regex line(R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z tonavi: hello\n\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z second\n)");
    EXPECT_TRUE(std::regex_match(text, line)) << text;
}

TEST_F(LogFile, FivehundredthLineRotatesAtExactlyTheLimitAndItsLineStartsTheNewLog) {
    for (int i = 1; i < 500; ++i) Log::info("filler");
    writeSize(path, 5'242'880);
    std::ofstream(dir / "Tonavi-service.old.log") << "previous generation\n";
    Log::info("line 500");
    std::string old = read((dir / "Tonavi-service.old.log").string());
    EXPECT_EQ(old.size(), 5'242'880u) << "the old log is replaced, not appended to";
    EXPECT_EQ(old.find("previous generation"), std::string::npos);
    std::string fresh = read(path);
    EXPECT_NE(fresh.find(" line 500\n"), std::string::npos);
    EXPECT_EQ(std::count(fresh.begin(), fresh.end(), '\n'), 1);
}

TEST_F(LogFile, OneByteBelowTheLimitDoesNotRotateAndTheNextLookIsFivehundredLinesLater) {
    for (int i = 1; i < 500; ++i) Log::info("filler");
    writeSize(path, 5'242'879);
    Log::info("line 500");  // looks, and finds it one byte short
    EXPECT_FALSE(fs::exists(dir / "Tonavi-service.old.log"));
    for (int i = 0; i < 499; ++i) Log::info("more");  // now well above the limit, but no look yet
    EXPECT_FALSE(fs::exists(dir / "Tonavi-service.old.log"));
    Log::info("line 1000");
    EXPECT_TRUE(fs::exists(dir / "Tonavi-service.old.log"));
}

TEST_F(LogFile, UnwritableLocationDropsLinesWithoutThrowing) {
    Log::setFilePathForTesting((dir / "missing-folder" / "Tonavi-service.log").string());
    EXPECT_NO_THROW(Log::info("lost"));
    EXPECT_FALSE(fs::exists(dir / "missing-folder"));
}

TEST_F(LogFile, ConcurrentWritersNeverInterleaveLines) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 100; ++i) Log::info("thread " + std::to_string(t) + " line " + std::to_string(i));
        });
    }
    for (auto& th : threads) th.join();
    std::istringstream in(read(path));
    std::string l;
    int count = 0;
    std::regex shape(R"(\S+Z thread \d line \d+)");
    while (std::getline(in, l)) {
        EXPECT_TRUE(std::regex_match(l, shape)) << l;
        ++count;
    }
    EXPECT_EQ(count, 400);
}
