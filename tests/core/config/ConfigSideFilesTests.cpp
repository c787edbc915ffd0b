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

QuickConfig quickConfig(const std::string& name, int variant) {
    QuickConfig config;
    config.name = name;
    config.iconName = "music.note";
    config.shortcutKey = "1";
    config.savedAt = 1.7e9 + variant;
    config.rig.tonavi = testing::sampleConfig(variant);
    config.rig.kavore = R"({"devices":[{"name":"Rig","sources":[1,2]}]})";
    if (variant % 2) {
        config.outputDeviceUID = "device-1";
        config.outputVolume = 0.75;
    }
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
    QuickConfig expected;
    expected.name = "Rock/Pop";
    expected.iconName = "music.note";
    expected.shortcutKey = "1";
    expected.savedAt = 1700000001.5;
    expected.rig.formatVersion = 1;
    expected.rig.tonavi = TonaviConfig();
    expected.rig.kavore = R"({"devices":[1]})";
    expected.outputDeviceUID = "device-1";
    expected.outputDeviceName = "Desk";
    expected.outputVolume = 0.75;
    expected.inputDeviceUID = "mic-1";
    expected.inputDeviceName = "Mic";

    writeText(store.configFileURL("Rock/Pop"), file.dump());
    EXPECT_EQ(store.loadQuickConfig("Rock/Pop"), expected);
    // "/" and "-" share a file.
    EXPECT_EQ(store.loadQuickConfig("Rock-Pop").name, "Rock/Pop");

    store.saveQuickConfig(expected);
    json written = json::parse(readText(store.configFileURL("Rock/Pop")));
    EXPECT_EQ(written["rig"]["tonavi"], json::parse(encodeTonaviConfig(TonaviConfig())));
    written["rig"]["tonavi"] = json::object();
    EXPECT_EQ(written, file);
    expected.outputDeviceName.reset();
    store.saveQuickConfig(expected);
    EXPECT_FALSE(json::parse(readText(store.configFileURL("Rock/Pop"))).contains("outputDeviceName"));

    store.deleteQuickConfig("Rock/Pop");
    EXPECT_FALSE(fs::exists(store.configFileURL("Rock/Pop")));
    EXPECT_THROW(store.deleteQuickConfig("Rock/Pop"), std::system_error);
    EXPECT_THROW(store.loadQuickConfig("Rock/Pop"), std::system_error);
}

TEST_F(SideFilesTest, ListSkipsOtherFilesAndDamageAndSortsByName) {
    store.saveQuickConfig(quickConfig("b", 0));
    store.saveQuickConfig(quickConfig("A", 1));
    store.saveQuickConfig(quickConfig("a", 2));
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

TEST(RigFileReading, OptionalPartsMustReadWhenPresent) {
    EXPECT_THROW(json::parse(R"({"tonavi": {}})").get<RigFile>(), ConfigDecodeError);
    EXPECT_THROW(json::parse(R"({"formatVersion": 1, "tonavi": []})").get<RigFile>(), ConfigDecodeError);
    const RigFile rig = json::parse(R"({"formatVersion": 3, "tonavi": {}, "kavore": null})").get<RigFile>();
    EXPECT_EQ(rig.formatVersion, 3);
    EXPECT_EQ(rig.tonavi, TonaviConfig());
    EXPECT_FALSE(rig.kavore);
}

TEST(SceneMerge, SceneSetsSoundAndRoutingTheMachineKeepsTheRest) {
    TonaviConfig onto = testing::sampleConfig(0);
    TonaviConfig scene = testing::sampleConfig(1);
    // Scene: app1 (changed), app3 (new), no app0 or app2. Onto: app0, app1, app2.
    scene.apps = {scene.apps[1], scene.apps[3]};
    scene.apps[0].volume = 0.01;
    scene.groups[0].name = "Scene group";
    OutputGroup extra;
    extra.id = "only-onto";
    onto.groups.push_back(extra);
    kavore::EQPreset mine;
    mine.id = "p1";
    mine.name = "Mine";
    kavore::EQPreset theirs = mine;
    theirs.name = "Scene's";
    kavore::EQPreset other = mine;
    other.id = "p2";
    onto.customEQPresets = {mine, other};
    scene.customEQPresets = {theirs};
    scene.devices.clear();
    scene.ui.theme = "scene";
    scene.hiddenAppIDs = {"scene-hidden"};
    scene.startAtLogin = !onto.startAtLogin;
    scene.locks.balance = true;

    const TonaviConfig merged = SceneLoadPolicy::merge(scene, onto);
    std::vector<std::string> ids;
    for (const auto& app : merged.apps)
        ids.push_back(app.id);
    EXPECT_EQ(ids, (std::vector<std::string>{"com.example.app1", "com.example.app3", "com.example.app0",
                                             "com.example.app2"}));
    EXPECT_EQ(merged.apps[0], scene.apps[0]);
    EXPECT_EQ(merged.apps[2], onto.apps[0]);
    ASSERT_EQ(merged.groups.size(), 2u);
    EXPECT_EQ(merged.groups[0].name, "Scene group");
    EXPECT_EQ(merged.groups[1].id, "only-onto");
    ASSERT_EQ(merged.customEQPresets.size(), 2u);
    EXPECT_EQ(merged.customEQPresets[0].name, "Scene's");
    EXPECT_EQ(merged.customEQPresets[1].id, "p2");

    // From the machine.
    EXPECT_EQ(merged.devices, onto.devices);
    EXPECT_EQ(merged.ui, onto.ui);
    EXPECT_EQ(merged.hiddenAppIDs, onto.hiddenAppIDs);
    EXPECT_EQ(merged.startAtLogin, onto.startAtLogin);
    EXPECT_EQ(merged.bluetooth, onto.bluetooth);
    EXPECT_EQ(merged.hearingCare, onto.hearingCare);
    EXPECT_EQ(merged.globalListening, onto.globalListening);
    EXPECT_EQ(merged.audibleAppLastHeardAt, onto.audibleAppLastHeardAt);
    // From the scene.
    EXPECT_EQ(merged.locks, scene.locks);
    EXPECT_EQ(merged.softMasterPercent, scene.softMasterPercent);
    EXPECT_EQ(merged.smart, scene.smart);
    EXPECT_EQ(merged.systemRows, scene.systemRows);
    EXPECT_EQ(merged.lanes, scene.lanes);
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
    const std::vector<MIDIMapping> mappings = {
        {"m1", 0, 7, MIDIMapping::AppVolume{"com.example.a"}},
        {"m2", 1, 8, MIDIMapping::AppMute{"com.example.b"}},
        {"m3", 2, 9, MIDIMapping::DeviceVolume{"dev"}},
        {"m4", 16, 10, MIDIMapping::ConfigLoad{"Rock/Pop"}},
        {"m5", 3, 11, MIDIMapping::StageMode{}},
        {"m6", 4, 127, MIDIMapping::OutputVolume{}},
    };
    writeText(store.midiMappingsURL(), file.dump());
    EXPECT_EQ(store.loadMIDIMappings(), mappings);
    store.saveMIDIMappings(mappings);
    EXPECT_EQ(json::parse(readText(store.midiMappingsURL())), file);
    EXPECT_EQ(mappings[3].targetCaseNumber(), 3);
    EXPECT_EQ(mappings[4].targetCaseNumber(), 4);

    for (const char* bad :
         {R"([{"id":"x","channel":0,"cc":1,"target":{"stageMode":{},"outputVolume":{}}}])",
          R"([{"id":"x","channel":0,"cc":1,"target":{"fader":{}}}])",
          R"([{"id":"x","channel":0,"cc":1,"target":{"appMute":{}}}])",
          R"([{"id":"x","channel":"1","cc":1,"target":{"stageMode":{}}}])", R"({"id":"x"})", "[{"}) {
        writeText(store.midiMappingsURL(), bad);
        EXPECT_THROW(store.loadMIDIMappings(), ConfigDecodeError) << bad;
    }
}

} // namespace
} // namespace tonavi
