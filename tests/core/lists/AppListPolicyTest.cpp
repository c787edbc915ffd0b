// The pure list policies: which apps fill the mixer, which only capture, and the order of app rows.

#include "core/engine/DefaultMixerAppPolicy.hpp"
#include "core/lists/AppListPolicy.hpp"

#include <gtest/gtest.h>

using namespace tonavi;

TEST(AppListPolicy, NamesNeedTheBlankAfterAPrefixWhileIDFragmentsAreSubstrings) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"company.thebrowser.Browser", "Arc", true},
        {"company.thebrowser.search", "Arc Search", true},
        {"org.example.archiver", "Archive", false},
        {"org.example.notes", "arcade", false},
        {"com.example.any-waveform-tool", "Tool", true},
        {"com.example.wave", "Reason", true},
    };
    for (const auto& [id, name, included] : cases)
        EXPECT_EQ(DefaultMixerAppPolicy::includes(id, name), included) << name;
    EXPECT_TRUE(AppListPolicy::isCaptureOnly("com.Wispr-Flow.app"));
    EXPECT_FALSE(AppListPolicy::isCaptureOnly("com.apple.Music"));
}

TEST(AppListPolicy, RowsOrderByRankThenNameIgnoringCaseThenID) {
    auto row = [](std::string id, std::string name, std::optional<std::int64_t> rank) {
        AppLiveStatus s;
        s.id = std::move(id);
        s.displayName = std::move(name);
        s.displayRank = rank;
        return s;
    };
    std::vector<AppLiveStatus> rows{row("z", "beta", std::nullopt), row("y", "Alpha", std::nullopt),
                                    row("x", "alpha", std::nullopt), row("w", "Zed", 1), row("v", "Mid", 0)};
    AppListPolicy::order(rows);
    std::vector<std::string> ids;
    for (const auto& r : rows)
        ids.push_back(r.id);
    EXPECT_EQ(ids, (std::vector<std::string>{"v", "w", "x", "y", "z"}));

    // Only part of the list on screen: its new order lands in the places visible apps held.
    EXPECT_EQ(AppListPolicy::mergingVisibleOrder({"a", "b", "c", "b", "d"}, {"d", "new", "b"}),
              (std::vector<std::string>{"a", "d", "c", "b", "new"}));
}
