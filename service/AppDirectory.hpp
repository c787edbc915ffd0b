#pragma once
// The applications installed on the machine, judged for whether they can make sound, behind a
// 60-second cache. A scan reads files and may take a while: `installedApps` waits for it and belongs
// off the runtime's queue; `presentationApps` never waits, answering from the cache and starting a
// scan of its own in the background when the cache is stale.

#include "base/Dispatch.hpp"
#include "core/wire/InstalledApp.hpp"
#include "platform/DesktopEntries.hpp"

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace tonavi {

class AppDirectory {
  public:
    // Reads every desktop entry; blocks.
    using Source = std::function<std::vector<DesktopEntry>()>;
    static constexpr double cacheSeconds = 60.0;

    // `now`: seconds on any steady scale, for the cache's age. An empty source reads the user's
    // XDG folders.
    AppDirectory(Source source, std::function<double()> now);
    // Waits for a background scan that is running.
    ~AppDirectory();
    AppDirectory(const AppDirectory&) = delete;
    AppDirectory& operator=(const AppDirectory&) = delete;

    std::vector<InstalledApp> installedApps();
    // installedApps on the directory's own queue; `done` runs there.
    void installedAppsAsync(std::function<void(std::vector<InstalledApp>)> done);
    std::vector<InstalledApp> presentationApps();

    // Capture-only apps never; known audio apps always; else an entry whose categories say it plays
    // or records sound or video, or is a game.
    static bool judgeAudioCapable(const DesktopEntry& entry);
    // The listed entries, once per ID, judged and sorted by name ignoring case, then ID.
    static std::vector<InstalledApp> appsOf(const std::vector<DesktopEntry>& entries);

  private:
    std::vector<InstalledApp> scan();
    bool freshLocked(double at) const { return scannedAt_ && at - *scannedAt_ < cacheSeconds; }

    Source source_;
    std::function<double()> now_;
    std::mutex cacheLock_; // leaf: guards the three fields below, never held across a scan
    std::vector<InstalledApp> cache_;
    std::optional<double> scannedAt_;
    bool refreshing_ = false;
    std::unique_ptr<DispatchQueue> refreshQueue_; // "tonavi.app-directory"; last, so that it goes first
};

} // namespace tonavi
