#include "service/AppDirectory.hpp"

#include "core/config/TonaviConfig.hpp"
#include "core/lists/AppListPolicy.hpp"
#include "core/smart/KnownAudioApps.hpp"

#include <algorithm>

namespace tonavi {

namespace {

// Freedesktop categories of applications that play or record sound or video, and games.
constexpr std::string_view audioCategories[] = {"Audio", "Video", "Music", "Game", "AudioVideo", "Player",
                                                "Recorder"};

} // namespace

AppDirectory::AppDirectory(Source source, std::function<double()> now)
    : source_(std::move(source)), now_(std::move(now)),
      refreshQueue_(std::make_unique<DispatchQueue>("tonavi.app-directory")) {
    if (!source_)
        source_ = [] {
            return DesktopEntries::read(DesktopEntries::applicationFolders(), DesktopEntries::currentLocale());
        };
}

AppDirectory::~AppDirectory() {
    refreshQueue_.reset();
}

bool AppDirectory::judgeAudioCapable(const DesktopEntry& entry) {
    if (!entry.id.empty()) {
        if (AppListPolicy::isCaptureOnly(entry.id))
            return false;
        if (KnownAudioApps::isAudioApp(entry.id))
            return true;
    }
    return std::any_of(entry.categories.begin(), entry.categories.end(), [](const std::string& category) {
        return std::find(std::begin(audioCategories), std::end(audioCategories), category) !=
               std::end(audioCategories);
    });
}

std::vector<InstalledApp> AppDirectory::appsOf(const std::vector<DesktopEntry>& entries) {
    std::vector<InstalledApp> apps;
    for (const auto& entry : entries)
        if (entry.listed())
            apps.push_back({entry.id, entry.name.empty() ? entry.id : entry.name, entry.path,
                            judgeAudioCapable(entry)});
    std::stable_sort(apps.begin(), apps.end(), [](const InstalledApp& a, const InstalledApp& b) {
        const int byName = localizedCaseInsensitiveCompare(a.name, b.name);
        return byName != 0 ? byName < 0 : a.id < b.id;
    });
    return apps;
}

std::vector<InstalledApp> AppDirectory::scan() {
    std::vector<InstalledApp> apps = appsOf(source_());
    std::lock_guard guard(cacheLock_);
    cache_ = apps;
    scannedAt_ = now_();
    return apps;
}

std::vector<InstalledApp> AppDirectory::installedApps() {
    {
        std::lock_guard guard(cacheLock_);
        if (freshLocked(now_()))
            return cache_;
    }
    return scan();
}

void AppDirectory::installedAppsAsync(std::function<void(std::vector<InstalledApp>)> done) {
    refreshQueue_->async([this, done = std::move(done)] { done(installedApps()); });
}

std::vector<InstalledApp> AppDirectory::presentationApps() {
    std::lock_guard guard(cacheLock_);
    if (!refreshing_ && !freshLocked(now_())) {
        refreshing_ = true;
        refreshQueue_->async([this] {
            scan();
            std::lock_guard done(cacheLock_);
            refreshing_ = false;
        });
    }
    return cache_;
}

} // namespace tonavi
