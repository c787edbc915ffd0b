// One machine shared by several processes through its world file: a change made by any process
// fires the listeners of all, on the queue each registered with; a damaged file is refused with a
// message and never replaces a good world.

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include "SimTestSupport.hpp"
#include "base/Log.hpp"

namespace tonavi {
namespace {

using namespace tonavi::test;

class SimSharedWorldTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Log::setFilePathForTesting(folder.file("test.log"));
        ASSERT_EQ(SimWorldFile(path).create(SimWorld::preset(), false), "");
        std::string error;
        machine = SimMachine::open(path, error);
        ASSERT_TRUE(machine) << error;
    }
    // The helper process listening on this world, its output read line by line.
    FILE* listen(const std::string& selector) {
        const std::string command = "TONAVI_AUDIO_BACKEND=sim TONAVI_SIM_WORLD='" + path + "' exec '" +
                                    TONAVI_TAP_HOLDER + "' --listen '" + selector + "'";
        return ::popen(command.c_str(), "r");
    }
    static std::string line(FILE* out) {
        char buffer[256] = {};
        return std::fgets(buffer, sizeof buffer, out) ? buffer : "";
    }

    TempFolder folder;
    std::string path = folder.file("world.json");
    std::shared_ptr<SimMachine> machine;
    DispatchQueue queue{"test.listeners"};
    const AudioObjectPropertyAddress defaultOutput = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
};

TEST_F(SimSharedWorldTest, ChangesMadeByAnyProcessFireTheListenersOfAllOnTheirQueues) {
    FILE* listening = listen("dev#");
    ASSERT_EQ(line(listening), "armed\n");
    ASSERT_EQ(machine->mutate([&](SimWorld& w) { return w.unplug(usbUID); }), "");
    EXPECT_EQ(line(listening), "fired 1 on-queue 1\n");
    EXPECT_EQ(WEXITSTATUS(::pclose(listening)), 0);

    // The other way round, and for a process's own properties, between two machines of one process.
    std::string error;
    auto other = SimMachine::open(path, error);
    ASSERT_TRUE(other) << error;
    RecordingListener listener(queue);
    const auto music = processOf(*machine, "com.apple.Music");
    const auto running = globalAddress(kAudioProcessPropertyIsRunningOutput);
    ASSERT_EQ(machine->addPropertyListener(music, running, queue, listener.block), noErr);
    ASSERT_EQ(machine->addPropertyListener(kAudioObjectSystemObject, defaultOutput, queue, listener.block),
              noErr);
    ASSERT_EQ(other->mutate([](SimWorld& w) { return w.setPlaying("com.apple.Music", false, {}); }), "");
    ASSERT_TRUE(listener.waitForCalls(1));
    EXPECT_EQ(read<std::uint32_t>(*machine, music, running), 0u);
    ASSERT_EQ(other->mutate([](SimWorld& w) { return w.setDefault(SimDefaultRole::output, budsUID); }), "");
    ASSERT_TRUE(listener.waitForCalls(2));
    EXPECT_EQ(read<AudioObjectID>(*machine, kAudioObjectSystemObject, defaultOutput),
              machine->world()->deviceByUID(budsUID)->id);
    EXPECT_EQ(listener.offQueue(), 0);
    EXPECT_EQ(listener.heard(), (std::vector{running, defaultOutput}));
}

TEST_F(SimSharedWorldTest, DamagedFilesAreRefusedWithAMessage) {
    const auto goodOutput = read<AudioObjectID>(*machine, kAudioObjectSystemObject, defaultOutput);
    std::ofstream(path, std::ios::trunc) << R"({ "devices": [ { "uid": 12 } ] })";
    std::string error;
    EXPECT_FALSE(SimMachine::open(path, error));
    EXPECT_NE(error.find("is damaged"), std::string::npos) << error;
    // The running machine keeps its last good world, and an edit refuses to build on the bad file.
    EXPECT_EQ(read<AudioObjectID>(*machine, kAudioObjectSystemObject, defaultOutput), goodOutput);
    const auto why = machine->mutate([](SimWorld& w) { return w.rename(speakersUID, "X"); });
    EXPECT_NE(why.find("is damaged"), std::string::npos) << why;
    EXPECT_EQ(machine->world()->deviceByUID(speakersUID)->name, "MacBook Pro Speakers");

    std::ofstream(path, std::ios::trunc) << "not json";
    EXPECT_FALSE(SimMachine::open(path, error));
    EXPECT_NE(error.find("not valid JSON"), std::string::npos) << error;
    EXPECT_EQ(SimWorldFile(path).create(SimWorld::preset(), false), "a world already exists at " + path);
    EXPECT_EQ(SimWorldFile(path).create(SimWorld::preset(), true), "");
    EXPECT_TRUE(SimMachine::open(path, error));
}

// Worlds cross the file in every test above; here, what a decoder must refuse.
TEST(SimWorldJSONTest, DuplicateIDsAndUnknownPoliciesAreRefused) {
    const auto json = simWorldToJSON(SimWorld::preset());
    std::string error;
    auto twice = json, badPolicy = json;
    twice["processes"][1]["id"] = twice["processes"][0]["id"];
    EXPECT_FALSE(simWorldFromJSON(twice, error));
    EXPECT_NE(error.find("used twice"), std::string::npos) << error;
    badPolicy["applications"][0]["policy"] = "sometimes";
    EXPECT_FALSE(simWorldFromJSON(badPolicy, error));
    EXPECT_TRUE(simWorldFromJSON(json, error)) << error;
}

} // namespace
} // namespace tonavi
