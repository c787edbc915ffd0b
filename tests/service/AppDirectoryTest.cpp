// The application directory: desktop entries in their XDG folders, the cache, and the app lists and
// memory of heard apps through the runtime.

#include "core/wire/TonaviPayload.hpp"
#include "platform/DesktopEntries.hpp"
#include "service/AppDirectory.hpp"
#include "tests/service/RuntimeTestSupport.hpp"

#include <future>

namespace tonavi::testing {
namespace {

using R = TonaviRequest;

void put(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    writeText(path, text);
}

std::string entry(const std::string& name, const std::string& extra = {}) {
    return "[Desktop Entry]\nType=Application\nName=" + name + "\n" + extra;
}

TEST(DesktopEntries, TheHomeFolderWinsAndHidesAndOnlyApplicationsForMenusAreListed) {
    TemporaryFolder folder;
    const auto home = folder.path() / "home/applications", system = folder.path() / "usr/applications",
               flatpak = folder.path() / "flatpak/exports/share/applications";
    put(home / "org.gnome.Rhythmbox3.desktop", "[Desktop Entry]\nHidden=true\n");
    put(system / "org.gnome.Rhythmbox3.desktop", entry("Rhythmbox", "Categories=GNOME;Audio;Player;\n"));
    put(home / "org.videolan.VLC.desktop", entry("VLC mine"));
    put(system / "org.videolan.VLC.desktop", entry("VLC", "Categories=AudioVideo;\n"));
    put(system / "kde/org.kde.kmix.desktop", entry("KMix", "Categories=Qt;Audio;Mixer;\n"));
    put(system / "helper.desktop", entry("Helper", "NoDisplay=true\nExec=/usr/libexec/helper --x\n"));
    put(system / "site.desktop", "[Desktop Entry]\nType=Link\nName=Site\n");
    put(system / "notes.txt", entry("Not an entry"));
    put(flatpak / "org.mozilla.firefox.desktop",
              "[Desktop Action new]\nName=New Window\n" + entry("Firefox", "Name[de]=Feuerfuchs\nName[de_AT]=Fuchs\n"
                                                                       "Exec=\"/app/bin/firefox\" %u\n"));
    put(flatpak / "org.gnome.Calculator.desktop", entry("Calculator", "Categories=Utility;\n"));

    const auto entries = DesktopEntries::read({home, system, flatpak}, "de_DE.UTF-8@euro");
    std::vector<std::string> listed;
    for (const auto& app : AppDirectory::appsOf(entries))
        listed.push_back(app.id + "=" + app.name + (app.audioCapable ? " (audio)" : ""));
    // The Hidden entry at home hides Rhythmbox; VLC is the home folder's, by its name there (its
    // categories are gone with it: only its known ID makes it audio).
    EXPECT_EQ(listed, (std::vector<std::string>{"org.gnome.Calculator=Calculator",
                                                "org.mozilla.firefox=Feuerfuchs (audio)",
                                                "kde-org.kde.kmix=KMix (audio)",
                                                "org.videolan.VLC=VLC mine (audio)"}));
    EXPECT_EQ(DesktopEntries::read({flatpak}, "de_AT")[1].name, "Fuchs");
    EXPECT_EQ(DesktopEntries::read({flatpak}, "")[1].name, "Firefox");
    // A process is named by the entry that runs its binary, listed in menus or not.
    EXPECT_EQ(DesktopEntries::idRunning(entries, "helper"), "helper");
    EXPECT_EQ(DesktopEntries::idRunning(entries, "firefox"), "org.mozilla.firefox");
    EXPECT_EQ(DesktopEntries::idRunning(entries, "rhythmbox"), std::nullopt);
}

TEST(AppDirectory, TheCacheAnswersForAMinuteAndPresentationNeverWaitsForAScan) {
    std::atomic<int> scans{0};
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> blockScans{false};
    std::atomic<double> now{0};
    AppDirectory directory(
        [&] {
            if (blockScans.load())
                released.wait();
            ++scans;
            return std::vector<DesktopEntry>{{"org.gnome.Rhythmbox3", "Rhythmbox", "/x", {"Audio"}, "", "Application"}};
        },
        [&] { return now.load(); });
    ASSERT_EQ(directory.installedApps().size(), 1u);
    now = 59.9;
    directory.installedApps();
    EXPECT_EQ(scans.load(), 1);
    now = 60.0;
    EXPECT_TRUE(directory.installedApps()[0].audioCapable);
    EXPECT_EQ(scans.load(), 2);

    // A stale cache is answered at once while one scan runs behind it.
    now = 200;
    blockScans = true;
    EXPECT_EQ(directory.presentationApps().size(), 1u);
    EXPECT_EQ(directory.presentationApps().size(), 1u);
    release.set_value();
    ASSERT_TRUE(waitUntil([&] { return scans.load() == 3; }));
    // The scan's result is stored a moment after it returns; from then on the cache answers.
    ASSERT_TRUE(waitUntil([&] { return directory.installedApps().size() == 1u; }));
    const int settled = scans.load();
    EXPECT_EQ(directory.installedApps().size(), 1u);
    EXPECT_EQ(scans.load(), settled);
}

std::vector<InstalledApp> listInstalled(RuntimeHarness& h) {
    const Late reply = sendLate(h, R::ListInstalledApps{});
    EXPECT_TRUE(waitUntil([&] { return arrived(reply); }));
    const TonaviReply got = arrived(reply) ? reply.get() : TonaviReply{};
    EXPECT_TRUE(got.ok && got.payload && !got.status);
    return got.payload ? TonaviPayload::decodeInstalledApps(*got.payload) : std::vector<InstalledApp>{};
}

TEST(AppLists, HeardAppsAreRememberedAsAudioAtMostEveryFifteenMinutesAndListedWithTheirRecency) {
    RuntimeHarness h;
    // Notes was heard once; its entry says nothing of sound, yet it counts as audio-capable.
    TonaviConfig persisted = TonaviConfig::firstRunDefaults();
    persisted.historicallyAudibleAppIDs = {"org.example.Notes"};
    h.store->save(persisted);
    h.installedApplications = [] {
        return std::vector<DesktopEntry>{{music, "Music", "/m.desktop", {}, "", "Application"},
                                         {"org.example.Notes", "Notes", "/n.desktop", {"Utility"}, "", "Application"},
                                         {"org.example.Calc", "Calc", "/c.desktop", {"Utility"}, "", "Application"}};
    };
    h.startReady();
    std::vector<std::pair<std::string, bool>> judged;
    for (const auto& app : listInstalled(h))
        judged.emplace_back(app.name, app.audioCapable);
    EXPECT_EQ(judged, (std::vector<std::pair<std::string, bool>>{{"Calc", false}, {"Music", true}, {"Notes", true}}));

    // Music plays and is installed: remembered, with the time it was heard.
    h.settleDiscovery();
    const double firstHeard = h.wall.load();
    EXPECT_EQ(h.onDisk().historicallyAudibleAppIDs, (std::vector<std::string>{music, "org.example.Notes"}));
    EXPECT_EQ(h.onDisk().audibleAppLastHeardAt.at(music), firstHeard);

    // Heard again within 15 minutes: nothing is written.
    // Timers run on the queue clock, so it moves with the wall clock.
    h.wall = firstHeard + 898; // probes are at least 1.5 s apart
    h.advance(2);
    const int writes = h.stateWrites.load();
    h.settleDiscovery();
    EXPECT_EQ(h.stateWrites.load(), writes);
    h.wall = firstHeard + 900;
    h.advance(2);
    h.settleDiscovery();
    EXPECT_EQ(h.onDisk().audibleAppLastHeardAt.at(music), firstHeard + 900);

    h.runtime->serialQueue().sync([] {});
    const TonaviReply running = h.send(R::ListRunningAudioApps{});
    ASSERT_TRUE(running.ok && running.payload && !running.status);
    const auto apps = TonaviPayload::decodeRunningApps(*running.payload);
    EXPECT_NE(std::ranges::find(apps, music, &RunningApp::bundleID), apps.end());
}

} // namespace
} // namespace tonavi::testing
