// What a user types for an application or device, and what it resolves to or why it does not.

#include "core/wire/TonaviStatus.hpp"
#include "tools/tonavictl/NameResolver.hpp"

#include <gtest/gtest.h>

using namespace tonavi;

namespace {

NameResolver apps() {
    return NameResolver("application", {
                                           {"com.apple.Music", "Music", {}},
                                           {"com.apple.Safari", "Safari", {}},
                                           {"com.spotify.client", "Spotify", {}},
                                           {"us.zoom.xos", "Zoom", {}},
                                           {"us.zoom.rooms", "zoom", {}},
                                           {"org.videolan.vlc", "VLC media player", {}},
                                       });
}

} // namespace

TEST(NameResolver, ResolvesIdentifiersAndNamesOrExplainsWhy) {
    struct Case {
        const char* query;
        const char* id;    // expected identifier, or nullptr
        const char* error; // expected error, when id is nullptr
    };
    const Case cases[] = {
        {"com.apple.Music", "com.apple.Music", nullptr},
        {"COM.APPLE.SAFARI", "com.apple.Safari", nullptr},
        {"spotify", "com.spotify.client", nullptr},
        {"vlc MEDIA player", "org.videolan.vlc", nullptr},
        // Two apps share a name: the identifier still picks one; the name alone is refused.
        {"us.zoom.rooms", "us.zoom.rooms", nullptr},
        {"ZOOM", nullptr,
         "\"ZOOM\" names 2 applications: Zoom (us.zoom.xos), zoom (us.zoom.rooms); give the identifier instead"},
        // A prefix is a suggestion, never a silent choice.
        {"Spot", nullptr, "no application matches \"Spot\"; did you mean: Spotify (com.spotify.client)?"},
        {"spotfy", nullptr, "no application matches \"spotfy\"; did you mean: Spotify (com.spotify.client)?"},
        {"vlc", nullptr, "no application matches \"vlc\"; did you mean: VLC media player (org.videolan.vlc)?"},
        {"Teams", nullptr, "no application matches \"Teams\" (tonavictl status lists them)"},
        {"", nullptr, "no application matches \"\" (tonavictl status lists them)"},
    };
    const auto resolver = apps();
    for (const auto& c : cases) {
        const auto result = resolver.resolve(c.query);
        if (c.id) {
            EXPECT_EQ(result.id, std::optional<std::string>(c.id)) << c.query << ": " << result.error;
        } else {
            EXPECT_FALSE(result.id) << c.query;
            EXPECT_EQ(result.error, c.error) << c.query;
        }
    }
}

TEST(NameResolver, SuggestionsPutPrefixesFirstThenFewestEditsAndStopAtTheLimit) {
    const auto resolver = apps();
    EXPECT_EQ(resolver.suggestions("mu"), (std::vector<std::string>{"Music (com.apple.Music)"}));
    // "safary" is one edit from Safari; "sa" would be a prefix of it and of nothing else.
    EXPECT_EQ(resolver.suggestions("safary"), (std::vector<std::string>{"Safari (com.apple.Safari)"}));
    // "o" is inside every name or identifier; prefixes ("org.videolan.vlc") rank before substrings.
    const auto many = resolver.suggestions("o", 3);
    ASSERT_EQ(many.size(), 3u);
    EXPECT_EQ(many.front(), "VLC media player (org.videolan.vlc)");
    EXPECT_EQ(editDistance("kitten", "sitting"), 3u);
    EXPECT_EQ(editDistance("", "abc"), 3u);
    EXPECT_EQ(editDistance("same", "same"), 0u);
}

TEST(NameResolver, DevicesResolveByUIDNameOrNicknameAndOnlyOutputsCount) {
    TonaviStatus status;
    DeviceLiveStatus speakers;
    speakers.id = "BuiltInSpeakerDevice";
    speakers.name = "MacBook Pro Speakers";
    speakers.isOutput = true;
    DeviceLiveStatus headphones;
    headphones.id = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
    headphones.name = "USB Headphones";
    headphones.nickname = "Desk";
    headphones.isOutput = true;
    DeviceLiveStatus mic;
    mic.id = "BuiltInMicrophoneDevice";
    mic.name = "MacBook Pro Microphone";
    mic.isInput = true;
    status.devices = {speakers, headphones, mic};

    const auto devices = NameResolver::outputDevices(status);
    EXPECT_EQ(devices.resolve("desk").id, headphones.id);
    EXPECT_EQ(devices.resolve("usb headphones").id, headphones.id);
    EXPECT_EQ(devices.resolve("BuiltInSpeakerDevice").id, speakers.id);
    EXPECT_FALSE(devices.resolve("MacBook Pro Microphone").id);
    // The microphone starts the same way, but an input is never offered as an output.
    EXPECT_EQ(devices.resolve("macbook pro").error,
              "no output device matches \"macbook pro\"; did you mean: MacBook Pro Speakers (BuiltInSpeakerDevice)?");
}
