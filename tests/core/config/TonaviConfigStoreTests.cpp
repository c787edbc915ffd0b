// Saving, loading, recovery and locking of the configuration store, and its side files: quick configs,
// scene merging, the auto-direct list and MIDI mappings.

#include "core/config/SceneLoadPolicy.hpp"
#include "core/config/TonaviConfigStore.hpp"
#include "tests/core/config/ConfigTestSupport.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <random>
#include <sys/file.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace tonavi {
namespace {

using testing::FaultyFileSystem;
using testing::readText;
using testing::writeText;
namespace fs = std::filesystem;
using nlohmann::json;

class ConfigStoreTest : public ::testing::Test {
  protected:
    ConfigStoreTest() : files(std::make_shared<FaultyFileSystem>()), store(folder.path(), files) {
        store.setClockForTesting([] { return 1700000000.75; });
    }

    fs::path corruptURL() const { return folder.path() / "state.corrupt-1700000000.json"; }

    testing::TemporaryFolder folder;
    std::shared_ptr<FaultyFileSystem> files;
    TonaviConfigStore store;
};

TEST_F(ConfigStoreTest, FreshFolderWritesFirstRunAndTheSecondSaveKeepsThePrevious) {
    EXPECT_TRUE(fs::is_directory(store.configsDir()));
    EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), store.load());
    EXPECT_FALSE(fs::exists(store.previousURL()) || store.takeRecoveryNotice());

    store.save(testing::sampleConfig(1));
    const std::string second = readText(store.configURL());
    store.save(testing::sampleConfig(2));
    EXPECT_TRUE(readText(store.previousURL()) == second);
    EXPECT_EQ(store.load(), testing::sampleConfig(2));
    EXPECT_FALSE(fs::exists(store.temporaryURL()));
    // The file is the disk form: pretty printed, sorted keys.
    EXPECT_TRUE(readText(store.configURL()) == encodeTonaviConfig(testing::sampleConfig(2)));

    // An empty object is not damage: it loads as is and nothing is set aside or rewritten.
    writeText(store.configURL(), "{}");
    EXPECT_EQ(store.load(), TonaviConfig());
    EXPECT_FALSE(fs::exists(corruptURL()) || store.takeRecoveryNotice());
    EXPECT_EQ(readText(store.configURL()), "{}");
}

TEST_F(ConfigStoreTest, DamagedFileIsSetAsideAndRecovered) {
    const std::string text = encodeTonaviConfig(testing::sampleConfig(0));
    // Cut inside "bluetooth", well after the apps array (the first key) closed.
    const std::string cutAfterApps = text.substr(0, text.find("\"bluetooth\"") + 20);
    TonaviConfig withApps = TonaviConfig::firstRunDefaults();
    withApps.apps = testing::sampleConfig(0).apps;
    TonaviConfig withDevice = TonaviConfig::firstRunDefaults();
    withDevice.devices = {DeviceSettings{}};
    withDevice.devices[0].id = "d";
    const std::tuple<const char*, std::optional<std::string>, std::string, TonaviConfig, const char*>
        cases[] = {
            {"whole apps, no previous", std::nullopt, cutAfterApps, withApps, "Kept: your apps."},
            {"readable previous wins", encodeTonaviConfig(testing::sampleConfig(2)), cutAfterApps,
             testing::sampleConfig(2), "Kept: your last saved setup."},
            {"nothing readable", "not json", "\x01\x02 garbage \"apps\": [ { \"id\": \"a\" ",
             TonaviConfig::firstRunDefaults(), "Nothing in it could be read."},
            // Apps broken inside stay the first-run ones; devices and groups are mined silently.
            {"devices mined silently", std::nullopt,
             "{\n  \"apps\": [ {\"volume\": 1} ],\n  \"devices\": [{\"id\": \"d\", \"useCount\": -3}],\n  "
             "\"groups\": [],\n  \"locks\": {",
             withDevice, "Nothing in it could be read."}};
    for (const auto& [name, previous, damaged, expected, detail] : cases) {
        testing::removeFiles(folder.path());
        if (previous)
            writeText(store.previousURL(), *previous);
        writeText(store.configURL(), damaged);
        EXPECT_EQ(store.load(), expected) << name;
        EXPECT_TRUE(readText(corruptURL()) == damaged) << name;
        EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), expected) << name;
        EXPECT_EQ(
            store.takeRecoveryNotice(),
            "Tonavi's settings file was damaged, so it was set aside as state.corrupt-1700000000.json in "
            "Application Support/Tonavi. " +
                std::string(detail))
            << name;
        EXPECT_FALSE(store.takeRecoveryNotice()) << name;
        // The recovered configuration is saved; a good previous file is not displaced by the bad one.
        if (previous && *previous != "not json") {
            EXPECT_TRUE(readText(store.previousURL()) == *previous) << name;
        }
    }
}

TEST_F(ConfigStoreTest, UnreadableFileIsRecoveredAndTheNextSaveReplacesIt) {
    writeText(store.previousURL(), encodeTonaviConfig(testing::sampleConfig(1)));
    writeText(store.configURL(), "{\"apps\": [");
    // The move aside fails, and so does the first read of state.json: there are no bytes at all, and
    // recovery goes on from the previous file.
    int reads = 0;
    files->shouldFail = [&](FaultyFileSystem::Op op, const fs::path& p) {
        return op == FaultyFileSystem::Op::move ||
               (op == FaultyFileSystem::Op::read && p.filename() == "state.json" && reads++ == 0);
    };
    EXPECT_EQ(store.load(), testing::sampleConfig(1));
    EXPECT_FALSE(fs::exists(corruptURL()));
    files->shouldFail = nullptr;
    EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), testing::sampleConfig(1));
    EXPECT_EQ(decodeTonaviConfig(readText(store.previousURL())), testing::sampleConfig(1));
}

// Every file operation of a save, made to fail in turn. The old file is backed up before it is
// replaced, so a save that fails late may already have refreshed "state.previous.json", and only
// ever with the file that "state.json" still holds.
TEST_F(ConfigStoreTest, SaveFailingAtAnyStepKeepsTheFileAndLeavesNoTemporary) {
    const std::string before = encodeTonaviConfig(testing::sampleConfig(1));
    const std::string previous = encodeTonaviConfig(testing::sampleConfig(2));
    const TonaviConfig next = testing::sampleConfig(3);
    int failures = 0;
    for (const bool withCurrent : {true, false}) {
        for (int step = 0;; ++step) {
            fs::remove(store.configURL());
            if (withCurrent)
                writeText(store.configURL(), before);
            writeText(store.previousURL(), previous);
            writeText(store.temporaryURL(), "left over");
            files->operations = 0;
            files->failAt = step;
            bool raised = false;
            try {
                store.save(next);
            } catch (const std::system_error&) {
                raised = true;
                ++failures;
            }
            files->failAt = -1;
            const std::string at =
                (withCurrent ? "with a file, step " : "without a file, step ") + std::to_string(step);
            EXPECT_FALSE(fs::exists(store.temporaryURL())) << at;
            const std::string kept = readText(store.previousURL());
            EXPECT_TRUE(kept == previous || (withCurrent && kept == before)) << at;
            if (raised && !withCurrent)
                EXPECT_FALSE(fs::exists(store.configURL())) << at;
            else
                EXPECT_TRUE(raised ? readText(store.configURL()) == before
                                   : decodeTonaviConfig(readText(store.configURL())) == next)
                    << at;
            if (step >= files->operations)
                break;
        }
    }
    // Writing the temporary file and the replacement fail a save with a file; the write and the
    // move fail one without.
    EXPECT_GE(failures, 4);
}

// A writer killed mid-save leaves "state.json.tmp" and the siblings of its atomic writes.
TEST_F(ConfigStoreTest, TemporariesOfAKilledWriterGoAtTheNextLoadOrSave) {
    const std::vector<std::string> leftovers = {"state.json.tmp", "state.json.tmp.Ab12Cd",
                                                "state.json.x9Y8z7", "state.previous.json.QQ11ww",
                                                "recovery-notice.txt.abcdef"};
    const std::vector<std::string> others = {"state.json.tmp.toolong1", "state.corrupt-12.json",
                                             "notes.json.Ab12Cd"};
    for (const bool byLoad : {true, false}) {
        store.save(testing::sampleConfig(1));
        for (const auto& name : leftovers)
            writeText(folder.path() / name, "partial");
        for (const auto& name : others)
            writeText(folder.path() / name, "mine");
        if (byLoad)
            EXPECT_EQ(store.load(), testing::sampleConfig(1));
        else
            store.save(testing::sampleConfig(2));
        for (const auto& name : leftovers)
            EXPECT_FALSE(fs::exists(folder.path() / name)) << name << (byLoad ? " at load" : " at save");
        for (const auto& name : others)
            EXPECT_TRUE(fs::exists(folder.path() / name)) << name << (byLoad ? " at load" : " at save");
    }
}

TEST_F(ConfigStoreTest, EncodingFailureTouchesNothing) {
    store.save(testing::sampleConfig(1));
    const std::string before = readText(store.configURL());
    TonaviConfig bad = testing::sampleConfig(2);
    bad.softMasterPercent = std::numeric_limits<double>::infinity();
    files->operations = 0;
    EXPECT_THROW(store.save(bad), ConfigEncodeError);
    EXPECT_EQ(files->operations, 0);
    EXPECT_TRUE(readText(store.configURL()) == before);
}

TEST_F(ConfigStoreTest, ExclusiveAccessHoldsTheLockAndRunsWithoutIt) {
    const int value = store.withExclusiveAccess([&] {
        // A second open file description cannot take the lock while the body runs.
        const int fd = ::open(store.lockURL().c_str(), O_RDWR);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), -1);
        EXPECT_EQ(errno, EWOULDBLOCK);
        ::close(fd);
        return 42;
    });
    EXPECT_EQ(value, 42);
    EXPECT_EQ(fs::status(store.lockURL()).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    const int fd = ::open(store.lockURL().c_str(), O_RDWR);
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0); // released afterwards
    ::close(fd);

    EXPECT_THROW(store.withExclusiveAccess([]() -> int { throw std::runtime_error("body"); }),
                 std::runtime_error);

    fs::remove(store.lockURL());
    fs::create_directory(store.lockURL());
    bool ran = false;
    store.withExclusiveAccess([&] { ran = true; });
    EXPECT_TRUE(ran);
}

// Only the three settings the user interface owns come from the disk; everything else is memory's.
TEST_F(ConfigStoreTest, ServiceSaveKeepsTheSettingsTheUserInterfaceOwns) {
    TonaviConfig onDisk = testing::sampleConfig(1);
    onDisk.ui.theme = "from the interface";
    onDisk.startAtLogin = true;
    onDisk.superVolumeKeys = true;
    store.save(onDisk);

    TonaviConfig memory = testing::sampleConfig(2);
    memory.ui.theme = "stale";
    memory.startAtLogin = false;
    memory.superVolumeKeys = false;
    store.saveKeepingAppOwnedSettings(memory);

    TonaviConfig expected = memory;
    expected.ui = onDisk.ui;
    expected.startAtLogin = true;
    expected.superVolumeKeys = true;
    EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), expected);

    // A damaged file is set aside with its notice, and the settings in memory are written.
    writeText(store.configURL(), "{ \"ui\": ");
    store.saveKeepingAppOwnedSettings(memory);
    EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), memory);
    EXPECT_EQ(readText(corruptURL()), "{ \"ui\": ");
    EXPECT_TRUE(store.takeRecoveryNotice());
}

// The leftover sweep must never take a temporary file from under another process's save.
TEST_F(ConfigStoreTest, SweepLeavesTemporariesAloneWhileAnotherWriterHoldsTheLock) {
    store.save(testing::sampleConfig(1));
    const fs::path inProgress = folder.path() / "state.json.Ab12Cd";
    writeText(inProgress, "partial");
    {
        // Another process's save: a second open file description contends like a separate process.
        const StateFileLock writer(store.lockURL());
        ASSERT_TRUE(writer.isHeld());
        EXPECT_EQ(store.load(), testing::sampleConfig(1));
        EXPECT_TRUE(fs::exists(inProgress));
    }
    // Our own locked save still sweeps, without waiting on itself.
    store.withExclusiveAccess([&] { store.save(testing::sampleConfig(2)); });
    EXPECT_FALSE(fs::exists(inProgress));
}

TEST(ConfigStoreKill, WriterKilledMidSaveLeavesOldOrNewFilesAndTheNextLoadClearsUp) {
    testing::TemporaryFolder folder;
    // A killed process loses nothing from the page cache: the renames alone make each file old or new.
    const TonaviConfigStore store(folder.path(), std::make_shared<RealFileSystem>(false));
    const auto leftovers = [&] { // files anything but the two state files and the lock
        return std::ranges::count_if(fs::directory_iterator(folder.path()), [](const fs::directory_entry& e) {
            const auto name = e.path().filename();
            return e.is_regular_file() && name != "state.json" && name != "state.previous.json" && name != "state.lock";
        });
    };
    const TonaviConfig a = testing::largeConfig(40, 10, 5);
    TonaviConfig b = a;
    b.apps.resize(20);
    const auto started = std::chrono::steady_clock::now();
    for (int i = 0; i < 4; ++i)
        store.save(i % 2 ? a : b);
    // Kill moments span about two saves as measured here, so a slow or sanitised build still lands in one.
    const auto twoSaves = (std::chrono::steady_clock::now() - started).count() / 2 + 1;
    std::mt19937 random(20240611);
    int killedWhileSaving = 0;
    for (int round = 0; round < 90; ++round) {
        int saved[2];
        ASSERT_EQ(::pipe(saved), 0);
        const pid_t child = ::fork();
        for (int i = 0; child == 0; ++i) { // one save done, then the child is always inside the next one
            try {
                store.save(i % 2 ? a : b);
            } catch (...) {
                ::_exit(3);
            }
            if (i == 0)
                (void)!::write(saved[1], "x", 1);
        }
        ::close(saved[1]); // a child that failed before its first save ends the read
        char byte = 0;
        ASSERT_TRUE(child > 0 && ::read(saved[0], &byte, 1) == 1);
        ::close(saved[0]);
        const timespec pause{0, static_cast<long>(random() % static_cast<std::uint64_t>(twoSaves))};
        ::nanosleep(&pause, nullptr);
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_TRUE(::waitpid(child, &status, 0) == child && WIFSIGNALED(status)) << "the child failed on its own";
        killedWhileSaving += leftovers() > 0;
        const TonaviConfig current = decodeTonaviConfig(readText(store.configURL())),
                           kept = decodeTonaviConfig(readText(store.previousURL()));
        ASSERT_TRUE((current == a || current == b) && (kept == a || kept == b)) << "round " << round;
        EXPECT_EQ(store.load(), current); // clears what the killed save left, and changes nothing else
        ASSERT_EQ(leftovers(), 0) << "round " << round;
    }
    EXPECT_GT(killedWhileSaving, 9) << "too few kills hit a save in progress to prove anything";
}

TEST(ConfigSalvage, ScansStringsBracketsAndScalars) {
    using nlohmann::json;
    const struct {
        const char* why;
        std::string text;
        const char* expected; // the salvaged object as JSON text, or nullptr for nothing
    } cases[] = {
        {"a \"]\" inside a string does not close the array, an escaped quote does not end the string",
         "{\"x\": 1, \"apps\" :\n [{\"id\": \"a]\\\"}\"}, {\"id\": \"b\"}] , \"groups\": 7, \"devices\"",
         R"({"apps": [{"id": "a]\"}"}, {"id": "b"}], "groups": 7})"},
        {"cut off inside the array", "{\"apps\": [ { \"id\": \"a\" ", nullptr},
        {"a scalar needs a line feed, comma or brace after it", "\"groups\": 7", nullptr},
        {"a scalar ended by a brace", "\"groups\": \"g\"}", R"({"groups": "g"})"},
        {"first occurrence at any depth; bracket kinds are not told apart",
         "{\"a\": {\"devices\": [1, {2]}, \"devices\": [3]", nullptr},
        {"found inside nested arrays", "[[{\"devices\": [\"x\"]}", R"({"devices": ["x"]})"},
    };
    for (const auto& c : cases) {
        const auto found = TonaviConfigStore::salvageTopLevel(c.text);
        if (c.expected)
            EXPECT_EQ(found, json::parse(c.expected)) << c.why;
        else
            EXPECT_FALSE(found) << c.why;
    }
}

QuickConfig quickConfig(const std::string& name) {
    QuickConfig config;
    config.name = name;
    config.rig.tonavi = testing::sampleConfig(0);
    return config;
}

using SideFilesTest = ConfigStoreTest;

TEST_F(SideFilesTest, QuickConfigGoldenFileUnderItsFileName) {
    EXPECT_EQ(store.configFileURL("Rock/Pop"), folder.path() / "configs" / "Rock-Pop.tonavirig");
    const json file = json::parse(R"({"name": "Rock/Pop", "iconName": "music.note", "shortcutKey": "1",
        "savedAt": 1700000001.5, "rig": {"formatVersion": 1, "tonavi": {}, "kavore": {"devices": [1]}},
        "outputDeviceUID": "device-1", "outputDeviceName": "Desk", "outputVolume": 0.75,
        "inputDeviceUID": "mic-1", "inputDeviceName": "Mic"})");
    writeText(store.configFileURL("Rock/Pop"), file.dump());
    QuickConfig loaded = store.loadQuickConfig("Rock-Pop"); // "/" and "-" share a file
    EXPECT_EQ(loaded.rig.tonavi, TonaviConfig());
    EXPECT_EQ(loaded.rig.kavore, R"({"devices":[1]})");

    store.saveQuickConfig(loaded);
    json written = json::parse(readText(store.configFileURL("Rock/Pop")));
    EXPECT_EQ(written["rig"]["tonavi"], json::parse(encodeTonaviConfig(TonaviConfig())));
    written["rig"]["tonavi"] = json::object();
    EXPECT_EQ(written, file);
    loaded.outputDeviceName.reset();
    store.saveQuickConfig(loaded);
    EXPECT_FALSE(json::parse(readText(store.configFileURL("Rock/Pop"))).contains("outputDeviceName"));

    store.deleteQuickConfig("Rock/Pop");
    EXPECT_FALSE(fs::exists(store.configFileURL("Rock/Pop")));
    EXPECT_THROW(store.deleteQuickConfig("Rock/Pop"), std::system_error);
    EXPECT_THROW(store.loadQuickConfig("Rock/Pop"), std::system_error);
}

TEST_F(SideFilesTest, ListSkipsOtherFilesAndDamageAndSortsByName) {
    for (const char* name : {"b", "A", "a"})
        store.saveQuickConfig(quickConfig(name));
    writeText(store.configsDir() / "x.json", testing::readText(store.configFileURL("b")));
    writeText(store.configsDir() / "broken.tonavirig", "{\"name\": \"broken\"");
    writeText(store.configsDir() / "partial.tonavirig",
              R"({"name": "p", "iconName": "i", "shortcutKey": ""})");
    fs::create_directory(store.configsDir() / "folder.tonavirig");

    std::vector<std::string> names;
    for (const auto& config : store.listQuickConfigs())
        names.push_back(config.name);
    EXPECT_EQ(names, (std::vector<std::string>{"A", "a", "b"}));
    EXPECT_THROW(store.loadQuickConfig("broken"), ConfigDecodeError);
    EXPECT_THROW(store.loadQuickConfig("partial"), ConfigDecodeError);

    files->shouldFail = [](FaultyFileSystem::Op op, const fs::path&) {
        return op == FaultyFileSystem::Op::list;
    };
    EXPECT_TRUE(store.listQuickConfigs().empty());
}

TEST(SceneMerge, SceneSetsSoundAndRoutingTheMachineKeepsTheRest) {
    TonaviConfig onto = testing::sampleConfig(0), scene = testing::sampleConfig(1);
    // Scene: app1 (changed) and app3 (new); onto: app0, app1, app2. Groups and presets merge the same way.
    scene.apps = {scene.apps[1], scene.apps[3]};
    scene.apps[0].volume = 0.01;
    scene.groups[0].name = "Scene group";
    onto.groups.push_back(OutputGroup{"only-onto", "", "", {}});
    kavore::EQPreset mine, theirs, other;
    mine.id = theirs.id = "p1";
    theirs.name = "Scene's";
    other.id = "p2";
    onto.customEQPresets = {mine, other};
    scene.customEQPresets = {theirs};
    // The machine's own records differ in the scene, and are not taken from it.
    scene.devices.clear();
    scene.ui.theme = "scene";
    scene.hiddenAppIDs = {"scene-hidden"};
    scene.startAtLogin = !onto.startAtLogin;
    // Sound and routing do come from the scene.
    scene.locks.balance = true;
    scene.smart.autoDuck = true;
    scene.lanes.clear();
    scene.softMasterMuted = true;
    scene.systemRows.systemChain.bypassed = true;

    TonaviConfig expected = onto;
    expected.apps = {scene.apps[0], scene.apps[1], onto.apps[0], onto.apps[2]};
    expected.groups = {scene.groups[0], onto.groups[1]};
    expected.customEQPresets = {theirs, other};
    expected.locks = scene.locks;
    expected.smart = scene.smart;
    expected.lanes.clear();
    expected.softMasterPercent = scene.softMasterPercent;
    expected.softMasterMuted = true;
    expected.systemRows = scene.systemRows;
    EXPECT_EQ(SceneLoadPolicy::merge(scene, onto), expected);
}

TEST_F(SideFilesTest, AutoDirectFileAlwaysMirrorsTheBundledList) {
    EXPECT_EQ(store.loadAutoDirectList(), AutoDirectList::bundled());
    EXPECT_EQ(json::parse(readText(store.autoDirectURL())),
              json::parse(R"({"bundleIDs": [], "updatedAt": 0})"));

    writeText(store.autoDirectURL(), R"({"bundleIDs": ["com.example.a"], "updatedAt": 0})");
    EXPECT_EQ(store.loadAutoDirectList(), AutoDirectList::bundled());
    EXPECT_EQ(json::parse(readText(store.autoDirectURL()))["bundleIDs"], json::array());

    writeText(store.autoDirectURL(), "garbage");
    files->shouldFail = [](FaultyFileSystem::Op op, const fs::path&) {
        return op == FaultyFileSystem::Op::writeAtomically;
    };
    EXPECT_EQ(store.loadAutoDirectList(), AutoDirectList::bundled());
    EXPECT_THROW(store.saveAutoDirectList(AutoDirectList{{"x"}, 5}), std::system_error);
    files->shouldFail = nullptr;
    store.saveAutoDirectList(AutoDirectList{{"x"}, 5});
    EXPECT_EQ(json::parse(readText(store.autoDirectURL()))["updatedAt"], 5);
}

TEST(AutoDirectListTest, ContainsMatchesWholeIdsAndChildren) {
    const AutoDirectList list{{"com.example"}, 0};
    EXPECT_TRUE(list.contains("com.example") && list.contains("com.example.helper"));
    EXPECT_FALSE(list.contains("com.examples") || list.contains("com"));
}

TEST_F(SideFilesTest, MIDIMappingsGoldenFileWithOneKeyTargets) {
    EXPECT_TRUE(store.loadMIDIMappings().empty());
    const json file = json::parse(R"([
        {"id": "m1", "channel": 0, "cc": 7, "target": {"appVolume": {"bundleID": "com.example.a"}}},
        {"id": "m2", "channel": 1, "cc": 8, "target": {"appMute": {"bundleID": "com.example.b"}}},
        {"id": "m3", "channel": 2, "cc": 9, "target": {"deviceVolume": {"uid": "dev"}}},
        {"id": "m4", "channel": 16, "cc": 10, "target": {"configLoad": {"name": "Rock/Pop"}}},
        {"id": "m5", "channel": 3, "cc": 11, "target": {"stageMode": {}}},
        {"id": "m6", "channel": 4, "cc": 127, "target": {"outputVolume": {}}}])");
    const std::vector<MIDIMapping> mappings = {{"m1", 0, 7, MIDIMapping::AppVolume{"com.example.a"}},
                                               {"m2", 1, 8, MIDIMapping::AppMute{"com.example.b"}},
                                               {"m3", 2, 9, MIDIMapping::DeviceVolume{"dev"}},
                                               {"m4", 16, 10, MIDIMapping::ConfigLoad{"Rock/Pop"}},
                                               {"m5", 3, 11, MIDIMapping::StageMode{}},
                                               {"m6", 4, 127, MIDIMapping::OutputVolume{}}};
    writeText(store.midiMappingsURL(), file.dump());
    EXPECT_EQ(store.loadMIDIMappings(), mappings);
    store.saveMIDIMappings(mappings);
    EXPECT_EQ(json::parse(readText(store.midiMappingsURL())), file);

    for (const char* bad : {R"([{"id":"x","channel":0,"cc":1,"target":{"stageMode":{},"outputVolume":{}}}])",
                            R"([{"id":"x","channel":0,"cc":1,"target":{"fader":{}}}])",
                            R"([{"id":"x","channel":"1","cc":1,"target":{"stageMode":{}}}])"}) {
        writeText(store.midiMappingsURL(), bad);
        EXPECT_THROW(store.loadMIDIMappings(), ConfigDecodeError) << bad;
    }
}

} // namespace
} // namespace tonavi
