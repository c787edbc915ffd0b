// Damaged input of every kind: arbitrary bytes through the reader and the salvage scan, cut and
// mangled files through load, and a writer killed at any moment of a save. TONAVI_FUZZ_ITERATIONS
// raises the count of generated inputs for longer runs by hand.

#include "core/config/TonaviConfigStore.hpp"
#include "tests/core/config/ConfigTestSupport.hpp"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <random>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace tonavi {
namespace {

namespace fs = std::filesystem;
using testing::readText;
using testing::writeText;

int iterations(int byDefault) {
    const char* text = std::getenv("TONAVI_FUZZ_ITERATIONS");
    const int value = text ? std::atoi(text) : 0;
    return value > 0 ? value : byDefault;
}

// Inputs near valid files find far more paths than uniform noise: start from real configurations
// and cut, flip, delete and duplicate; some inputs are plain noise or raw bytes.
class InputGenerator {
  public:
    explicit InputGenerator(unsigned seed) : random_(seed) {}

    std::string next() {
        static const char alphabet[] = "{}[]\":,\\ \n\rtrue0123456789.-eapsdvigrou";
        std::string input;
        const auto kind = random_() % 4;
        if (kind < 2) {
            input.resize(random_() % 200);
            for (char& c : input)
                c = kind == 0 ? alphabet[random_() % (sizeof alphabet - 1)] : static_cast<char>(random_());
            return input;
        }
        input = seeds_[random_() % seeds_.size()];
        for (int edits = 1 + static_cast<int>(random_() % 4); edits > 0 && !input.empty(); --edits) {
            const std::size_t at = random_() % input.size();
            switch (random_() % 4) {
            case 0:
                input.resize(at);
                break;
            case 1:
                input[at] = static_cast<char>(random_());
                break;
            case 2:
                input.erase(at, random_() % 16);
                break;
            default:
                input.insert(at, input.substr(random_() % input.size(), random_() % 32));
            }
        }
        return input;
    }

  private:
    std::mt19937 random_;
    std::vector<std::string> seeds_ = {
        encodeTonaviConfig(testing::sampleConfig(0)), encodeTonaviConfig(TonaviConfig::firstRunDefaults()),
        R"({"apps": [{"id": "a\"]}", "volume": "x"}], "devices": [], "groups": [{"id": "g"}]})", "{}"};
};

TEST(ConfigDamage, ReaderAndSalvageTakeAnyBytes) {
    InputGenerator inputs(1);
    const int count = iterations(4000);
    int decoded = 0;
    int salvaged = 0;
    for (int i = 0; i < count; ++i) {
        const std::string input = inputs.next();
        try {
            const TonaviConfig config = decodeTonaviConfig(input);
            ++decoded;
            // Whatever reads must write and read back the same.
            EXPECT_EQ(decodeTonaviConfig(encodeTonaviConfig(config)), config);
        } catch (const ConfigDecodeError&) {
        }
        if (const auto found = TonaviConfigStore::salvageTopLevel(input)) {
            ++salvaged;
            for (const auto& [key, value] : found->items())
                ASSERT_TRUE(key == "apps" || key == "devices" || key == "groups") << key;
        }
    }
    // The generator must reach both sides of each decision.
    EXPECT_GT(decoded, count / 100);
    EXPECT_LT(decoded, count);
    EXPECT_GT(salvaged, count / 100);
}

void clear(const fs::path& folder) {
    for (const auto& entry : fs::directory_iterator(folder))
        if (entry.is_regular_file())
            fs::remove(entry.path());
}

// Every cut of a valid file near the end of its first array, random cuts, and mangled files: load
// always answers, saves what it answers, keeps what is whole, and leaves a notice.
TEST(ConfigDamage, LoadRecoversCutAndMangledFiles) {
    const TonaviConfig saved = testing::sampleConfig(0);
    const TonaviConfig previous = testing::sampleConfig(4);
    const std::string text = encodeTonaviConfig(saved);
    // The apps array is the first key; it is whole once its closing bracket is in.
    const std::size_t appsEnd = text.find("\n  ],\n") + 4;
    const std::size_t devicesEnd = text.find("\n  ],\n", text.find("\"devices\"")) + 4;
    const TonaviConfig firstRun = TonaviConfig::firstRunDefaults();

    testing::TemporaryFolder folder;
    TonaviConfigStore store(folder.path(), std::make_shared<RealFileSystem>(false));
    std::int64_t tick = 0;
    store.setClockForTesting([&] { return static_cast<double>(++tick); });
    std::mt19937 random(7);
    std::vector<std::size_t> cuts = {0};
    for (std::size_t cut = appsEnd - 3; cut < appsEnd + 3; ++cut)
        cuts.push_back(cut);
    for (int i = 0; i < 100; ++i)
        cuts.push_back(random() % text.size());

    for (const bool withPrevious : {false, true}) {
        for (const std::size_t cut : cuts) {
            clear(folder.path());
            if (withPrevious)
                writeText(store.previousURL(), encodeTonaviConfig(previous));
            writeText(store.configURL(), text.substr(0, cut));
            const TonaviConfig loaded = store.load();
            if (withPrevious) {
                EXPECT_EQ(loaded, previous) << "cut " << cut;
            } else {
                EXPECT_EQ(loaded.apps, cut >= appsEnd ? saved.apps : firstRun.apps) << "cut " << cut;
                EXPECT_EQ(loaded.devices, cut >= devicesEnd ? saved.devices : firstRun.devices)
                    << "cut " << cut;
                EXPECT_EQ(loaded.ui, firstRun.ui) << "cut " << cut;
            }
            EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), loaded) << "cut " << cut;
            EXPECT_TRUE(store.takeRecoveryNotice()) << "cut " << cut;
        }
    }

    InputGenerator inputs(2);
    for (int i = 0, count = iterations(4000) / 8; i < count; ++i) {
        clear(folder.path());
        writeText(store.configURL(), inputs.next());
        if (i % 2)
            writeText(store.previousURL(), i % 4 == 1 ? encodeTonaviConfig(previous) : inputs.next());
        const TonaviConfig loaded = store.load();
        ASSERT_EQ(decodeTonaviConfig(readText(store.configURL())), loaded) << "input " << i;
        (void)store.takeRecoveryNotice();
    }
}

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

        killedWhileSaving += leftoverCount(folder.path()) > 0;
        const TonaviConfig onDisk = decodeTonaviConfig(readText(store.configURL()));
        ASSERT_TRUE(onDisk == a || onDisk == b) << "round " << round;
        const TonaviConfig kept = decodeTonaviConfig(readText(store.previousURL()));
        ASSERT_TRUE(kept == a || kept == b) << "round " << round;
        if (round % 2) {
            // The next load clears what the killed save left behind, and changes nothing else.
            EXPECT_EQ(store.load(), onDisk);
            ASSERT_EQ(leftoverCount(folder.path()), 0) << "round " << round;
        }
    }
    // Enough kills must hit a save in progress, or the test proves little.
    EXPECT_GT(killedWhileSaving, rounds / 10);
}

} // namespace
} // namespace tonavi
