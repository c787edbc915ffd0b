// One machine shared by several processes through its world file: a change made by any process
// fires the listeners of all, on the queue each registered with; a dead process's taps go with
// it; a damaged file is refused with a message and never replaces a good world.

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "SimTestSupport.hpp"
#include "base/Log.hpp"
#include "platform/sim/SimMachine.hpp"

extern char** environ;

namespace tonavi {
namespace {

using namespace std::chrono_literals;

// A helper process with its stdin and stdout on pipes.
class Helper {
  public:
    explicit Helper(std::vector<std::string> args) {
        int in[2], out[2];
        if (::pipe(in) != 0 || ::pipe(out) != 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_addclose(&actions, in[1]);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        args.insert(args.begin(), TONAVI_SIM_HELPER);
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        if (posix_spawn(&pid_, TONAVI_SIM_HELPER, &actions, nullptr, argv.data(), environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        stdin_ = in[1];
        stdout_ = ::fdopen(out[0], "r");
    }
    ~Helper() {
        if (stdin_ >= 0)
            ::close(stdin_);
        if (stdout_)
            std::fclose(stdout_);
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    // Blocks until the helper writes a line; empty at end of output.
    std::string readLine() {
        char buffer[256];
        if (!stdout_ || !std::fgets(buffer, sizeof buffer, stdout_))
            return {};
        std::string line(buffer);
        if (!line.empty() && line.back() == '\n')
            line.pop_back();
        return line;
    }
    int wait() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        reaped_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void kill() {
        ::kill(pid_, SIGKILL);
        wait();
    }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
    int stdin_ = -1;
    FILE* stdout_ = nullptr;
    bool reaped_ = false;
};

class SimSharedWorldTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Log::setFilePathForTesting(folder.file("test.log"));
        ASSERT_EQ(SimWorldFile(path).create(SimWorld::preset(), false), "");
        std::string error;
        machine = SimMachine::open(path, error);
        ASSERT_TRUE(machine) << error;
    }
    AudioObjectID defaultOutput(SimMachine& m) {
        std::uint32_t id = 0;
        m.get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice), id);
        return id;
    }

    test::TempFolder folder;
    std::string path = folder.file("world.json");
    std::shared_ptr<SimMachine> machine;
    DispatchQueue queue{"test.listeners"};
    const std::string usb = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
};

TEST_F(SimSharedWorldTest, AnotherProcessesChangeFiresOurListenerOnOurQueue) {
    test::RecordingListener listener(queue);
    const auto address = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
    ASSERT_EQ(machine->addPropertyListener(kAudioObjectSystemObject, address, queue, listener.block), noErr);

    Helper writer({path, "set-default-output", usb});
    EXPECT_EQ(writer.wait(), 0);
    ASSERT_TRUE(listener.waitForCalls(1));
    EXPECT_EQ(listener.offQueue(), 0);
    EXPECT_EQ(listener.heard().front(), address);
    EXPECT_EQ(defaultOutput(*machine), machine->world()->deviceByUID(usb)->id);
    EXPECT_EQ(machine->removePropertyListener(kAudioObjectSystemObject, address, queue, listener.block),
              noErr);
    EXPECT_EQ(machine->removePropertyListener(kAudioObjectSystemObject, address, queue, listener.block),
              kAudio_ParamError);
}

TEST_F(SimSharedWorldTest, OurChangeFiresAnotherProcessesListener) {
    Helper listener({path, "listen", "dev#"});
    ASSERT_EQ(listener.readLine(), "armed");
    ASSERT_EQ(machine->mutate([&](SimWorld& w) { return w.unplug(usb); }), "");
    EXPECT_EQ(listener.readLine(), "fired 1 on-queue 1");
    EXPECT_EQ(listener.wait(), 0);
}

TEST_F(SimSharedWorldTest, TwoMachinesOnOneFileSeeEachOthersWrites) {
    std::string error;
    auto other = SimMachine::open(path, error);
    ASSERT_TRUE(other) << error;
    test::RecordingListener listener(queue);
    const auto music = machine->world()->processes[2].id;
    const auto running = globalAddress(kAudioProcessPropertyIsRunningOutput);
    ASSERT_EQ(machine->addPropertyListener(music, running, queue, listener.block), noErr);

    ASSERT_EQ(other->mutate([](SimWorld& w) { return w.setPlaying("com.apple.Music", false, std::nullopt); }),
              "");
    ASSERT_TRUE(listener.waitForCalls(1));
    std::uint32_t value = 1;
    EXPECT_EQ(machine->get(music, running, value), noErr);
    EXPECT_EQ(value, 0u);
    // A write through a property is shared the same way.
    const auto speakers = machine->world()->deviceByUID("BuiltInSpeakerDevice")->id;
    const auto mute = scopedAddress(kAudioDevicePropertyMute, kAudioObjectPropertyScopeOutput);
    ASSERT_EQ(other->set(speakers, mute, std::uint32_t{1}), noErr);
    EXPECT_EQ(machine->get(speakers, mute, value), noErr);
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(listener.calls(), 1); // the mute is not what it listens to
}

TEST_F(SimSharedWorldTest, DamagedFilesAreRefusedWithAMessage) {
    const auto goodOutput = defaultOutput(*machine);
    {
        std::ofstream out(path, std::ios::trunc);
        out << "{ \"devices\": [ { \"uid\": 12 } ] }";
    }
    std::string error;
    EXPECT_FALSE(SimMachine::open(path, error));
    EXPECT_NE(error.find("is damaged"), std::string::npos) << error;
    // The running machine keeps its last good world, and an edit refuses to build on the bad file.
    EXPECT_EQ(defaultOutput(*machine), goodOutput);
    const auto why = machine->mutate([](SimWorld& w) { return w.rename("BuiltInSpeakerDevice", "X"); });
    EXPECT_NE(why.find("is damaged"), std::string::npos) << why;
    EXPECT_EQ(machine->world()->deviceByUID("BuiltInSpeakerDevice")->name, "MacBook Pro Speakers");

    {
        std::ofstream out(path, std::ios::trunc);
        out << "not json";
    }
    EXPECT_FALSE(SimMachine::open(path, error));
    EXPECT_NE(error.find("not valid JSON"), std::string::npos) << error;
    EXPECT_EQ(SimWorldFile(path).create(SimWorld::preset(), false), "a world already exists at " + path);
    EXPECT_EQ(SimWorldFile(path).create(SimWorld::preset(), true), "");
    EXPECT_TRUE(SimMachine::open(path, error));
}

TEST(SimWorldJSONTest, PresetSurvivesTheRoundTripAndDuplicateIDsAreRefused) {
    auto world = SimWorld::preset();
    auto description = TapDescription::deviceStream({108}, "BuiltInSpeakerDevice", 0);
    description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
    world.taps.push_back({world.allocateID(), description, 77});
    ASSERT_EQ(world.failNext(SimOperation::deviceStart, 2, kAudioHardwareIllegalOperationError, 0), "");
    const auto json = simWorldToJSON(world);
    std::string error;
    const auto back = simWorldFromJSON(json, error);
    ASSERT_TRUE(back) << error;
    EXPECT_EQ(simWorldToJSON(*back), json);
    EXPECT_EQ(back->taps.at(0).description.muteBehavior, TapMuteBehavior::mutedWhenTapped);
    EXPECT_EQ(back->devices.at(0).volumeElements.at(2), 0.5f);

    auto twice = json;
    twice["processes"][1]["id"] = twice["processes"][0]["id"];
    EXPECT_FALSE(simWorldFromJSON(twice, error));
    EXPECT_NE(error.find("used twice"), std::string::npos) << error;
    auto badPolicy = json;
    badPolicy["applications"][0]["policy"] = "sometimes";
    EXPECT_FALSE(simWorldFromJSON(badPolicy, error));
}

} // namespace
} // namespace tonavi
