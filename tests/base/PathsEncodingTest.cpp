#include "base/Encoding.hpp"
#include "base/Paths.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <numeric>
#include <regex>
#include <set>

using namespace tonavi;

TEST(Paths, DeriveFromHomeAndHonourAbsoluteXdgVariablesOnly) {
    const std::string home = std::getenv("HOME") ? std::getenv("HOME") : "/";
    ::setenv("HOME", "/home/tester", 1);
    const std::array<const char*, 4> cases[] = {
        // XDG data and state, the support and log folders
        {nullptr, nullptr, "/home/tester/.local/share/Tonavi", "/home/tester/.local/state/Tonavi"},
        {"/xdg/data", "relative/state", "/xdg/data/Tonavi", "/home/tester/.local/state/Tonavi"},
    };
    for (auto [data, state, support, log] : cases) {
        for (auto [name, value] : {std::pair{"XDG_DATA_HOME", data}, {"XDG_STATE_HOME", state}})
            value ? ::setenv(name, value, 1) : ::unsetenv(name);
        EXPECT_EQ(Paths::supportDirectory() + " " + Paths::logDirectory() + " " + Paths::controlSocketPath(),
                  std::string(support) + " " + log + " " + support + "/control.sock");
    }
    ::setenv("HOME", home.c_str(), 1);
}

TEST(Base64, MatchesTheStandardTestVectorsBothWaysAndRejectsMalformedText) {
    // RFC 4648, section 10.
    const char* encoded[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (std::size_t i = 0; i < std::size(encoded); ++i) {
        const std::string plain = std::string("foobar").substr(0, i);
        EXPECT_TRUE(base64Encode(std::string_view(plain)) == encoded[i] &&
                    base64Decode(encoded[i]) == Bytes(plain.begin(), plain.end()))
            << encoded[i];
    }
    Bytes all(256);
    std::iota(all.begin(), all.end(), std::uint8_t{0}); // every byte, the high ones too
    EXPECT_EQ(base64Decode(base64Encode(all)), all);
    for (const char* bad : {"Zg", "Zg=", "Z===", "Zm9v!A==", "Zh==", "Zm9=", "=Zm9", "Zm 9"})
        EXPECT_FALSE(base64Decode(bad).has_value()) << bad;
}

TEST(UUID, IsUpperCaseVersionFourAndUnique) {
    const std::regex version4("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        const std::string u = makeUUID();
        EXPECT_TRUE(isUUID(u) && std::regex_match(u, version4) && seen.insert(u).second) << u;
    }
    EXPECT_FALSE(isUUID("not-a-uuid"));
}
