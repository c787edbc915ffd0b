// What a user types for an application or device, and what it resolves to or why it does not.

#include "tools/tonavictl/NameResolver.hpp"

#include <gtest/gtest.h>

using namespace tonavi;

TEST(NameResolver, ResolvesIdentifiersAndNamesOrExplainsWhy) {
    // Each query with the identifier it resolves to, or else the reason it does not.
    const NameResolver resolver("application", {{"com.apple.Music", "Music", {}},
                                                {"com.apple.Safari", "Safari", {}},
                                                {"com.spotify.client", "Spotify", {}},
                                                {"us.zoom.xos", "Zoom", {}},
                                                {"us.zoom.rooms", "zoom", {}},
                                                {"org.videolan.vlc", "VLC media player", {}}});
    const std::pair<const char*, const char*> cases[] = {
        {"COM.APPLE.SAFARI", "com.apple.Safari"},
        {"spotify", "com.spotify.client"},
        {"vlc MEDIA player", "org.videolan.vlc"},
        // Two apps share a name: the identifier still picks one; the name alone is refused.
        {"us.zoom.rooms", "us.zoom.rooms"},
        {"ZOOM", "error: \"ZOOM\" names 2 applications: Zoom (us.zoom.xos), zoom (us.zoom.rooms); give the "
                 "identifier instead"},
        // A prefix is a suggestion, never a silent choice.
        {"Spot", "error: no application matches \"Spot\"; did you mean: Spotify (com.spotify.client)?"},
        {"spotfy", "error: no application matches \"spotfy\"; did you mean: Spotify (com.spotify.client)?"},
        {"vlc", "error: no application matches \"vlc\"; did you mean: VLC media player (org.videolan.vlc)?"},
        {"Teams", "error: no application matches \"Teams\" (tonavictl status lists them)"},
        {"", "error: no application matches \"\" (tonavictl status lists them)"},
    };
    for (const auto& [query, expected] : cases) {
        const auto result = resolver.resolve(query);
        EXPECT_EQ(result.id.value_or("error: " + result.error), expected) << query;
    }
    // Suggestions stop at the limit.
    // "o" is inside every name or identifier; prefixes ("org.videolan.vlc") rank before substrings.
    const auto many = resolver.suggestions("o", 3);
    ASSERT_EQ(many.size(), 3u);
    EXPECT_EQ(many.front(), "VLC media player (org.videolan.vlc)");
}
