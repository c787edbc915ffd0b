#include "platform/DesktopEntryCache.hpp"

#include <fstream>
#include <sstream>

namespace tonavi {

std::optional<DesktopEntry> DesktopEntryCache::find(const std::string& id) {
    const auto now = std::chrono::steady_clock::now();
    {
        std::lock_guard guard(mutex_);
        if (auto it = byID_.find(id); it != byID_.end() && now - it->second.at < maximumAge_)
            return it->second.value;
    }
    std::optional<DesktopEntry> found;
    if (!id.empty() && id.find('/') == std::string::npos)
        for (const auto& folder : DesktopEntries::applicationFolders()) {
            std::ifstream in(folder / (id + ".desktop"), std::ios::binary);
            if (!in)
                continue;
            std::ostringstream text;
            text << in.rdbuf();
            found = DesktopEntries::parse(text.str(), DesktopEntries::currentLocale());
            if (found) {
                found->id = id;
                found->path = (folder / (id + ".desktop")).string();
            }
            break; // the first location of an identifier decides, hidden or not
        }
    std::lock_guard guard(mutex_);
    byID_[id] = {found, now};
    return found;
}

std::string DesktopEntryCache::idForProgram(const std::string& binary) {
    if (binary.empty())
        return {};
    const auto now = std::chrono::steady_clock::now();
    {
        std::lock_guard guard(mutex_);
        if (auto it = byProgram_.find(binary); it != byProgram_.end() && now - it->second.at < maximumAge_)
            return it->second.value;
    }
    const std::string found =
        DesktopEntries::idRunning(DesktopEntries::read(DesktopEntries::applicationFolders(), {}), binary)
            .value_or(std::string());
    std::lock_guard guard(mutex_);
    byProgram_[binary] = {found, now};
    return found;
}

DesktopEntryCache& DesktopEntryCache::shared() {
    static auto* cache = new DesktopEntryCache();
    return *cache;
}

} // namespace tonavi
