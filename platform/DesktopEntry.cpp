#include "platform/DesktopEntry.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace tonavi {

namespace {

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::string trimmed(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string_view::npos)
        return {};
    const auto last = s.find_last_not_of(" \t\r");
    return std::string(s.substr(first, last - first + 1));
}

// "de_DE.UTF-8@euro" gives {"de_DE", "de"}: the keys to try, best first.
std::vector<std::string> localeKeys(std::string_view locale) {
    std::string base(locale.substr(0, locale.find_first_of(".@")));
    if (base.empty() || base == "C" || base == "POSIX")
        return {};
    std::vector<std::string> keys{base};
    if (auto underscore = base.find('_'); underscore != std::string::npos)
        keys.push_back(base.substr(0, underscore));
    return keys;
}

bool isTrue(const std::string& value) { return value == "true"; }

} // namespace

std::optional<DesktopEntry> DesktopEntry::parse(std::string_view text, std::string id, std::string_view locale) {
    DesktopEntry entry;
    entry.id = std::move(id);
    const std::vector<std::string> keys = localeKeys(locale);
    std::size_t nameRank = keys.size() + 1; // lower is better; the plain Name ranks last
    bool inGroup = false, sawGroup = false;
    std::istringstream lines{std::string(text)};
    for (std::string raw; std::getline(lines, raw);) {
        const std::string line = trimmed(raw);
        if (line.empty() || line[0] == '#')
            continue;
        if (line[0] == '[') {
            inGroup = line == "[Desktop Entry]";
            sawGroup = sawGroup || inGroup;
            continue;
        }
        const auto equals = line.find('=');
        if (!inGroup || equals == std::string::npos)
            continue;
        const std::string key = trimmed(std::string_view(line).substr(0, equals));
        const std::string value = trimmed(std::string_view(line).substr(equals + 1));
        if (key == "Type")
            entry.isApplication = value == "Application";
        else if (key == "NoDisplay")
            entry.noDisplay = isTrue(value);
        else if (key == "Hidden")
            entry.hidden = isTrue(value);
        else if (key == "Exec")
            entry.program = value.substr(0, value.find(' '));
        else if (key == "Categories") {
            std::istringstream list(value);
            for (std::string category; std::getline(list, category, ';');)
                if (!category.empty())
                    entry.categories.push_back(category);
        } else if (key == "Name" && nameRank > keys.size()) {
            entry.name = value;
            nameRank = keys.size();
        } else if (key.starts_with("Name[") && key.back() == ']') {
            const std::string wanted = key.substr(5, key.size() - 6);
            for (std::size_t rank = 0; rank < keys.size() && rank < nameRank; ++rank)
                if (keys[rank] == wanted) {
                    entry.name = value;
                    nameRank = rank;
                }
        }
    }
    if (!sawGroup)
        return std::nullopt;
    return entry;
}

std::vector<std::string> DesktopEntry::applicationFolders() {
    std::vector<std::string> folders;
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    const char* home = std::getenv("HOME");
    if (dataHome && *dataHome)
        folders.push_back(std::string(dataHome) + "/applications");
    else if (home && *home)
        folders.push_back(std::string(home) + "/.local/share/applications");
    const char* dataDirs = std::getenv("XDG_DATA_DIRS");
    std::stringstream dirs(dataDirs && *dataDirs ? dataDirs : "/usr/local/share:/usr/share");
    for (std::string dir; std::getline(dirs, dir, ':');)
        if (!dir.empty())
            folders.push_back(dir + "/applications");
    return folders;
}

std::optional<DesktopEntry> DesktopEntries::find(const std::string& id) {
    const auto now = std::chrono::steady_clock::now();
    {
        std::lock_guard guard(mutex_);
        if (auto it = byID_.find(id); it != byID_.end() && now - it->second.at < maximumAge_)
            return it->second.value;
    }
    std::optional<DesktopEntry> found;
    const char* lang = std::getenv("LANG");
    if (!id.empty() && id.find('/') == std::string::npos)
        for (const auto& folder : DesktopEntry::applicationFolders()) {
            const std::string path = folder + "/" + id + ".desktop";
            std::error_code error;
            if (!std::filesystem::is_regular_file(path, error))
                continue;
            found = DesktopEntry::parse(readText(path), id, lang ? lang : "");
            break; // the first location of an identifier wins, hidden or not
        }
    std::lock_guard guard(mutex_);
    byID_[id] = {found, now};
    return found;
}

std::string DesktopEntries::idForProgram(const std::string& binary) {
    if (binary.empty())
        return {};
    const auto now = std::chrono::steady_clock::now();
    {
        std::lock_guard guard(mutex_);
        if (auto it = byProgram_.find(binary); it != byProgram_.end() && now - it->second.at < maximumAge_)
            return it->second.value;
    }
    std::string found;
    for (const auto& folder : DesktopEntry::applicationFolders()) {
        std::error_code error;
        for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
            if (it->path().extension() != ".desktop")
                continue;
            const auto entry = DesktopEntry::parse(readText(it->path().string()), it->path().stem().string());
            if (entry && !entry->program.empty() && std::filesystem::path(entry->program).filename() == binary) {
                found = entry->id;
                break;
            }
        }
        if (!found.empty())
            break;
    }
    std::lock_guard guard(mutex_);
    byProgram_[binary] = {found, now};
    return found;
}

DesktopEntries& DesktopEntries::shared() {
    static auto* entries = new DesktopEntries();
    return *entries;
}

} // namespace tonavi
