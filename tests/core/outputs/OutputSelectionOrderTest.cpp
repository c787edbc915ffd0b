#include "core/outputs/OutputSelectionOrder.hpp"

#include <gtest/gtest.h>

namespace tonavi {
namespace {

TEST(OutputSelectionOrder, AcceptsOnlyNewerGenerationsPerClient) {
    const std::tuple<const char*, std::uint64_t, bool> cases[] = {
        {"", 5, false},  {"a", 0, false}, {"a", 3, true}, {"a", 3, false},
        {"a", 2, false}, {"b", 1, true},  {"a", 4, true}};
    OutputSelectionOrder order;
    for (const auto& [client, generation, accepted] : cases)
        EXPECT_EQ(order.accept(client, generation), accepted) << client << " " << generation;
    EXPECT_EQ(order.clients, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(order.generations.at("a"), 4u);
}

TEST(OutputSelectionOrder, TheClientAfterTheLimitEvictsTheFirstKnownNotTheLeastRecent) {
    OutputSelectionOrder order;
    for (int i = 0; i < 128; ++i)
        ASSERT_TRUE(order.accept("client" + std::to_string(i), 10));
    ASSERT_TRUE(order.accept("client0", 11)); // recent use does not protect the oldest
    ASSERT_TRUE(order.accept("newcomer", 1));
    EXPECT_EQ(order.clients.size(), 128u);
    EXPECT_FALSE(order.generations.contains("client0"));
    EXPECT_EQ(order.clients.front(), "client1");
    // Forgotten, so its next call counts as new whatever its generation.
    EXPECT_TRUE(order.accept("client0", 1));
    EXPECT_FALSE(order.generations.contains("client1"));
}

} // namespace
} // namespace tonavi
