// The pure list policies: which apps fill the mixer, which only capture, and the order of app and
// device rows.

#include "core/engine/DefaultMixerAppPolicy.hpp"
#include "core/lists/AppListPolicy.hpp"
#include "core/lists/DeviceListPolicy.hpp"

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

TEST(DeviceListPolicy, EqualRanksSortByNameAndFrequentUseNeverOffersTheCurrentOutput) {
    auto device = [](std::string id, std::string name, std::optional<std::int64_t> rank,
                     std::optional<std::int64_t> uses, double lastUsed) {
        DeviceLiveStatus d;
        d.id = std::move(id);
        d.name = std::move(name);
        d.displayRank = rank;
        d.useCount = uses;
        d.lastUsedAt = lastUsed;
        return d;
    };
    std::vector<DeviceLiveStatus> devices{device("usb", "usb Headphones", 1, 5, 10),
                                          device("dock", "Desk Dock", std::nullopt, 9, 5),
                                          device("buds", "Earbuds", 1, 5, 20),
                                          device("tv", "TV", 0, 3, 30),
                                          device("speakers", "Speakers", 2, 40, 40),
                                          device("spare", "Spare", std::nullopt, 0, 0),
                                          device("old", "Old", std::nullopt, 50, 1)};
    devices[4].isDefaultOutput = true;
    devices[6].hidden = true;
    auto ids = [](const std::vector<DeviceLiveStatus>& list) {
        std::vector<std::string> out;
        for (const auto& d : list)
            out.push_back(d.id);
        return out;
    };
    EXPECT_EQ(ids(DeviceListPolicy::ordered(devices)),
              (std::vector<std::string>{"tv", "buds", "usb", "speakers", "dock", "old", "spare"}));
    // Equal use: the one used last first. Hidden, unused and the current output are never offered.
    EXPECT_EQ(ids(DeviceListPolicy::frequentlyUsed(devices, 10)),
              (std::vector<std::string>{"dock", "buds", "usb", "tv"}));
    EXPECT_EQ(ids(DeviceListPolicy::frequentlyUsed(devices, 2)), (std::vector<std::string>{"dock", "buds"}));
    EXPECT_TRUE(DeviceListPolicy::frequentlyUsed(devices, 0).empty());
}
