#pragma once
// Desktop entries: the files through which a Linux desktop lists its installed applications, and the
// identifiers they go by (the file name without ".desktop", which is also a Flatpak's application
// identifier). They say which programs are applications a person opens, and which are helpers and
// daemons (no entry, or one hidden from menus).

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tonavi {

struct DesktopEntry {
    std::string id;
    std::string name;          // Name[locale] where the locale has one, else Name
    std::string program;       // the first word of Exec, as written
    std::vector<std::string> categories;
    bool isApplication = false; // Type=Application
    bool noDisplay = false;
    bool hidden = false;        // Hidden=true: deleted, and hides the same identifier further down

    // Shown to people as an application.
    bool visible() const { return isApplication && !noDisplay && !hidden; }

    // The [Desktop Entry] group of a file's text; nothing when it has none. `locale` is as in LANG
    // ("de_DE.UTF-8"), matched as the specification says (lang_COUNTRY, then lang).
    static std::optional<DesktopEntry> parse(std::string_view text, std::string id, std::string_view locale = {});
    // $XDG_DATA_HOME/applications (default ~/.local/share/applications), then the applications folder
    // of each $XDG_DATA_DIRS entry (default /usr/local/share:/usr/share), in that order.
    static std::vector<std::string> applicationFolders();
};

// Entries looked up by identifier or by program, read from disk at most every `maximumAge` per key.
// Thread-safe; the lock is a leaf held around the cache only, never across file reads.
class DesktopEntries {
  public:
    explicit DesktopEntries(std::chrono::seconds maximumAge = std::chrono::seconds(10)) : maximumAge_(maximumAge) {}

    // The entry of the first folder that has the identifier (a Hidden one there hides those after it).
    std::optional<DesktopEntry> find(const std::string& id);
    // The identifier of the first entry whose program is `binary` (by file name); empty when none.
    std::string idForProgram(const std::string& binary);

    // The process's shared instance.
    static DesktopEntries& shared();

  private:
    template <class T> struct Cached {
        T value;
        std::chrono::steady_clock::time_point at;
    };
    const std::chrono::seconds maximumAge_;
    std::mutex mutex_;
    std::unordered_map<std::string, Cached<std::optional<DesktopEntry>>> byID_;
    std::unordered_map<std::string, Cached<std::string>> byProgram_;
};

} // namespace tonavi
