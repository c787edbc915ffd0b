// Quick configs, scene merging, the auto-direct list and MIDI mappings.

#include "core/config/SceneLoadPolicy.hpp"
#include "core/config/TonaviConfigStore.hpp"
#include "tests/core/config/ConfigTestSupport.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tonavi {
namespace {

using nlohmann::json;
using testing::FaultyFileSystem;
using testing::readText;
using testing::writeText;
namespace fs = std::filesystem;

QuickConfig quickConfig(const std::string& name) {
    QuickConfig config;
    config.name = name;
    config.rig.tonavi = testing::sampleConfig(0);
    return config;
}

class SideFilesTest : public ::testing::Test {
  protected:
    SideFilesTest() : files(std::make_shared<FaultyFileSystem>()), store(folder.path(), files) {}

    testing::TemporaryFolder folder;
    std::shared_ptr<FaultyFileSystem> files;
    TonaviConfigStore store;
};

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

    // An identical file is left alone.
    const int writes = files->writes;
    EXPECT_EQ(store.loadAutoDirectList(), AutoDirectList::bundled());
    EXPECT_EQ(files->writes, writes);

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
    AutoDirectList list{{"com.example"}, 0};
    EXPECT_TRUE(list.contains("com.example"));
    EXPECT_TRUE(list.contains("com.example.helper"));
    EXPECT_FALSE(list.contains("com.examples"));
    EXPECT_FALSE(list.contains("com"));
    EXPECT_FALSE(AutoDirectList::bundled().contains("com.example"));
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
    EXPECT_EQ(mappings[4].targetCaseNumber(), 4);

    for (const char* bad : {R"([{"id":"x","channel":0,"cc":1,"target":{"stageMode":{},"outputVolume":{}}}])",
                            R"([{"id":"x","channel":0,"cc":1,"target":{"fader":{}}}])",
                            R"([{"id":"x","channel":0,"cc":1,"target":{"appMute":{}}}])",
                            R"([{"id":"x","channel":"1","cc":1,"target":{"stageMode":{}}}])"}) {
        writeText(store.midiMappingsURL(), bad);
        EXPECT_THROW(store.loadMIDIMappings(), ConfigDecodeError) << bad;
    }
}

} // namespace
} // namespace tonavi
