// tonavictl against the real service: a change made by name shows in the next status, and names that
// match nothing are refused before anything is sent.

#include "core/wire/TonaviChannel.hpp"
#include "tests/integration/ChildProcess.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <csignal>

using namespace tonavi;
using namespace tonavi::testing;
using namespace std::chrono_literals;

namespace {

std::pair<int, std::string> ctl(const PrivateHome& home, std::vector<std::string> args) {
    args.insert(args.begin(), binPath("tonavictl"));
    return run(args, home.env());
}

// The row of the status table that starts with the name.
std::string rowOf(const std::string& table, const std::string& name) {
    const auto at = table.find("\n  " + name + " ");
    if (at == std::string::npos)
        return {};
    return table.substr(at + 1, table.find('\n', at + 1) - at - 1);
}

} // namespace

TEST(TonavictlService, VolumeByNameShowsInTheNextStatus) {
    PrivateHome home;
    ChildProcess service = ChildProcess::spawn({binPath("tonavi-service")}, home.env());
    ASSERT_TRUE(waitUntil(
        [&] {
            try {
                return TonaviChannel::send(home.socketPath(), TonaviRequest::ping(), 2).ok;
            } catch (const std::exception&) {
                return false;
            }
        },
        20s));

    // A row for the app, so that its name is known; the service names com.apple.Music "Music".
    auto [created, createdOut] =
        ctl(home, {"send", R"({"setAppMuted":{"bundleID":"com.apple.Music","muted":false}})"});
    ASSERT_EQ(created, 0) << createdOut;

    auto [set, setOut] = ctl(home, {"volume", "music", "30%"});
    EXPECT_EQ(set, 0) << setOut;
    auto [shown, table] = ctl(home, {"status"});
    EXPECT_EQ(shown, 0) << table;
    const std::string row = rowOf(table, "Music");
    EXPECT_NE(row.find("com.apple.Music"), std::string::npos) << table;
    EXPECT_NE(row.find(" 30% "), std::string::npos) << table;

    auto [raw, json] = ctl(home, {"status", "--json"});
    ASSERT_EQ(raw, 0) << json;
    const auto reply = nlohmann::json::parse(json);
    bool found = false;
    for (const auto& app : reply.at("status").at("apps"))
        if (app.at("id") == "com.apple.Music") {
            found = true;
            EXPECT_DOUBLE_EQ(app.at("volume").get<double>(), 0.3);
        }
    EXPECT_TRUE(found) << json;

    auto [unknown, unknownOut] = ctl(home, {"mute", "Musik"});
    EXPECT_EQ(unknown, 1);
    EXPECT_NE(unknownOut.find("did you mean: Music (com.apple.Music)?"), std::string::npos) << unknownOut;
    auto [usage, usageOut] = ctl(home, {"volume", "Music", "loud"});
    EXPECT_EQ(usage, 64);
    EXPECT_NE(usageOut.find("is not a number"), std::string::npos) << usageOut;

    service.signal(SIGTERM);
    EXPECT_EQ(service.wait(20s), std::optional<int>(0));
}
