#include "core/outputs/OutputGroupIdentity.hpp"
#include "core/outputs/OutputGroupValidationError.hpp"

#include <gtest/gtest.h>

namespace tonavi {
namespace {

using Kind = OutputGroupValidationError::Kind;

OutputGroup group(std::string id, std::string name, std::vector<std::string> members) {
    OutputGroup g;
    g.id = std::move(id);
    g.name = std::move(name);
    for (auto& m : members)
        g.members.push_back({m, 1.0, false});
    return g;
}

TEST(OutputGroupIdentity, AggregateUIDIsTheFNV1aHashOfTheID) {
    EXPECT_EQ(OutputGroupIdentity::aggregateDeviceUID(""),
              "com.brelmoor.tonavi.output-group.CBF29CE484222325");
    EXPECT_EQ(OutputGroupIdentity::aggregateDeviceUID("a"),
              "com.brelmoor.tonavi.output-group.AF63DC4C8601EC8C");
    EXPECT_EQ(OutputGroupIdentity::aggregateDeviceUID(group("g1", "One", {})),
              OutputGroupIdentity::aggregateDeviceUID(group("g1", "Renamed", {})));
}

TEST(OutputGroupIdentity, ValidationNamesTheFirstFailedRule) {
    const std::string self = OutputGroupIdentity::aggregateDeviceUID("g");
    const std::vector<std::tuple<OutputGroup, std::optional<Kind>>> cases{
        {group("g", " \n\t", {"a", "b"}), Kind::emptyName},
        {group("g", "", {}), Kind::emptyName},
        {group("g", "Desk", {"a"}), Kind::tooFewMembers},
        {group("g", "Desk", {"a", ""}), Kind::emptyMemberUID},
        {group("g", "Desk", {"a", "b", "a"}), Kind::duplicateMemberUID},
        {group("g", "Desk", {"a", self}), Kind::recursiveGroup},
        {group("g", "Desk", {"a", "com.brelmoor.tonavi.output-group.NOSUCH"}), Kind::recursiveGroup},
        {group("g", "Desk", {"a", "b"}), std::nullopt}};
    for (const auto& [group, expected] : cases) {
        std::optional<Kind> failed;
        try {
            EXPECT_EQ(OutputGroupIdentity::validatedMemberUIDs(group), (std::vector<std::string>{"a", "b"}));
        } catch (const OutputGroupValidationError& e) {
            failed = e.kind();
            EXPECT_STREQ(e.what(), OutputGroupValidationError::errorDescription(e.kind()));
        }
        EXPECT_EQ(failed, expected) << group.name;
    }
}

} // namespace
} // namespace tonavi
