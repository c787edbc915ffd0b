// Desktop entries: what a file says, which location wins, and the activation policy the Linux
// workspace derives from them.

#include "platform/DesktopEntry.hpp"
#include "platform/pipewire/PipeWireWorkspace.hpp"
#include "tests/support/TempFolder.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

using namespace tonavi;

TEST(DesktopEntry, ReadsItsOwnGroupWithTheBestLocalisedName) {
    const char* text = "# comment\n"
                       "[Desktop Entry]\n"
                       "Type=Application\n"
                       "Name=Music Player\n"
                       "Name[de]=Musikspieler\n"
                       "Name[de_AT]=Musikspieler (AT)\n"
                       "Exec=/usr/bin/player --new-window %U\n"
                       "Categories=AudioVideo;Audio;Player;\n"
                       "NoDisplay = false\n"
                       "[Desktop Action New]\n"
                       "Name=New Window\n"
                       "Exec=other\n";
    const std::pair<const char*, const char*> names[] = {
        {"de_AT.UTF-8", "Musikspieler (AT)"}, {"de_DE.UTF-8", "Musikspieler"}, {"fr_FR", "Music Player"}, {"C", "Music Player"}};
    for (const auto& [locale, name] : names) {
        const auto entry = DesktopEntry::parse(text, "org.example.Player", locale);
        ASSERT_TRUE(entry) << locale;
        EXPECT_EQ(entry->name, name) << locale;
        EXPECT_EQ(entry->program, "/usr/bin/player") << "an action's Exec is not the entry's";
        EXPECT_EQ(entry->categories, (std::vector<std::string>{"AudioVideo", "Audio", "Player"}));
        EXPECT_TRUE(entry->visible());
    }
    EXPECT_FALSE(DesktopEntry::parse("Type=Application\nName=x\n", "x")) << "no group: not an entry";
    EXPECT_FALSE(DesktopEntry::parse("[Desktop Entry]\nType=Link\n", "x")->visible());
    EXPECT_FALSE(DesktopEntry::parse("[Desktop Entry]\nType=Application\nNoDisplay=true\n", "x")->visible());
}

// The first folder that has an identifier decides, a Hidden entry there included; the workspace
// calls an application regular only for a visible entry.
TEST(DesktopEntry, TheFirstLocationWinsAndDecidesTheActivationPolicy) {
    test::TempFolder folder;
    const auto write = [&](const std::string& dir, const std::string& id, const std::string& body) {
        std::filesystem::create_directories(folder.path() / dir);
        std::ofstream(folder.path() / dir / (id + ".desktop")) << "[Desktop Entry]\nType=Application\n" << body;
    };
    write("applications", "org.example.Deleted", "Hidden=true\n");
    write("system/applications", "org.example.Deleted", "Name=Deleted\nExec=deleted\n");
    write("system/applications", "org.example.Visible", "Name=Visible\nExec=/opt/visible/bin/visible-app %U\n");
    write("system/applications", "org.example.Helper", "Name=Helper\nNoDisplay=true\n");
    ::setenv("XDG_DATA_HOME", folder.path().c_str(), 1);
    ::setenv("XDG_DATA_DIRS", (folder.file("missing") + ":" + folder.file("system")).c_str(), 1);

    DesktopEntries entries;
    EXPECT_TRUE(entries.find("org.example.Deleted")->hidden) << "the home folder's entry hides the system's";
    EXPECT_EQ(entries.idForProgram("visible-app"), "org.example.Visible");
    EXPECT_EQ(entries.idForProgram("deleted"), "org.example.Deleted");
    EXPECT_EQ(entries.idForProgram("nothing"), "");
    EXPECT_FALSE(entries.find("../org.example.Visible")) << "an identifier is a file name, not a path";

    const std::pair<const char*, ActivationPolicy> policies[] = {
        {"org.example.Visible", ActivationPolicy::regular},
        {"org.example.Deleted", ActivationPolicy::accessory},
        {"org.example.Helper", ActivationPolicy::accessory},
        {"org.example.NoEntry", ActivationPolicy::accessory},
    };
    for (const auto& [id, policy] : policies)
        EXPECT_EQ(PipeWireWorkspace::activationPolicyOf(id), policy) << id;
    ::unsetenv("XDG_DATA_HOME");
    ::unsetenv("XDG_DATA_DIRS");
}
