// The Linux workspace's activation policy, from the desktop entry under an application's identifier:
// the first folder that has the identifier decides, a hidden entry there included.

#include "platform/DesktopEntryCache.hpp"
#include "platform/pipewire/PipeWireWorkspace.hpp"
#include "tests/support/TempFolder.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

using namespace tonavi;

TEST(DesktopEntryCache, TheFirstLocationDecidesTheActivationPolicy) {
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

    DesktopEntryCache entries;
    EXPECT_TRUE(entries.find("org.example.Deleted")->hidden) << "the home folder's entry stands for the system's";
    EXPECT_EQ(entries.idForProgram("visible-app"), "org.example.Visible");
    EXPECT_EQ(entries.idForProgram("nothing"), "");
    EXPECT_FALSE(entries.find("../system/applications/org.example.Visible")) << "an identifier is no path";

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
