#include "platform/DesktopEntries.hpp"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

namespace tonavi::DesktopEntries {

namespace {

std::string trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos)
        return {};
    const auto last = text.find_last_not_of(" \t\r");
    return std::string(text.substr(first, last - first + 1));
}

std::vector<std::string> splitList(const std::string& value) {
    std::vector<std::string> out;
    std::stringstream in(value);
    for (std::string item; std::getline(in, item, ';');)
        if (!item.empty())
            out.push_back(item);
    return out;
}

// The program of an Exec line: its first word, unquoted.
std::string program(const std::string& exec) {
    if (!exec.empty() && exec.front() == '"') {
        const auto close = exec.find('"', 1);
        return exec.substr(1, close == std::string::npos ? std::string::npos : close - 1);
    }
    return exec.substr(0, exec.find(' '));
}

void readFolder(const std::filesystem::path& root, const std::filesystem::path& folder, std::string_view locale,
                std::set<std::string>& seen, std::vector<DesktopEntry>& out) {
    std::error_code ec;
    std::vector<std::filesystem::path> files;
    for (std::filesystem::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
        if (it->path().extension() == ".desktop")
            files.push_back(it->path());
    // Directory order is the file system's; a sorted walk makes the winner among duplicates in one
    // folder the same on every machine.
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        std::string id = std::filesystem::relative(file, root, ec).replace_extension().string();
        std::replace(id.begin(), id.end(), '/', '-');
        if (ec || id.empty() || seen.contains(id))
            continue;
        std::ifstream in(file);
        if (!in)
            continue;
        std::stringstream text;
        text << in.rdbuf();
        auto entry = parse(text.str(), locale);
        if (!entry)
            continue;
        seen.insert(id);
        entry->id = std::move(id);
        entry->path = file.string();
        out.push_back(std::move(*entry));
    }
}

} // namespace

std::vector<std::filesystem::path> applicationFolders() {
    std::vector<std::filesystem::path> folders;
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    const char* home = std::getenv("HOME");
    if (dataHome && *dataHome)
        folders.emplace_back(std::filesystem::path(dataHome) / "applications");
    else if (home && *home)
        folders.emplace_back(std::filesystem::path(home) / ".local/share/applications");
    const char* dataDirs = std::getenv("XDG_DATA_DIRS");
    std::stringstream dirs(dataDirs && *dataDirs ? dataDirs : "/usr/local/share:/usr/share");
    for (std::string dir; std::getline(dirs, dir, ':');)
        if (!dir.empty())
            folders.emplace_back(std::filesystem::path(dir) / "applications");
    return folders;
}

std::string currentLocale() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"})
        if (const char* value = std::getenv(name); value && *value)
            return value;
    return {};
}

std::optional<DesktopEntry> parse(std::string_view text, std::string_view locale) {
    // "de_DE.UTF-8@euro": the names tried are "de_DE" and "de" (the charset never appears in keys).
    std::string language(locale.substr(0, locale.find_first_of(".@")));
    const std::string country = language;
    language = language.substr(0, language.find('_'));
    std::string plainName, countryName, languageName;

    DesktopEntry entry;
    bool inGroup = false, found = false;
    std::stringstream in{std::string(text)};
    for (std::string line; std::getline(in, line);) {
        const std::string t = trimmed(line);
        if (t.empty() || t.front() == '#')
            continue;
        if (t.front() == '[') {
            inGroup = t == "[Desktop Entry]";
            found = found || inGroup;
            continue;
        }
        if (!inGroup)
            continue;
        const auto equals = t.find('=');
        if (equals == std::string::npos)
            continue;
        const std::string key = trimmed(std::string_view(t).substr(0, equals));
        const std::string value = trimmed(std::string_view(t).substr(equals + 1));
        if (key == "Name")
            plainName = value;
        else if (!country.empty() && key == "Name[" + country + "]")
            countryName = value;
        else if (!language.empty() && key == "Name[" + language + "]")
            languageName = value;
        else if (key == "Type")
            entry.type = value;
        else if (key == "Hidden")
            entry.hidden = value == "true";
        else if (key == "NoDisplay")
            entry.noDisplay = value == "true";
        else if (key == "Categories")
            entry.categories = splitList(value);
        else if (key == "Exec")
            entry.exec = program(value);
    }
    if (!found)
        return std::nullopt;
    entry.name = !countryName.empty() ? countryName : !languageName.empty() ? languageName : plainName;
    return entry;
}

std::vector<DesktopEntry> read(const std::vector<std::filesystem::path>& folders, std::string_view locale) {
    std::vector<DesktopEntry> out;
    std::set<std::string> seen;
    for (const auto& folder : folders)
        readFolder(folder, folder, locale, seen, out);
    return out;
}

std::optional<std::string> idRunning(const std::vector<DesktopEntry>& entries, std::string_view binary) {
    if (binary.empty())
        return std::nullopt;
    for (const auto& entry : entries)
        if (!entry.hidden && !entry.exec.empty() && std::filesystem::path(entry.exec).filename() == binary)
            return entry.id;
    return std::nullopt;
}

} // namespace tonavi::DesktopEntries
