#include "base/Encoding.hpp"
#include "base/Paths.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

using namespace tonavi;

namespace {
struct EnvGuard {
    std::string name;
    std::optional<std::string> old;
    EnvGuard(const char* n, const char* value) : name(n) {
        if (const char* v = std::getenv(n)) old = v;
        if (value) {
            ::setenv(n, value, 1);
        } else {
            ::unsetenv(n);
        }
    }
    ~EnvGuard() {
        if (old) {
            ::setenv(name.c_str(), old->c_str(), 1);
        } else {
            ::unsetenv(name.c_str());
        }
    }
};
}  // namespace

TEST(Paths, DeriveFromHomeAndHonourAbsoluteXdgVariablesOnly) {
    EnvGuard home("HOME", "/home/tester");
    {
        EnvGuard data("XDG_DATA_HOME", nullptr), st("XDG_STATE_HOME", nullptr);
        EXPECT_EQ(Paths::supportDirectory(), "/home/tester/.local/share/Tonavi");
        EXPECT_EQ(Paths::logDirectory(), "/home/tester/.local/state/Tonavi");
        EXPECT_EQ(Paths::controlSocketPath(), "/home/tester/.local/share/Tonavi/control.sock");
    }
    {
        EnvGuard data("XDG_DATA_HOME", "/xdg/data"), st("XDG_STATE_HOME", "relative/state");
        EXPECT_EQ(Paths::supportDirectory(), "/xdg/data/Tonavi");
        EXPECT_EQ(Paths::logDirectory(), "/home/tester/.local/state/Tonavi");  // relative value ignored
    }
}

TEST(Base64, MatchesTheStandardTestVectorsBothWays) {
    // RFC 4648, section 10.
    const std::pair<const char*, const char*> vectors[] = {{"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},
                                                           {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"}};
    for (auto [plain, encoded] : vectors) {
        EXPECT_EQ(base64Encode(std::string_view(plain)), encoded);
        auto back = base64Decode(encoded);
        ASSERT_TRUE(back.has_value()) << encoded;
        EXPECT_EQ(std::string(back->begin(), back->end()), plain);
    }
    Bytes all(256);
    for (int i = 0; i < 256; ++i) all[i] = static_cast<std::uint8_t>(i);
    EXPECT_EQ(base64Decode(base64Encode(all)), all);
}

TEST(Base64, RejectsMalformedText) {
    for (const char* bad : {"Zg", "Zg=", "Z===", "Zm9v!A==", "Zh==", "Zm9=", "=Zm9", "Zm 9"}) {
        EXPECT_FALSE(base64Decode(bad).has_value()) << bad;
    }
}

TEST(UUID, IsUpperCaseVersionFourAndUnique) {
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        std::string u = makeUUID();
        ASSERT_TRUE(isUUID(u)) << u;
        EXPECT_EQ(u[14], '4');
        EXPECT_NE(std::string("89AB").find(u[19]), std::string::npos);
        for (char c : u) EXPECT_FALSE(std::islower(static_cast<unsigned char>(c)));
        seen.insert(u);
    }
    EXPECT_EQ(seen.size(), 1000u);
    EXPECT_FALSE(isUUID("not-a-uuid"));
}
