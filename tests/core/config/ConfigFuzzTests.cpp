// Arbitrary bytes through the tolerant reader, the salvage scan and load: never a crash, always a
// configuration. TONAVI_FUZZ_ITERATIONS raises the count for longer runs by hand.

#include "core/config/TonaviConfigStore.hpp"
#include "tests/core/config/ConfigTestSupport.hpp"

#include <cstdlib>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <random>

namespace tonavi {
namespace {

int iterations(int byDefault) {
    const char* text = std::getenv("TONAVI_FUZZ_ITERATIONS");
    const int value = text ? std::atoi(text) : 0;
    return value > 0 ? value : byDefault;
}

// Inputs near valid files find far more paths than uniform noise: start from a real configuration
// and cut, flip, duplicate and splice.
class InputGenerator {
  public:
    explicit InputGenerator(unsigned seed) : random_(seed) {
        seeds_ = {encodeTonaviConfig(testing::sampleConfig(0)),
                  encodeTonaviConfig(TonaviConfig::firstRunDefaults()),
                  R"({"apps": [{"id": "a\"]}", "volume": "x"}], "devices": [], "groups": [{"id": "g"}]})",
                  "{}"};
    }

    std::string next() {
        std::string input;
        switch (random_() % 4) {
        case 0: { // noise over a small alphabet of structural characters
            static const char alphabet[] = "{}[]\":,\\ \n\rtrue0123456789.-eapsdvigrou";
            input.resize(random_() % 200);
            for (char& c : input)
                c = alphabet[random_() % (sizeof alphabet - 1)];
            break;
        }
        case 1: // raw bytes
            input.resize(random_() % 100);
            for (char& c : input)
                c = static_cast<char>(random_() % 256);
            break;
        default:
            input = seeds_[random_() % seeds_.size()];
            for (int edits = 1 + static_cast<int>(random_() % 4); edits > 0 && !input.empty(); --edits) {
                const std::size_t at = random_() % input.size();
                switch (random_() % 4) {
                case 0:
                    input.resize(at);
                    break;
                case 1:
                    input[at] = static_cast<char>(random_() % 256);
                    break;
                case 2:
                    input.erase(at, random_() % 16);
                    break;
                default:
                    input.insert(at, input.substr(random_() % input.size(), random_() % 32));
                    break;
                }
            }
        }
        return input;
    }

  private:
    std::mt19937 random_;
    std::vector<std::string> seeds_;
};

TEST(ConfigFuzz, ReaderAndSalvageTakeAnyBytes) {
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
            ASSERT_TRUE(found->is_object());
            for (const auto& [key, value] : found->items())
                ASSERT_TRUE(key == "apps" || key == "devices" || key == "groups") << key;
        }
    }
    // The generator must reach both sides of each decision.
    EXPECT_GT(decoded, count / 100);
    EXPECT_LT(decoded, count);
    EXPECT_GT(salvaged, count / 100);
}

TEST(ConfigFuzz, LoadAlwaysGivesAConfigurationAndASoundFile) {
    InputGenerator inputs(2);
    testing::TemporaryFolder folder;
    TonaviConfigStore store(folder.path(), std::make_shared<RealFileSystem>(false));
    std::int64_t tick = 0;
    store.setClockForTesting([&] { return static_cast<double>(++tick); });
    const std::string previous = encodeTonaviConfig(testing::sampleConfig(2));
    const int count = iterations(4000) / 8;
    for (int i = 0; i < count; ++i) {
        const std::string input = inputs.next();
        testing::writeText(store.configURL(), input);
        if (i % 2)
            testing::writeText(store.previousURL(), i % 4 == 1 ? previous : inputs.next());
        else
            std::filesystem::remove(store.previousURL());
        const TonaviConfig loaded = store.load();
        ASSERT_EQ(decodeTonaviConfig(testing::readText(store.configURL())), loaded) << "input " << i;
        (void)store.takeRecoveryNotice();
    }
}

} // namespace
} // namespace tonavi
