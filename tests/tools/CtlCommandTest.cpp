// tonavictl's command words: what is refused before anything is sent, the request each line becomes,
// the one smart switch a line changes, and the smart and recent tables.

#include "tools/tonavictl/CtlCommand.hpp"
#include "audio/chain/ChainSettingsJSON.hpp"
#include "audio/effects/EQPresets.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "base/Encoding.hpp"
#include "tests/tools/SampleStatus.hpp"
#include "tools/tonavictl/StatusTable.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

using namespace tonavi;
using tonavi::testing::livingGroupUID;
using tonavi::testing::sampleStatus;
using R = TonaviRequest;
using Words = std::vector<std::string>;
using ::testing::HasSubstr;

TEST(CtlCommand, WrongWordsAndUnresolvedNamesAreRefusedWithWhatIsWrong) {
    const std::string level = " give 0...1 or 0%...100%, or +5% / -5%";
    const std::pair<Words, std::string> cases[] = {
        {{}, "no command given"},
        {{"volum", "Music", "0.5"},
         "unknown command \"volum\"; did you mean volume? (tonavictl help lists the commands)"},
        {{"frobnicate"}, "unknown command \"frobnicate\" (tonavictl help lists the commands)"},
        {{"volume", "Music"},
         "volume takes an application and a level, e.g. volume Music 0.5 (tonavictl help)"},
        {{"volume", "Music", "loud"}, "volume level \"loud\" is not a number;" + level},
        {{"volume", "Music", "nan"}, "volume level \"nan\" is not a number;" + level},
        {{"volume", "Music", "1.5"}, "volume level 1.5 is out of range;" + level},
        {{"volume", "Music", "150%"}, "volume level 150% is out of range;" + level},
        {{"volume", "Music", "+150%"}, "volume level +150% is out of range;" + level},
        {{"mute", "Music", "flip"}, "mute takes one application (tonavictl help)"},
        {{"boost", "Music", "5"}, "boost factor 5 is out of range; give 1...4"},
        {{"mute", "Music", "Safari"}, "mute takes one application (tonavictl help)"},
        {{"stage", "maybe"}, "stage takes on or off"},
        {{"redirect", "Music"}, "redirect takes an application and a device, or 'default' (tonavictl help)"},
        {{"config", "rename", "Only"}, "config takes save NAME, load NAME, delete NAME, rename OLD NEW or list"},
        {{"config", "list", "--xml"}, "config list takes only --json, not \"--xml\""},
        {{"apps", "--all"}, "apps takes --installed and --json, not \"--all\""},
        {{"eq-preset", "save", "Mine"}, "eq-preset takes save NAME APP or delete NAME"},
        {{"lane", "add", "Music"}, "lane takes add APP DEVICE [--unlocked], remove APP or list"},
        {{"duck-rule", "add", "Zoom"}, "duck-rule add takes a trigger application and the applications it lowers"},
        {{"duck-rule", "add", "Zoom", "Music", "--db", "6"}, "duck-rule --db takes a level in dB, -60...0"},
        {{"listen", "band", "1", "loud", "3"},
         "listen band takes a band number, a frequency in Hz, a gain in dB and a Q"},
        {{"system-chain", "boost", "2"},
         "system-chain takes eq PRESET|off, bypass on|off or boost AMOUNT|off (0...1)"},
        {{"eq", "Music"}, "eq takes an application and a preset name, or 'off' (tonavictl help)"},
        {{"status", "--xml"}, "status takes only --json, not \"--xml\""},
        {{"mixer", "--wide"}, "mixer takes only --once, not \"--wide\""},
        {{"ping", "now"}, "ping takes no arguments"},
        {{"send"}, "send takes one argument, the request JSON in quotes"},
        {{"output"}, "output takes one device (tonavictl help)"},
        {{"device-volume", "USB", "2"}, "device volume 2 is out of range;" + level},
        {{"prefer"}, "prefer takes one or more devices, most preferred first (tonavictl help)"},
        {{"lock", "balance", "on"}, "lock takes volume, mute or rate, then on or off"},
        {{"group", "create", "Desk", "BuiltIn"}, "group takes create NAME DEVICE DEVICE... or delete NAME"},
    };
    for (const auto& [words, error] : cases)
        EXPECT_EQ(CtlCommand::parse(words).command ? "(accepted)" : CtlCommand::parse(words).error, error);

    // Names that do not resolve stop the request.
    const std::pair<Words, std::string> unresolved[] = {
        {{"solo", "Music", "Chrome"}, "no application matches \"Chrome\" (tonavictl status lists them)"},
        // An identifier the status does not list yet is sent, but nothing can be changed from its value.
        {{"mute", "com.spotify.Client", "toggle"},
         "com.spotify.Client is not in the status yet, so it has no mute to toggle"},
        {{"volume", "com.spotify.Client", "-5%"},
         "com.spotify.Client is not in the status yet, so it has no volume to change; give a level"},
        {{"redirect", "Music", "AirPods"},
         "no output device matches \"AirPods\" (tonavictl status lists them)"},
        // An input is never an output, nor offered as one.
        {{"output", "MacBook Pro Microphone"},
         "no output device matches \"MacBook Pro Microphone\" (tonavictl status lists them)"},
        {{"output", "macbook pro"},
         "no output device matches \"macbook pro\"; did you mean: MacBook Pro Speakers (BuiltIn)?"},
        {{"lock", "rate", "on"}, "no locks to change"},
        {{"eq", "Music", "Rokc"}, "no EQ preset is named \"Rokc\"; did you mean Rock?"},
        {{"eq", "Music", "Polka"},
         "no EQ preset is named \"Polka\"; the presets are Flat, Acoustic, Bass Booster, Bass Reducer, "
         "Classical, Dance, Deep, Electronic, Hip-Hop, Jazz, Latin, Loudness, Lounge, Piano, Pop, R&B, Rock, "
         "Small Speakers, Spoken Word, Treble Booster, Treble Reducer, Vocal Booster, Metal, Podcast"},
    };
    const auto status = sampleStatus();
    for (const auto& [words, error] : unresolved)
        EXPECT_EQ(CtlCommand::parse(words).command->toRequest(&status).error, error);
    // Only lines that name something ask for the status first.
    for (const auto& [words, needs] : {std::pair(Words{"stage", "on"}, false),
                                       {Words{"solo"}, false},
                                       {Words{"solo", "Music"}, true},
                                       {Words{"eq", "Music", "Rock"}, true}})
        EXPECT_EQ(CtlCommand::parse(words).command->needsStatus(), needs) << words.front();
    EXPECT_TRUE(CtlCommand::parse(Words{"lock", "rate", "on"}).command->needsLocks());
}

TEST(CtlCommand, EachLineBecomesItsRequestWithNamesResolved) {
    const GlobalLocks locks{.mute = true}, volumeToo{.volume = true, .mute = true};
    const std::pair<Words, TonaviRequest> cases[] = {
        {{"diagnostics"}, R{R::Diagnostics{}}},
        {{"volume", "music", "0.25"}, R{R::SetAppVolume{"com.apple.Music", 0.25}}},
        {{"mute", "SAFARI"}, R{R::SetAppMuted{"com.apple.Safari", true}}},
        {{"solo", "Safari", "music", "com.apple.Safari"},
         R{R::SetSoloApps{{"com.apple.Safari", "com.apple.Music"}}}},
        {{"solo"}, R{R::SetSoloApps{{}}}},
        {{"stage", "on"}, R{R::StageMode{true}}},
        {{"boost", "Music", "2.5"}, R{R::SetAppBoost{"com.apple.Music", 2.5}}},
        {{"redirect", "Music", "usb headphones"}, R{R::SetAppRedirect{"com.apple.Music", "USB-HP"}}},
        {{"redirect", "Music", "default"}, R{R::SetAppRedirect{"com.apple.Music", ""}}},
        {{"reset", "Music"}, R{R::ResetApp{"com.apple.Music"}}},
        {{"eq", "Safari", "off"}, R{R::SetAppChain{"com.apple.Safari", kavore::ChainSettings::empty()}}},
        {{"devices"}, R{R::ListDevices{}}},
        {{"output", "desk cans"}, R{R::SetOutputDevice{"USB-HP"}}},
        {{"output", "Living"}, R{R::SetOutputDevice{livingGroupUID}}},
        {{"redirect", "Music", "living"}, R{R::SetAppRedirect{"com.apple.Music", livingGroupUID}}},
        {{"output", "@default"}, R{R::SetOutputDevice{"BuiltIn"}}},
        {{"redirect", "Music", "@default"}, R{R::SetAppRedirect{"com.apple.Music", "BuiltIn"}}},
        {{"device-volume", "@default", "-25%"}, R{R::SetDeviceVolume{"BuiltIn", 0.25}}},
        {{"device-volume", "BuiltIn", "+0.75"}, R{R::SetDeviceVolume{"BuiltIn", 1.0}}},
        {{"volume", "Music", "-25%"}, R{R::SetAppVolume{"com.apple.Music", 0.25}}},
        {{"volume", "Music", "+60%"}, R{R::SetAppVolume{"com.apple.Music", 1.0}}},
        {{"volume", "com.spotify.Client", "0.5"}, R{R::SetAppVolume{"com.spotify.Client", 0.5}}},
        {{"mute", "Safari", "toggle"}, R{R::SetAppMuted{"com.apple.Safari", false}}},
        {{"mute", "Music", "toggle"}, R{R::SetAppMuted{"com.apple.Music", true}}},
        {{"device-volume", "usb headphones", "40%"}, R{R::SetDeviceVolume{"USB-HP", 0.4}}},
        {{"device-mute", "macbook pro microphone"}, R{R::SetDeviceMuted{"Mic", true}}},
        {{"show", "Gone-Device-UID"}, R{R::SetDeviceHidden{"Gone-Device-UID", false}}},
        {{"prefer", "USB Headphones", "BuiltIn"}, R{R::SetPreferredOrder{{"USB-HP", "BuiltIn"}}}},
        {{"lock", "volume", "on"}, R{R::SetLocks{volumeToo}}},
        {{"lock", "mute", "off"}, R{R::SetLocks{GlobalLocks{}}}},
        {{"group", "delete", "living"}, R{R::DeleteGroup{"g-1"}}},
        {{"config", "save", "Rock/Pop"}, R{R::SaveConfig{"Rock/Pop"}}},
        {{"config", "load", "Desk"}, R{R::LoadConfig{"Desk"}}},
        {{"config", "rename", "Desk", "Home"}, R{R::RenameConfig{"Desk", "Home"}}},
        {{"config", "list", "--json"}, R{R::ListConfigs{}}},
        {{"eq-presets"}, R{R::ListEQPresets{}}},
        {{"apps"}, R{R::ListRunningAudioApps{}}},
        {{"apps", "--json", "--installed"}, R{R::ListInstalledApps{}}},
    };
    // The group's aggregate as the service names it; the configuration knows the group by its ID.
    auto status = sampleStatus();
    status.devices[3].name = "Tonavi Group — Living";
    TonaviConfig config;
    config.groups = {OutputGroup{.id = "g-1", .name = "Living"}};
    for (const auto& [words, request] : cases) {
        const auto parsed = CtlCommand::parse(words);
        ASSERT_TRUE(parsed.command) << parsed.error;
        const auto built = parsed.command->toRequest(&status, &locks, nullptr, &config);
        ASSERT_TRUE(built.request) << words.front() << ": " << built.error;
        EXPECT_EQ(*built.request, request) << words.front() << " " << words.back();
    }

    // A group gets a fresh identifier and its members in the order given.
    const auto group = CtlCommand::parse(Words{"group", "create", "Desk", "BuiltIn", "desk cans"})
                           .command->toRequest(&status);
    const auto& saved = std::get<R::SaveGroup>(group.request->value)._0;
    ASSERT_TRUE(!saved.id.empty() && saved.members.size() == 2u);
    EXPECT_EQ(saved.name + ": " + saved.members[0].id + ", " + saved.members[1].id, "Desk: BuiltIn, USB-HP");

    // eq builds one equaliser slot from the built-in preset and keeps the boost.
    for (const auto& words :
         {Words{"eq", "Music", "bass", "booster"}, Words{"eq", "Music", "Bass-Booster"}}) {
        const auto built = CtlCommand::parse(words).command->toRequest(&status);
        ASSERT_TRUE(built.request) << built.error;
        const auto& [app, chain] = std::get<R::SetAppChain>(built.request->value);
        ASSERT_EQ(chain.slots.size(), 1u);
        const auto& slot = chain.slots.front();
        EXPECT_EQ(std::tuple(app, chain.overdrive.multiplier, chain.bypassed, isUUID(slot.id), slot.kind,
                             slot.bypassed),
                  std::tuple("com.apple.Music", 2.0, false, true, kavore::EffectKind::eq10, false));
        const auto settings = kavore::eq10SettingsFromJSON(
            nlohmann::json::parse(slot.settingsJSON.begin(), slot.settingsJSON.end()));
        EXPECT_EQ(settings, kavore::EQPresets::named("Bass Booster")->settings);
    }
}

TEST(CtlSmartCommand, EachSwitchChangesOneFieldAndTheTablesSayWhatEachAutomationDoes) {
    const SmartSettings current{
        .followMe = true, .followMeBackgroundPercent = 30, .leaveAloneBundleIDs = {"com.apple.Safari"}};
    const std::tuple<Words, bool SmartSettings::*, bool> cases[] = {
        {{"smart", "follow-me", "off"}, &SmartSettings::followMe, false},
        {{"smart", "mic-follow", "on"}, &SmartSettings::micFollow, true},
    };
    for (const auto& [words, field, value] : cases) {
        auto parsed = CtlCommand::parse(words);
        ASSERT_TRUE(parsed.command) << parsed.error;
        EXPECT_TRUE(parsed.command->needsSmartSettings() && !parsed.command->needsStatus());
        EXPECT_FALSE(parsed.command->toRequest(nullptr).request) << "refused without the present settings";
        SmartSettings expected = current;
        expected.*field = value;
        EXPECT_EQ(parsed.command->toRequest(nullptr, nullptr, &current).request,
                  R{R::SetSmartSettings{expected}})
            << words[1];
    }
    EXPECT_TRUE(CtlCommand::parse(Words{"smart", "--json"}).command->json &&
                CtlCommand::parse(Words{"recent", "--json"}).command->json);
    for (const auto& words :
         std::vector<Words>{{"smart", "follow", "on"}, {"smart", "guard", "yes"}, {"recent", "5"}})
        EXPECT_FALSE(CtlCommand::parse(words).command) << words.back();
    EXPECT_EQ(CtlCommand::parse(Words{"smart", "duck"}).error,
              "smart takes --json, or follow-me, guard, duck or mic-follow, then on or off");

    // The smart and recent tables say what each automation does and what started sounding.
    TonaviStatus status = sampleStatus(); // its default input is the MacBook Pro Microphone
    // Music is the hero; the duck eases two apps for Zoom's microphone.
    status.smartLive = SmartLiveStatus{"com.apple.Music", "Music", false, std::nullopt, true, {"Zoom"}, 2};
    const SmartSettings on{.followMe = true,
                           .followMeBackgroundPercent = 25,
                           .loudnessGuard = true,
                           .autoDuck = true,
                           .micFollow = true};
    EXPECT_EQ(StatusTable::renderSmart(status, on),
              "  FEATURE     SETTING  NOW\n"
              "  follow-me   on       hero Music; others at 25%\n"
              "  guard       on       idle: the output is not headphones\n"
              "  duck        on       easing 2 app(s) by -12 dB; mic live in Zoom\n"
              "  mic-follow  on       input MacBook Pro Microphone\n");
    EXPECT_EQ(StatusTable::renderSmart(status, SmartSettings{}),
              "  FEATURE     SETTING  NOW\n  follow-me   off      -\n  guard       off      -\n"
              "  duck        off      -\n  mic-follow  off      -\n");
    // A session without a focus source says so, with and without a held hero.
    status.smartLive->followMeNoFront = "no X display (DISPLAY is unset)";
    EXPECT_THAT(StatusTable::renderSmart(status, on),
                HasSubstr("hero Music; others at 25%; no application in front on this session: no X display"));
    status.smartLive->followMeHeroID.reset();
    EXPECT_THAT(StatusTable::renderSmart(status, on),
                HasSubstr("follow-me   on       no application in front on this session: no X display "
                          "(DISPLAY is unset)\n"));

    // recent lists the trail newest first with its age.
    const double now = 1'700'000'000.0;
    using K = AudioOnset::Kind;
    status.recentOnsets = std::vector<AudioOnset>{
        {"output:USB-HP", now - 125, K::output, std::nullopt, "USB Headphones"},
        {"com.apple.Safari", now - 3.2, K::app, std::nullopt, std::nullopt},
        {"alert:macos", now - 40, K::alert, "com.apple.Safari", "macOS alert sound"},
        {"com.example.Old", now - 301, K::app, std::nullopt, std::nullopt},
    };
    EXPECT_EQ(StatusTable::renderRecent(status, now),
              "  Safari started playing 3s ago\n"
              "  macOS alert sound 40s ago, while Safari was in front\n"
              "  output moved to USB Headphones 2m ago\n");
    status.recentOnsets.reset();
    EXPECT_EQ(StatusTable::renderRecent(status, now),
              "  (nothing has started to sound in the last 5 minutes)\n");
}

TEST(CtlSetupCommand, LinesThatChangePartOfTheConfigurationKeepTheRestAndReuseIDs) {
    const auto status = sampleStatus();
    TonaviConfig config;
    kavore::EQPreset mine;
    mine.id = "preset-1";
    mine.name = "Late Night";
    mine.settings.bandGainsDB[0] = -6;
    config.customEQPresets = {mine};
    config.lanes = {{"lane-1", "com.apple.Music", "BuiltIn", true}};
    config.duckRules = {{"rule-1", "com.apple.Safari", {"com.apple.mail"}}};
    config.focusLinks = {{"link-1", "Work", "Desk"}};
    AppAudioState safari("com.apple.Safari");
    kavore::EffectSlot eq;
    eq.kind = kavore::EffectKind::eq10;
    eq.settingsJSON = kavore::settingsJSONBytes(kavore::toJSON(kavore::EQPresets::named("Rock")->settings));
    safari.chain.slots = {eq};
    config.apps = {safari};
    config.systemRows.systemMagicBoost = kavore::LevelerSettings(0.4, true);

    auto build = [&](const Words& words) {
        const auto parsed = CtlCommand::parse(words);
        EXPECT_TRUE(parsed.command) << parsed.error;
        EXPECT_TRUE(parsed.command->needsConfig()) << words.front();
        EXPECT_FALSE(parsed.command->toRequest(&status).request) << "refused without the configuration";
        const auto built = parsed.command->toRequest(&status, nullptr, nullptr, &config);
        EXPECT_TRUE(built.request) << built.error;
        return built.request.value_or(R{R::Ping{}});
    };
    // The same app, trigger or focus again changes the entry it has; a new one gets a fresh ID.
    EXPECT_EQ(build({"lane", "add", "music", "desk cans", "--unlocked"}),
              (R{R::SetLane{{"lane-1", "com.apple.Music", "USB-HP", false}}}));
    const auto fresh = std::get<R::SetLane>(build({"lane", "add", "Safari", "BuiltIn"}).value)._0;
    EXPECT_TRUE(isUUID(fresh.id) && fresh.locked);
    EXPECT_EQ(build({"duck-rule", "add", "Safari", "Music", "--db", "-9"}),
              (R{R::SetDuckRule{{"rule-1", "com.apple.Safari", {"com.apple.Music"}, -9.0}}}));
    EXPECT_EQ(build({"focus-link", "add", "work", "Home"}), (R{R::SetFocusLink{{"link-1", "work", "Home"}}}));
    EXPECT_EQ(build({"lane", "remove", "Music"}), R{R::RemoveLane{"lane-1"}});
    EXPECT_EQ(build({"duck-rule", "remove", "com.apple.Safari"}), R{R::RemoveDuckRule{"rule-1"}});
    EXPECT_EQ(build({"focus-link", "remove", "WORK"}), R{R::RemoveFocusLink{"link-1"}});
    EXPECT_EQ(build({"eq-preset", "delete", "late night"}), R{R::DeleteEQPreset{"preset-1"}});
    EXPECT_EQ(CtlCommand::parse(Words{"lane", "remove", "Safari"}).command->toRequest(&status, {}, {}, &config).error,
              "no lane for Safari (tonavictl lane list lists them)");

    // A saved preset is Safari's EQ as it is now, under the name given; eq takes saved presets too.
    const auto saved = std::get<R::SaveEQPreset>(build({"eq-preset", "save", "Loud", "Safari"}).value)._0;
    EXPECT_EQ(std::tuple(saved.name, saved.settings, saved.builtin),
              std::tuple("Loud", kavore::EQPresets::named("Rock")->settings, false));
    EXPECT_TRUE(isUUID(saved.id));
    // Saving under a saved preset's name replaces it.
    EXPECT_EQ(std::get<R::SaveEQPreset>(build({"eq-preset", "save", "late", "night", "Safari"}).value)._0.id,
              "preset-1");
    EXPECT_EQ(CtlCommand::parse(Words{"eq-preset", "save", "X", "Music"}).command->toRequest(&status, {}, {}, &config).error,
              "Music has no EQ to save");
    const auto chain = std::get<R::SetAppChain>(build({"eq", "Music", "late", "night"}).value).chain;
    ASSERT_EQ(chain.slots.size(), 1u);
    EXPECT_EQ(chain.slots[0].nickname, "Late Night");

    // Listening and the system row change the one thing named.
    const auto listening = std::get<R::SetGlobalListening>(build({"listen", "balance", "on", "-18", "70%"}).value)._0;
    EXPECT_EQ(std::tuple(listening.enabled, listening.balancer.enabled, listening.balancer.targetDBFS,
                         listening.balancer.strengthPercent),
              std::tuple(false, true, -18.0, 70.0));
    const auto band = std::get<R::SetGlobalListening>(build({"listen", "band", "3", "250", "4"}).value)._0;
    EXPECT_EQ(std::tuple(band.equalizer.bands[2].frequencyHz, band.equalizer.bands[2].gainDB),
              std::tuple(250.0, 4.0));
    EXPECT_EQ(band.equalizer.bands[2].q, config.globalListening.equalizer.bands[2].q);
    EXPECT_EQ(build({"system-chain", "boost", "off"}),
              R{R::SetSystemMagicBoost{kavore::LevelerSettings(0.4, false)}});
    const auto system = std::get<R::SetSystemChain>(build({"system-chain", "eq", "Rock"}).value).chain;
    EXPECT_EQ(system.slots.size(), 1u);
    EXPECT_TRUE(std::get<R::SetSystemChain>(build({"system-chain", "bypass", "on"}).value).chain.bypassed);
}

TEST(CtlMIDICommand, MapLinesBecomeMappingsWithNamesResolvedAndWrongOnesAreRefused) {
    using M = MIDIMapping;
    const auto status = sampleStatus();
    struct Case {
        Words words;
        std::int64_t channel, cc;
        M::Target target;
        std::string described; // the target as the table prints it
    };
    const std::vector<Case> cases = {
        {{"midi", "map", "1", "7", "volume", "music"}, 1, 7, M::AppVolume{"com.apple.Music"}, "volume com.apple.Music"},
        {{"midi", "map", "any", "64", "mute", "Safari"}, 0, 64, M::AppMute{"com.apple.Safari"}, "mute com.apple.Safari"},
        {{"midi", "map", "16", "0", "device-volume", "desk cans"}, 16, 0, M::DeviceVolume{"USB-HP"}, "device-volume USB-HP"},
        {{"midi", "map", "2", "127", "output-volume"}, 2, 127, M::OutputVolume{}, "output-volume"},
        {{"midi", "map", "3", "20", "scene", "Late", "Night"}, 3, 20, M::ConfigLoad{"Late Night"}, "scene Late Night"},
        {{"midi", "map", "0", "21", "stage"}, 0, 21, M::StageMode{}, "stage"},
    };
    std::vector<MIDIMapping> built;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.words[4]);
        const auto parsed = CtlCommand::parse(c.words);
        ASSERT_TRUE(parsed.command) << parsed.error;
        const auto request = parsed.command->toRequest(&status);
        ASSERT_TRUE(request.request) << request.error;
        MIDIMapping mapping = std::get<R::SetMIDIMapping>(request.request->value)._0;
        EXPECT_EQ(std::tuple(isUUID(mapping.id), mapping.channel, mapping.cc, mapping.target,
                             StatusTable::describeMIDITarget(mapping.target)),
                  std::tuple(true, c.channel, c.cc, c.target, c.described));
        built.push_back(mapping);
    }
    // The table: "any" for channel 0, one row per mapping in the list's order.
    const std::string table = StatusTable::renderMIDIMappings(built);
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 7) << table;
    EXPECT_LT(table.find("volume com.apple.Music"), table.find("scene Late Night"));
    EXPECT_NE(table.find("any"), std::string::npos);
    EXPECT_EQ(StatusTable::renderMIDIMappings({}), "  (no MIDI mappings)\n");

    const std::pair<Words, R> plain[] = {{{"midi"}, R{R::ListMIDIMappings{}}},
                                         {{"midi", "--json"}, R{R::ListMIDIMappings{}}},
                                         {{"midi", "unmap", "abc"}, R{R::RemoveMIDIMapping{"abc"}}}};
    for (const auto& [words, request] : plain)
        EXPECT_EQ(*CtlCommand::parse(words).command->toRequest(&status).request, request);

    const std::string mapUsage = "midi map takes CHANNEL CC, then volume APP, mute APP, device-volume DEVICE, "
                                 "output-volume, scene NAME or stage";
    const std::pair<Words, std::string> refused[] = {
        {{"midi", "map", "17", "7", "stage"}, "a MIDI channel is 1 to 16, or any"},
        {{"midi", "map", "1.5", "7", "stage"}, "a MIDI channel is 1 to 16, or any"},
        {{"midi", "map", "1", "128", "stage"}, "a controller number is 0 to 127"},
        {{"midi", "map", "1", "7", "volume"}, mapUsage},
        {{"midi", "map", "1", "7", "stage", "now"}, mapUsage},
        {{"midi", "map", "1", "7", "pan", "Music"}, mapUsage},
        {{"midi", "learn"}, "midi takes --json, map CHANNEL CC TARGET..., learn TARGET... or unmap ID"},
        {{"midi", "learn", "pan", "Music"}, "midi learn takes volume APP, mute APP, device-volume DEVICE, "
                                            "output-volume, scene NAME or stage"},
        {{"midi", "unmap"}, "midi takes --json, map CHANNEL CC TARGET..., learn TARGET... or unmap ID"},
    };
    for (const auto& [words, error] : refused)
        EXPECT_EQ(CtlCommand::parse(words).error, error) << words[2];
    EXPECT_EQ(CtlCommand::parse(Words{"midi", "map", "1", "7", "volume", "Chrome"}).command->toRequest(&status).error,
              "no application matches \"Chrome\" (tonavictl status lists them)");
}
