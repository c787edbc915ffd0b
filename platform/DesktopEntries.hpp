#pragma once
// The applications installed for the user, from XDG desktop entries: "$XDG_DATA_HOME/applications"
// (default ~/.local/share/applications) first, then the "applications" folder of each entry of
// "$XDG_DATA_DIRS" (default /usr/local/share:/usr/share), where Flatpak's exports are too. An
// application's identifier is its desktop file ID: the file name without ".desktop", with the folders
// below "applications" joined by "-". The first location of an ID wins, so an entry in the home
// folder (Hidden=true included) stands for the same ID further down. Reads files: never on a queue
// that must not block.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi {

struct DesktopEntry {
    std::string id;
    std::string name;                    // Name[locale], else Name
    std::string path;                    // the .desktop file
    std::vector<std::string> categories; // Categories, in the file's order
    std::string exec;                    // the program of Exec, without arguments
    std::string type;
    bool hidden = false;
    bool noDisplay = false;

    // An application a user would pick from a menu: Type=Application, neither hidden nor NoDisplay.
    bool listed() const { return type == "Application" && !hidden && !noDisplay; }
};

namespace DesktopEntries {

std::vector<std::filesystem::path> applicationFolders();
// The messages locale ("de_DE.UTF-8@euro" from LC_ALL, LC_MESSAGES or LANG), for Name[...] lookup.
std::string currentLocale();
// The [Desktop Entry] group of one file's text; nothing when there is none. `id` and `path` are left
// empty. Name[xx_YY], then Name[xx], then Name, for locale "xx_YY.charset@modifier".
std::optional<DesktopEntry> parse(std::string_view text, std::string_view locale);
// Every entry of the folders, first location of an ID winning; unreadable files are skipped.
std::vector<DesktopEntry> read(const std::vector<std::filesystem::path>& folders, std::string_view locale);
// The ID of the first entry that is not hidden and whose Exec program has the file name `binary`.
std::optional<std::string> idRunning(const std::vector<DesktopEntry>& entries, std::string_view binary);

} // namespace DesktopEntries

} // namespace tonavi
