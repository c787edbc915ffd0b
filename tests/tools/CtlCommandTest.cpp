// tonavictl's command words: what is refused before anything is sent, and the request each line becomes.

#include "audio/chain/ChainSettingsJSON.hpp"
#include "audio/effects/EQPresets.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "base/Encoding.hpp"
#include "core/wire/TonaviStatus.hpp"
#include "tools/tonavictl/CtlCommand.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tonavi;
using R = TonaviRequest;

namespace {

TonaviStatus sampleStatus() {
    TonaviStatus status;
    AppLiveStatus music;
    music.id = "com.apple.Music";
    music.displayName = "Music";
    music.volume = 1;
    music.boost = 2;
    AppLiveStatus safari;
    safari.id = "com.apple.Safari";
    safari.displayName = "Safari";
    safari.volume = 1;
    safari.boost = 1;
    status.apps = {music, safari};
    DeviceLiveStatus headphones;
    headphones.id = "USB-HP";
    headphones.name = "USB Headphones";
    headphones.isOutput = true;
    status.devices = {headphones};
    return status;
}

CtlCommand::Parsed parse(std::vector<std::string> words) { return CtlCommand::parse(words); }

} // namespace

TEST(CtlCommand, WrongWordsAreRefusedWithWhatIsWrong) {
    struct Case {
        std::vector<std::string> words;
        const char* error;
    };
    const Case cases[] = {
        {{}, "no command given"},
        {{"volum", "Music", "0.5"}, "unknown command \"volum\"; did you mean volume? (tonavictl help lists the commands)"},
        {{"frobnicate"}, "unknown command \"frobnicate\" (tonavictl help lists the commands)"},
        {{"volume", "Music"}, "volume takes an application and a level, e.g. volume Music 0.5 (tonavictl help)"},
        {{"volume", "Music", "loud"}, "volume level \"loud\" is not a number; give 0...1 or 0%...100%"},
        {{"volume", "Music", "0.5x"}, "volume level \"0.5x\" is not a number; give 0...1 or 0%...100%"},
        {{"volume", "Music", "nan"}, "volume level \"nan\" is not a number; give 0...1 or 0%...100%"},
        {{"volume", "Music", "1.5"}, "volume level 1.5 is out of range; give 0...1 or 0%...100%"},
        {{"volume", "Music", "150%"}, "volume level 150% is out of range; give 0...1 or 0%...100%"},
        {{"boost", "Music", "5"}, "boost factor 5 is out of range; give 1...4"},
        {{"boost", "Music", "2%"}, "boost factor \"2%\" is not a number; give 1...4"},
        {{"mute", "Music", "Safari"}, "mute takes one application (tonavictl help)"},
        {{"reset"}, "reset takes one application (tonavictl help)"},
        {{"stage", "maybe"}, "stage takes on or off"},
        {{"redirect", "Music"}, "redirect takes an application and a device, or 'default' (tonavictl help)"},
        {{"eq", "Music", "Rokc"}, "no EQ preset is named \"Rokc\"; did you mean Rock?"},
        {{"eq", "Music", "Polka"},
         "no EQ preset is named \"Polka\"; the presets are Flat, Acoustic, Bass Booster, Bass Reducer, Classical, "
         "Dance, Deep, Electronic, Hip-Hop, Jazz, Latin, Loudness, Lounge, Piano, Pop, R&B, Rock, Small Speakers, "
         "Spoken Word, Treble Booster, Treble Reducer, Vocal Booster, Metal, Podcast"},
        {{"eq", "Music"}, "eq takes an application and a preset name, or 'off' (tonavictl help)"},
        {{"status", "--xml"}, "status takes only --json, not \"--xml\""},
        {{"ping", "now"}, "ping takes no arguments"},
        {{"send"}, "send takes one argument, the request JSON in quotes"},
    };
    for (const auto& c : cases) {
        const auto parsed = CtlCommand::parse(c.words);
        EXPECT_FALSE(parsed.command) << c.error;
        EXPECT_EQ(parsed.error, c.error);
    }
}

TEST(CtlCommand, EachLineBecomesItsRequestWithNamesResolved) {
    struct Case {
        std::vector<std::string> words;
        TonaviRequest request;
    };
    const Case cases[] = {
        {{"ping"}, R{R::Ping{}}},
        {{"status"}, R{R::Status{}}},
        {{"diagnostics"}, R{R::Diagnostics{}}},
        {{"volume", "music", "0.25"}, R{R::SetAppVolume{"com.apple.Music", 0.25}}},
        {{"volume", "Safari", "40%"}, R{R::SetAppVolume{"com.apple.Safari", 0.4}}},
        {{"volume", "com.apple.Music", "0"}, R{R::SetAppVolume{"com.apple.Music", 0.0}}},
        {{"mute", "SAFARI"}, R{R::SetAppMuted{"com.apple.Safari", true}}},
        {{"unmute", "Safari"}, R{R::SetAppMuted{"com.apple.Safari", false}}},
        {{"solo", "Safari", "music", "com.apple.Safari"}, R{R::SetSoloApps{{"com.apple.Safari", "com.apple.Music"}}}},
        {{"solo"}, R{R::SetSoloApps{{}}}},
        {{"stage", "on"}, R{R::StageMode{true}}},
        {{"stage", "off"}, R{R::StageMode{false}}},
        {{"boost", "Music", "2.5"}, R{R::SetAppBoost{"com.apple.Music", 2.5}}},
        {{"redirect", "Music", "usb headphones"}, R{R::SetAppRedirect{"com.apple.Music", "USB-HP"}}},
        {{"redirect", "Music", "default"}, R{R::SetAppRedirect{"com.apple.Music", ""}}},
        {{"reset", "Music"}, R{R::ResetApp{"com.apple.Music"}}},
    };
    const auto status = sampleStatus();
    for (const auto& c : cases) {
        const auto parsed = CtlCommand::parse(c.words);
        ASSERT_TRUE(parsed.command) << parsed.error;
        const auto built = parsed.command->toRequest(&status);
        ASSERT_TRUE(built.request) << built.error;
        EXPECT_EQ(*built.request, c.request) << c.words.front();
    }
}

TEST(CtlCommand, OnlyCommandsThatNameAppsAskForAStatusAndUnknownNamesStopThere) {
    const auto status = sampleStatus();
    EXPECT_FALSE(parse({"stage", "on"}).command->needsStatus());
    EXPECT_FALSE(parse({"solo"}).command->needsStatus());
    EXPECT_TRUE(parse({"solo", "Music"}).command->needsStatus());
    EXPECT_TRUE(parse({"eq", "Music", "Rock"}).command->needsStatus());

    EXPECT_EQ(parse({"volume", "Musik", "0.5"}).command->toRequest(&status).error,
              "no application matches \"Musik\"; did you mean: Music (com.apple.Music)?");
    EXPECT_EQ(parse({"solo", "Music", "Chrome"}).command->toRequest(&status).error,
              "no application matches \"Chrome\" (tonavictl status lists them)");
    EXPECT_EQ(parse({"redirect", "Music", "Speakers"}).command->toRequest(&status).error,
              "no output device matches \"Speakers\" (tonavictl status lists them)");
}

TEST(CtlCommand, EqBuildsOneEqualiserSlotFromTheBuiltInPresetAndKeepsTheBoost) {
    const auto status = sampleStatus();
    for (const auto& words : {std::vector<std::string>{"eq", "Music", "bass", "booster"},
                              std::vector<std::string>{"eq", "Music", "Bass-Booster"}}) {
        const auto built = CtlCommand::parse(words).command->toRequest(&status);
        ASSERT_TRUE(built.request) << built.error;
        const auto* chain = std::get_if<R::SetAppChain>(&built.request->value);
        ASSERT_NE(chain, nullptr);
        EXPECT_EQ(chain->bundleID, "com.apple.Music");
        EXPECT_EQ(chain->chain.overdrive.multiplier, 2.0);
        EXPECT_FALSE(chain->chain.bypassed);
        ASSERT_EQ(chain->chain.slots.size(), 1u);
        const auto& slot = chain->chain.slots.front();
        EXPECT_TRUE(isUUID(slot.id)) << slot.id;
        EXPECT_EQ(slot.kind, kavore::EffectKind::eq10);
        EXPECT_FALSE(slot.bypassed);
        const auto settings = nlohmann::json::parse(slot.settingsJSON.begin(), slot.settingsJSON.end());
        EXPECT_EQ(kavore::eq10SettingsFromJSON(settings), kavore::EQPresets::named("Bass Booster")->settings);
        EXPECT_TRUE(kavore::eq10SettingsFromJSON(settings).enabled);
    }
    const auto off = CtlCommand::parse(std::vector<std::string>{"eq", "Safari", "off"}).command->toRequest(&status);
    ASSERT_TRUE(off.request) << off.error;
    EXPECT_EQ(*off.request, (R{R::SetAppChain{"com.apple.Safari", kavore::ChainSettings::empty()}}));
}
