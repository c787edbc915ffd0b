#include "tests/service/devices/DeviceTestSupport.hpp"

#include <filesystem>

#include "base/Log.hpp"
#include "core/outputs/OutputGroupIdentity.hpp"
#include "core/outputs/OutputGroupValidationError.hpp"
#include "service/devices/OutputGroupManager.hpp"

#include <gmock/gmock.h>

namespace tonavi::testing {
namespace {

using ::testing::ThrowsMessage;
constexpr const char* airplay = "AirPlay:Living-Room-Speaker"; // no mute control

OutputGroup desk(std::vector<OutputGroupMember> members) {
    return {.id = "desk", .name = "Desk", .members = std::move(members)};
}

class OutputGroupManagerTest : public ::testing::Test {
  protected:
    OutputGroupManagerTest() {
        Log::setFilePathForTesting(
            (std::filesystem::temp_directory_path() / "tonavi-output-groups-test.log").string());
    }
    const SimDevice* aggregate(const std::string& groupID) {
        return h.machine.world()->deviceByUID(OutputGroupIdentity::aggregateDeviceUID(groupID));
    }

    DeviceHarness h;
    OutputGroupManager groups{h.machine, h.manager};
};

TEST_F(OutputGroupManagerTest, SaveBuildsAPublicMirroringAggregateSetsMemberLevelsAndRefusalsKeepIt) {
    groups.save(desk({{usb, 0.4, false}, {speakers, 0.9, true}, {airplay, 0.7, true}}));
    const auto* d = aggregate("desk");
    ASSERT_TRUE(d);
    ASSERT_EQ(d->aggregate.subDevices.size(), 3u);
    EXPECT_EQ(std::tuple(d->name, d->aggregate.isPrivate, d->aggregate.isStacked, d->aggregate.mainSubDevice,
                         d->aggregate.subDevices[0].driftCompensation,
                         d->aggregate.subDevices[2].driftCompensation),
              std::tuple("Tonavi Group — Desk", false, false, usb, false, true));
    EXPECT_EQ(groups.installed().at("desk"), d->id);

    const auto& w = *h.machine.world(); // member levels
    EXPECT_FLOAT_EQ(w.deviceByUID(usb)->volumeElements.at(0), 0.4f);
    EXPECT_TRUE(w.deviceByUID(speakers)->muted);
    EXPECT_FLOAT_EQ(w.deviceByUID(speakers)->volumeElements.at(1), 0.5f); // muted: volume left alone
    EXPECT_FLOAT_EQ(w.deviceByUID(airplay)->volumeElements.at(0), 0.0f);  // no mute control: silenced

    // Refused groups leave the installed aggregate alone.
    groups.save(desk({{usb, 1, false}, {speakers, 1, false}}));
    const auto before = aggregate("desk")->id;
    const std::vector<std::pair<OutputGroup, std::string>> cases{
        {desk({{usb, 1, false}, {"gone", 1, false}}), "output device gone is not connected"},
        {desk({{usb, 1, false}, {OutputGroupIdentity::aggregateDeviceUID("other"), 1, false}}),
         "output groups cannot contain another Tonavi output group"},
    };
    for (const auto& [group, text] : cases) {
        EXPECT_THAT([&] { groups.save(group); }, ThrowsMessage<std::exception>(text));
        EXPECT_EQ(aggregate("desk") ? aggregate("desk")->id : 0u, before);
    }

    h.machine.failNext(SimOperation::createAggregate, 1, kAudioHardwareIllegalOperationError);
    EXPECT_THAT([&] { groups.save(desk({{usb, 1, false}, {speakers, 1, false}})); },
                ThrowsMessage<std::exception>("Core Audio could not create the output group ('nope')"));
    EXPECT_FALSE(aggregate("desk")); // the old one is gone and not restored
    EXPECT_FALSE(groups.installed().count("desk"));
}

TEST_F(OutputGroupManagerTest, ReconcileSweepsItsOwnStaleAggregatesOnlyAndKeepsLiveOnes) {
    // Left behind by a crash, and another program's multi-output device.
    for (const auto& uid :
         {OutputGroupIdentity::aggregateDeviceUID("deleted"), std::string("com.other.multi")}) {
        AggregateDeviceDescription d;
        d.uid = uid;
        d.subDevices = {{usb, false}, {speakers, true}};
        AudioObjectID id = 0;
        ASSERT_EQ(h.machine.createAggregateDevice(d, id), noErr);
    }
    const auto group = desk({{usb, 0.3, false}, {speakers, 1, false}});
    groups.reconcile({group, group}, false);
    EXPECT_FALSE(aggregate("deleted"));
    EXPECT_TRUE(h.machine.world()->deviceByUID("com.other.multi"));
    ASSERT_TRUE(aggregate("desk"));
    const auto built = aggregate("desk")->id;

    h.machine.mutate([](SimWorld& w) { return w.setVolume(usb, 0.9f); });
    groups.reconcile({group}, false);
    EXPECT_EQ(aggregate("desk")->id, built); // not rebuilt, levels re-applied
    EXPECT_FLOAT_EQ(h.machine.world()->deviceByUID(usb)->volumeElements.at(0), 0.3f);
    groups.reconcile({group}, true);
    EXPECT_NE(aggregate("desk")->id, built);

    // A member gone: the group stands as it is.
    const auto rebuilt = aggregate("desk")->id;
    h.machine.mutate([](SimWorld& w) { return w.unplug(speakers); });
    groups.reconcile({group}, true);
    ASSERT_TRUE(aggregate("desk"));
    EXPECT_EQ(aggregate("desk")->id, rebuilt);

    groups.remove("desk");
    EXPECT_FALSE(aggregate("desk"));
    EXPECT_NO_THROW(groups.remove("desk"));
}

} // namespace
} // namespace tonavi::testing
