// Configuration requests through the runtime: list settings, the import's rollback and saved scenes.

#include "audio/effects/EQPresets.hpp"
#include "core/wire/TonaviPayload.hpp"
#include "tests/service/RuntimeTestSupport.hpp"

#include <future>

namespace tonavi::testing {
namespace {

using R = TonaviRequest;

TonaviConfig live(RuntimeHarness& h) {
    return h.runtime->serialQueue().syncResult([&] { return h.runtime->engine().config(); });
}

template <class T> std::vector<std::string> ids(const std::vector<T>& list) {
    std::vector<std::string> out;
    for (const auto& e : list)
        out.push_back(e.id);
    return out;
}

kavore::EffectSlot audioUnit(const std::string& id) {
    kavore::EffectSlot slot{id, kavore::EffectKind::audioUnit};
    slot.auComponent = kavore::AUComponentKey{kavore::fourCharCode("aufx"), 1, 2, "Verb", "Maker"};
    return slot;
}

TEST(ConfigRequests, AChangedEntryMovesToTheEndAndAnUnknownRemovalIsNoFailure) {
    using Read = std::vector<std::string> (*)(const TonaviConfig&);
    struct Case {
        const char* name;
        std::function<R::Value(const std::string& id, int version)> set;
        std::function<R::Value(const std::string& id)> remove;
        Read read;
        std::string message; // of a set
    };
    const Case cases[] = {
        {"lane", [](auto& id, int v) { return R::SetLane{{id, safari, "dev" + std::to_string(v), true}}; },
         [](auto& id) { return R::RemoveLane{id}; }, [](const TonaviConfig& c) { return ids(c.lanes); }, ""},
        {"duck rule",
         [](auto& id, int v) { return R::SetDuckRule{{id, "us.zoom.xos", {music}, -6.0 * v, 900, true}}; },
         [](auto& id) { return R::RemoveDuckRule{id}; }, [](const TonaviConfig& c) { return ids(c.duckRules); },
         ""},
        {"focus link", [](auto& id, int v) { return R::SetFocusLink{{id, "Work", "Scene " + std::to_string(v)}}; },
         [](auto& id) { return R::RemoveFocusLink{id}; },
         [](const TonaviConfig& c) { return ids(c.focusLinks); }, ""},
        {"EQ preset",
         [](auto& id, int v) {
             kavore::EQPreset p;
             p.id = id;
             p.name = "Mine";
             p.settings.bandGainsDB[0] = v;
             return R::SaveEQPreset{p};
         },
         [](auto& id) { return R::DeleteEQPreset{id}; },
         [](const TonaviConfig& c) { return ids(c.customEQPresets); }, "saved EQ preset Mine"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        RuntimeHarness h;
        h.start();
        for (const auto& [id, version] : {std::pair("a", 1), {"b", 1}, {"a", 2}}) {
            const TonaviReply reply = h.send(c.set(id, version));
            ASSERT_TRUE(reply.ok && reply.status) << reply.message;
            EXPECT_EQ(reply.message, c.message);
        }
        EXPECT_EQ(c.read(live(h)), (std::vector<std::string>{"b", "a"}));
        EXPECT_EQ(c.read(h.onDisk()), (std::vector<std::string>{"b", "a"}));
        // The changed entry is the new one, not a second copy.
        const TonaviConfig before = live(h);
        EXPECT_TRUE(h.send(c.set("a", 2)).ok);
        EXPECT_EQ(live(h), before);

        EXPECT_TRUE(h.send(c.remove("unknown")).ok);
        EXPECT_TRUE(h.send(c.remove("b")).ok);
        EXPECT_EQ(c.read(h.onDisk()), std::vector<std::string>{"a"});
    }
}

TEST(ConfigRequests, SystemRowsListeningAndPresetList) {
    RuntimeHarness h;
    h.startReady();
    kavore::LevelerSettings boost = kavore::LevelerSettings::off();
    boost.enabled = true;
    kavore::ChainSettings chain = kavore::ChainSettings::empty();
    chain.bypassed = true;
    ASSERT_TRUE(h.send(R::SetSystemChain{chain}).ok);
    ASSERT_TRUE(h.send(R::SetSystemMagicBoost{boost}).ok);
    // A client's record is rebuilt: a repeated slot and a third one are dropped.
    kavore::GlobalListeningSettings listening;
    listening.enabled = true;
    listening.balancer.enabled = true;
    listening.audioUnitSlots = {audioUnit("x"), audioUnit("x"), audioUnit("y"), audioUnit("z")};
    ASSERT_TRUE(h.send(R::SetGlobalListening{listening}).ok);
    for (const TonaviConfig& c : {live(h), h.onDisk()}) {
        EXPECT_EQ(c.systemRows.systemChain, chain);
        EXPECT_EQ(c.systemRows.systemMagicBoost, boost);
        EXPECT_TRUE(c.globalListening.enabled && c.globalListening.balancer.enabled);
        EXPECT_EQ(ids(c.globalListening.audioUnitSlots), (std::vector<std::string>{"x", "y"}));
    }

    kavore::EQPreset mine;
    mine.id = "mine";
    ASSERT_TRUE(h.send(R::SaveEQPreset{mine}).ok);
    const TonaviReply list = h.send(R::ListEQPresets{});
    ASSERT_TRUE(list.ok && list.payload && !list.status);
    std::vector<kavore::EQPreset> expected = kavore::EQPresets::all();
    expected.push_back(mine);
    EXPECT_EQ(TonaviPayload::decodeEQPresets(*list.payload), expected);
}

TEST(ConfigRequests, AnImportWhoseSaveFailsPutsConfigurationAndAutoDirectListBack) {
    RuntimeHarness h;
    h.startReady();
    ASSERT_TRUE(h.send(R::SetAppVolume{music, 0.3}).ok);
    h.settleDiscovery(); // the apps it finds join the configuration
    h.advance(1.0);      // past the deferred save of the volume
    const TonaviConfig before = live(h);
    const std::string listBefore = readText(h.store->autoDirectURL());

    TonaviConfig imported = before;
    imported.apps = {AppAudioState("com.example.a"), AppAudioState("com.example.b")};
    const AutoDirectList list{{"com.example.direct"}, 5.0};
    // The list is written; the configuration is not.
    h.fileSystem->shouldFail = [](FaultyFileSystem::Op op, const FileSystem::Path& path) {
        return op == FaultyFileSystem::Op::writeAtomically && path.filename() == "state.json.tmp";
    };
    const TonaviReply failed = h.send(R::ImportConfiguration{imported, list});
    EXPECT_FALSE(failed.ok);
    EXPECT_TRUE(failed.message.starts_with("SoundSource settings could not be saved: ")) << failed.message;
    EXPECT_EQ(live(h), before);
    EXPECT_EQ(h.onDisk(), before);
    EXPECT_EQ(readText(h.store->autoDirectURL()), listBefore);

    h.fileSystem->shouldFail = [](FaultyFileSystem::Op, const FileSystem::Path&) { return false; };
    const TonaviReply done = h.send(R::ImportConfiguration{imported, list});
    EXPECT_EQ(done.message, "Imported 2 app settings safely.");
    const std::vector<std::string> apps = ids(h.onDisk().apps);
    EXPECT_EQ(std::vector(apps.begin(), apps.begin() + 2),
              (std::vector<std::string>{"com.example.a", "com.example.b"}));
}

TEST(Scenes, SavedScenesKeepTheirIconOverASaveAndARenameToItselfDeletesNothing) {
    RuntimeHarness h;
    h.startReady();
    EXPECT_EQ(h.send(R::SaveConfig{"Rock/Pop"}).message, "saved config Rock/Pop");
    EXPECT_TRUE(h.send(R::SetConfigIcon{"Rock/Pop", "guitars"}).ok);
    ASSERT_TRUE(h.send(R::SaveConfig{"Rock/Pop"}).ok);
    const QuickConfig saved = h.store->loadQuickConfig("Rock/Pop");
    EXPECT_EQ(std::tuple(saved.iconName, saved.savedAt, saved.outputDeviceUID, saved.inputDeviceUID),
              std::tuple(std::string("guitars"), 1'700'000'000.0, std::optional(speakers),
                         std::optional(builtInMic)));
    EXPECT_EQ(saved.rig.tonavi, live(h));

    // "Rock-Pop" is the same file: a rename to it must not delete what it just wrote.
    for (const char* same : {"Rock/Pop", "Rock-Pop"}) {
        EXPECT_EQ(h.send(R::RenameConfig{"Rock/Pop", same}).message, std::string("renamed to ") + same);
        EXPECT_EQ(h.store->loadQuickConfig("Rock/Pop").name, same);
        ASSERT_TRUE(h.send(R::RenameConfig{same, "Rock/Pop"}).ok);
    }
    EXPECT_EQ(h.send(R::RenameConfig{"Rock/Pop", ""}).message, "empty name");
    EXPECT_EQ(h.send(R::SaveConfig{""}).message, "empty name");
    EXPECT_EQ(h.send(R::RenameConfig{"Rock/Pop", "Jazz"}).message, "renamed to Jazz");
    EXPECT_TRUE(h.send(R::SaveConfig{"Ambient"}).ok);
    const TonaviReply list = h.send(R::ListConfigs{});
    ASSERT_TRUE(list.ok && list.payload && !list.status);
    EXPECT_EQ(TonaviPayload::decodeNames(*list.payload), (std::vector<std::string>{"Ambient", "Jazz"}));

    EXPECT_TRUE(h.send(R::DeleteConfig{"Jazz"}).ok);
    EXPECT_TRUE(h.send(R::DeleteConfig{"Jazz"}).message.starts_with("delete failed: "));
    EXPECT_TRUE(h.send(R::SetConfigIcon{"Jazz", "x"}).message.starts_with("icon change failed: "));
    EXPECT_TRUE(h.send(R::RenameConfig{"Jazz", "Blues"}).message.starts_with("rename failed: "));
    EXPECT_TRUE(sendAndWait(h, R::LoadConfig{"Jazz"}).message.starts_with("load failed: "));
}

TEST(Scenes, LoadingASceneSwitchesTheOutputBeforeItRepliesKeepsAppsItDoesNotNameAndSaysWhatIsGone) {
    RuntimeHarness h;
    h.startReady();
    // A scene saved on the USB headphones at 30 %, with Music at 20 %; then the user moves on.
    ASSERT_TRUE(sendAndWait(h, R::SetOutputDevice{"USB Headphones"}).ok);
    ASSERT_TRUE(h.send(R::SetOutputVolume{0.3}).ok);
    ASSERT_TRUE(h.send(R::SetAppVolume{music, 0.2}).ok);
    ASSERT_TRUE(h.send(R::SaveConfig{"Desk"}).ok);
    const auto moveOn = [&] {
        ASSERT_TRUE(sendAndWait(h, R::SetOutputDevice{"MacBook Pro Speakers"}).ok);
        ASSERT_TRUE(h.send(R::SetAppVolume{music, 0.9}).ok);
    };
    moveOn();
    ASSERT_TRUE(h.send(R::SetAppVolume{"com.example.later", 0.5}).ok);
    TonaviReply loaded = sendAndWait(h, R::LoadConfig{"Desk"});
    ASSERT_TRUE(loaded.ok && loaded.status) << loaded.message;
    EXPECT_EQ(loaded.message, "loaded Desk");
    EXPECT_EQ(loaded.status->defaultOutputUID, usb);
    EXPECT_EQ(h.machine->world()->defaultOutputUID, usb);
    const auto& devices = loaded.status->devices;
    const auto headphones = std::ranges::find(devices, usb, &DeviceLiveStatus::id);
    ASSERT_NE(headphones, devices.end());
    EXPECT_NEAR(headphones->volume, 0.3, 1e-6);
    const TonaviConfig config = live(h);
    EXPECT_DOUBLE_EQ(config.app(music)->volume, 0.2);
    EXPECT_DOUBLE_EQ(config.app("com.example.later")->volume, 0.5); // not in the scene: kept
    EXPECT_DOUBLE_EQ(h.onDisk().app(music)->volume, 0.2);

    // A scene whose output is gone loads the rest and says so.
    moveOn();
    h.edit([](SimWorld& w) { return w.unplug(usb); });
    loaded = sendAndWait(h, R::LoadConfig{"Desk"});
    EXPECT_TRUE(loaded.ok);
    EXPECT_EQ(loaded.message, "loaded Desk; output \"USB Headphones\" is missing");
    EXPECT_EQ(h.machine->world()->defaultOutputUID, speakers);
    EXPECT_DOUBLE_EQ(live(h).app(music)->volume, 0.2);
}

} // namespace
} // namespace tonavi::testing
