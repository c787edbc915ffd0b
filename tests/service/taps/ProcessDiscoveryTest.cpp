// Reading the machine's audio processes: an invalid entry voids the whole list, helpers are folded
// into the app that answers for them, and a process nobody can name is left out.

#include <gtest/gtest.h>

#include "tests/service/taps/TapTestSupport.hpp"

namespace tonavi {
namespace {

using Provider = TonaviTapProvider;

class ProcessDiscoveryTest : public ::testing::Test {
  protected:
    test::SimLaptop laptop;
    AudioObjectID safari = laptop.processObject("com.apple.Safari");
    AudioObjectID helper = laptop.processObject("com.apple.WebKit.GPU");
    AudioObjectID music = laptop.processObject("com.apple.Music");
    AudioObjectID zoom = laptop.processObject("us.zoom.xos");
    AudioObjectID agent = laptop.processObject("com.example.SyncAgent");
    AudioObjectID speakers = Provider::deviceID(*laptop.machine, test::SimLaptop::speakers);

    void addProcess(const std::string& bundleID, pid_t pid) {
        laptop.edit([&](SimWorld& w) {
            w.processes.push_back(
                {.id = w.allocateID(), .pid = pid, .bundleID = bundleID, .runningOutput = true});
            return std::string();
        });
    }
};

TEST_F(ProcessDiscoveryTest, OneInvalidEntryVoidsTheWholeList) {
    auto& hw = *laptop.machine;
    ASSERT_EQ(Provider::readAudioProcesses(hw).value().size(), 5u); // what is in them is the next test's
    addProcess("com.example.Broken", 0);
    EXPECT_EQ(Provider::readAudioProcesses(hw), std::nullopt);
    EXPECT_EQ(Provider::audioSnapshot(hw, laptop.workspace), std::nullopt);
    EXPECT_TRUE(Provider::processGroup(hw, laptop.workspace, "com.apple.Music").objects.empty());

    laptop.edit([](SimWorld& w) {
        w.processes.clear();
        return std::string();
    });
    hw.failNext(SimOperation::getPropertySize, 1, kAudioHardwareUnspecifiedError,
                kAudioHardwarePropertyProcessObjectList);
    EXPECT_EQ(Provider::readAudioProcesses(hw), std::nullopt) << "a failed read is not an empty list";
    EXPECT_EQ(Provider::audioSnapshot(hw, laptop.workspace), AudioSnapshot{});
}

TEST_F(ProcessDiscoveryTest, HelpersFoldIntoTheirAppAndTheNamelessAreSkipped) {
    laptop.edit([](SimWorld& w) { return w.setPlaying("com.apple.WebKit.GPU", true, std::nullopt); });
    addProcess("", 5000); // no bundle ID, and no application answers for it

    const TapProcessIdentity safariGroup{{safari, helper}, {4101, 4102}, {speakers}, 4101, {helper}, {4102}};
    AudioSnapshot expected;
    expected.processes = {{"com.apple.Safari", 4101, false},
                          {"com.apple.WebKit.GPU", 4102, true},
                          {"com.apple.Music", 4103, true},
                          {"us.zoom.xos", 4104, false},
                          {"com.example.SyncAgent", 4105, true}};
    expected.resolved = {{"com.apple.Safari", {true, false}},
                         {"com.apple.Music", {true, false}},
                         {"us.zoom.xos", {false, true}},
                         {"com.example.SyncAgent", {true, false}}};
    expected.ownersByObject = {{safari, "com.apple.Safari"},
                               {helper, "com.apple.Safari"},
                               {music, "com.apple.Music"},
                               {zoom, "us.zoom.xos"},
                               {agent, "com.example.SyncAgent"}};
    expected.groups = {{"com.apple.Safari", safariGroup},
                       {"com.apple.Music", {{music}, {4103}, {speakers}, 4103, {music}, {4103}}},
                       {"us.zoom.xos", {{zoom}, {4104}, {}, 4104, {}, {}}},
                       {"com.example.SyncAgent", {{agent}, {4105}, {speakers}, 4105, {agent}, {4105}}}};
    EXPECT_EQ(Provider::audioSnapshot(*laptop.machine, laptop.workspace), expected);

    const auto group = Provider::processGroup(*laptop.machine, laptop.workspace, "com.apple.Safari");
    EXPECT_EQ(group.objects, (std::vector<AudioObjectID>{safari, helper}));
    EXPECT_EQ(group.identity, safariGroup);
    EXPECT_EQ(Provider::ownerBundleID(*laptop.machine, laptop.workspace, helper), "com.apple.Safari");
}

} // namespace
} // namespace tonavi
