// Reading the machine's audio processes: an invalid entry voids the whole list, helpers are folded
// into the app that answers for them, and a process nobody can name is left out.

#include <gtest/gtest.h>

#include "tests/service/taps/TapTestSupport.hpp"

namespace tonavi {
namespace {

using test::SimLaptop;
using Provider = TonaviTapProvider;

class ProcessDiscoveryTest : public ::testing::Test {
  protected:
    SimLaptop laptop;
    AudioObjectID safari = laptop.processObject("com.apple.Safari");
    AudioObjectID helper = laptop.processObject("com.apple.WebKit.GPU");
    AudioObjectID music = laptop.processObject("com.apple.Music");
    AudioObjectID zoom = laptop.processObject("us.zoom.xos");
    AudioObjectID agent = laptop.processObject("com.example.SyncAgent");
    AudioObjectID speakers = Provider::deviceID(laptop.hardware, SimLaptop::speakers);
    AudioObjectID microphone = Provider::deviceID(laptop.hardware, "BuiltInMicrophoneDevice");

    void addProcess(const std::string& bundleID, pid_t pid, bool playing) {
        laptop.edit([&](SimWorld& w) {
            SimProcess p;
            p.id = w.allocateID();
            p.pid = pid;
            p.bundleID = bundleID;
            p.runningOutput = playing;
            w.processes.push_back(p);
            return std::string();
        });
    }
};

TEST_F(ProcessDiscoveryTest, OneInvalidEntryVoidsTheWholeList) {
    auto all = Provider::readAudioProcesses(laptop.hardware);
    ASSERT_TRUE(all);
    ASSERT_EQ(all->size(), 5u);
    EXPECT_EQ(all->at(1), (Provider::AudioProcess{helper, 4102, "com.apple.WebKit.GPU"}));

    addProcess("com.example.Broken", 0, true);
    EXPECT_EQ(Provider::readAudioProcesses(laptop.hardware), std::nullopt);
    EXPECT_EQ(Provider::audioSnapshot(laptop.hardware, laptop.workspace), std::nullopt);
    EXPECT_TRUE(Provider::processGroup(laptop.hardware, laptop.workspace, "com.apple.Music").objects.empty());

    laptop.machine->failNext(SimOperation::getPropertySize, 1, kAudioHardwareUnspecifiedError,
                             kAudioHardwarePropertyProcessObjectList);
    laptop.edit([](SimWorld& w) {
        w.processes.clear();
        return std::string();
    });
    EXPECT_EQ(Provider::readAudioProcesses(laptop.hardware), std::nullopt) << "a failed read is not an empty list";
    EXPECT_EQ(Provider::readAudioProcesses(laptop.hardware), std::vector<Provider::AudioProcess>{});
    EXPECT_EQ(Provider::audioSnapshot(laptop.hardware, laptop.workspace), AudioSnapshot{});
}

TEST_F(ProcessDiscoveryTest, HelperIsGroupedWithTheAppThatAnswersForIt) {
    laptop.edit([](SimWorld& w) { return w.setPlaying("com.apple.WebKit.GPU", true, std::nullopt); });
    const auto group = Provider::processGroup(laptop.hardware, laptop.workspace, "com.apple.Safari");
    EXPECT_EQ(group.objects, (std::vector<AudioObjectID>{safari, helper}));
    EXPECT_EQ(group.pids, (std::set<std::int32_t>{4101, 4102}));
    TapProcessIdentity identity{{safari, helper}, {4101, 4102}, {speakers}, 4101, {helper}, {4102}};
    EXPECT_EQ(group.identity, identity);
    EXPECT_EQ(Provider::ownerBundleID(laptop.hardware, laptop.workspace, helper), "com.apple.Safari");
    EXPECT_EQ(Provider::bundleID(laptop.hardware, helper), "com.apple.WebKit.GPU");
}

TEST_F(ProcessDiscoveryTest, SnapshotNamesOwnersAndSkipsTheNameless) {
    laptop.edit([](SimWorld& w) { return w.setPlaying("com.apple.WebKit.GPU", true, std::nullopt); });
    addProcess("", 5000, true); // no bundle ID, and no application answers for it

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
    expected.groups = {
        {"com.apple.Safari", {{safari, helper}, {4101, 4102}, {speakers}, 4101, {helper}, {4102}}},
        {"com.apple.Music", {{music}, {4103}, {speakers}, 4103, {music}, {4103}}},
        {"us.zoom.xos", {{zoom}, {4104}, {}, 4104, {}, {}}},
        {"com.example.SyncAgent", {{agent}, {4105}, {speakers}, 4105, {agent}, {4105}}},
    };
    const auto snapshot = Provider::audioSnapshot(laptop.hardware, laptop.workspace);
    ASSERT_TRUE(snapshot);
    EXPECT_EQ(*snapshot, expected);
    EXPECT_EQ(snapshot->playingBundleIDs(),
              (std::vector<std::string>{"com.apple.Music", "com.apple.Safari", "com.example.SyncAgent"}));
}

TEST_F(ProcessDiscoveryTest, DeviceHelpers) {
    EXPECT_EQ(Provider::defaultOutputUID(laptop.hardware), SimLaptop::speakers);
    EXPECT_TRUE(Provider::deviceExists(laptop.hardware, SimLaptop::usb));
    EXPECT_FALSE(Provider::deviceExists(laptop.hardware, "gone"));
    EXPECT_FALSE(Provider::deviceExists(laptop.hardware, ""));
    EXPECT_EQ(Provider::streamChannelCounts(laptop.hardware, microphone, kAudioObjectPropertyScopeInput),
              std::vector<int>{1});
    EXPECT_TRUE(Provider::preservesTransportBuffer(laptop.hardware, 9999)) << "unreadable transport";
    EXPECT_FALSE(Provider::preservesTransportBuffer(laptop.hardware, speakers));
    // The speakers allow 15...4096 frames, the earbuds only 1024.
    EXPECT_EQ(Provider::preferredTapBufferFrameSize(laptop.hardware, speakers), 128);
    EXPECT_EQ(Provider::preferredTapBufferFrameSize(
                  laptop.hardware, Provider::deviceID(laptop.hardware, SimLaptop::earbuds)),
              1024);
    EXPECT_EQ(Provider::preferredTapBufferFrameSize(laptop.hardware, 9999), 128);
}

} // namespace
} // namespace tonavi
