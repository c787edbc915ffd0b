#include "core/config/TonaviConfigStore.hpp"

#include "base/Paths.hpp"
#include "core/config/ConfigEncodeError.hpp"
#include "core/config/ConfigJson.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <exception>

namespace tonavi {

using ConfigJson::json;

namespace {

double systemSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::string_view text) {
    std::size_t i = 0;
    const std::size_t n = text.size();
    while (i < n) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t length;
        std::uint32_t cp;
        if (c >= 0xC2 && c <= 0xDF)
            length = 2, cp = c & 0x1F;
        else if (c >= 0xE0 && c <= 0xEF)
            length = 3, cp = c & 0x0F;
        else if (c >= 0xF0 && c <= 0xF4)
            length = 4, cp = c & 0x07;
        else
            return false;
        if (i + length > n)
            return false;
        for (std::size_t k = 1; k < length; ++k) {
            const auto cc = static_cast<unsigned char>(text[i + k]);
            if ((cc & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        if ((length == 3 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
            (length == 4 && (cp < 0x10000 || cp > 0x10FFFF)))
            return false;
        i += length;
    }
    return true;
}

// The value that follows a key, by the salvage rules; nothing when the text ends first.
std::optional<std::string_view> salvageValueText(std::string_view text, std::size_t from) {
    std::size_t i = from;
    while (i < text.size() && (text[i] == '\n' || text[i] == ' ' || text[i] == ':'))
        ++i;
    if (i >= text.size())
        return std::nullopt;
    const std::size_t start = i;
    if (text[i] == '{' || text[i] == '[') {
        int depth = 0;
        bool inString = false;
        for (; i < text.size(); ++i) {
            const char c = text[i];
            if (inString) {
                if (c == '\\')
                    ++i;
                else if (c == '"')
                    inString = false;
                continue;
            }
            if (c == '"')
                inString = true;
            else if (c == '[' || c == '{')
                ++depth;
            else if (c == ']' || c == '}') {
                if (--depth == 0)
                    return text.substr(start, i + 1 - start);
            }
        }
        return std::nullopt;
    }
    const std::size_t end = text.find_first_of("\n,}", i);
    if (end == std::string_view::npos)
        return std::nullopt;
    return text.substr(start, end - start);
}

template <class T> std::string encodeForDisk(const T& value) {
    json j;
    try {
        j = value;
    } catch (const json::exception& e) {
        throw ConfigEncodeError(e.what());
    }
    return ConfigJson::dumpForDisk(j);
}

template <class T> T decodeStrictly(std::string_view bytes) {
    const json j = ConfigJson::parseBytes(bytes);
    try {
        return j.get<T>();
    } catch (const ConfigDecodeError&) {
        throw;
    } catch (const std::exception& e) {
        throw ConfigDecodeError(e.what());
    }
}

} // namespace

TonaviConfigStore::TonaviConfigStore(Path baseDir, std::shared_ptr<FileSystem> fileSystem)
    : baseDir_(std::move(baseDir)), fs_(std::move(fileSystem)), clock_(systemSeconds) {
    try {
        fs_->createDirectories(configsDir());
    } catch (const std::exception&) {
        // Quick config operations report their own failures later.
    }
}

TonaviConfigStore::Path TonaviConfigStore::defaultBase() {
    const Path base = Paths::supportDirectory();
    Paths::createDirectories(base.string());
    return base;
}

// MARK: Save and load

void TonaviConfigStore::save(const TonaviConfig& config) const {
    saveReplacing(config, nullptr);
}

void TonaviConfigStore::removeQuietly(const Path& path) const {
    try {
        fs_->remove(path);
    } catch (const std::exception&) {
        // Usually there is nothing to remove.
    }
}

void TonaviConfigStore::removeLeftoverTemporaries() const {
    // Another process's save in progress holds the lock and owns its temporary files: sweep only
    // when the lock is ours, and leave the sweep to a later load or save when it is not.
    std::optional<StateFileLock> lock;
    if (exclusiveDepth == 0) {
        lock.emplace(lockURL(), StateFileLock::Wait::never);
        if (lock->isContended())
            return;
    }
    removeQuietly(temporaryURL());
    // A writer killed inside an atomic write leaves that write's own sibling behind.
    try {
        fs_->removeWriteLeftovers({configURL(), temporaryURL(), previousURL(), recoveryNoticeURL()});
    } catch (const std::exception&) {
    }
}

void TonaviConfigStore::saveReplacing(const TonaviConfig& config, const std::string* verifiedCurrent) const {
    const std::string bytes = encodeTonaviConfig(config);
    const Path temporary = temporaryURL();
    const Path target = configURL();
    removeLeftoverTemporaries();
    try {
        fs_->writeAtomically(temporary, bytes);
        if (!fs_->exists(target)) {
            fs_->move(temporary, target);
            return;
        }
        // Keep the file about to be replaced, but only if it is good: a damaged "state.json" must
        // never displace a good previous file. A failure here costs the backup, never the save.
        try {
            if (verifiedCurrent) {
                fs_->writeAtomically(previousURL(), *verifiedCurrent);
            } else {
                const std::string current = fs_->read(target);
                (void)decodeTonaviConfig(current);
                fs_->writeAtomically(previousURL(), current);
            }
        } catch (const std::exception&) {
        }
        fs_->replace(target, temporary);
    } catch (...) {
        removeQuietly(temporary);
        throw;
    }
}

TonaviConfig TonaviConfigStore::load() const {
    const Path target = configURL();
    removeLeftoverTemporaries();
    if (!fs_->exists(target)) {
        TonaviConfig config = TonaviConfig::firstRunDefaults(platform);
        save(config);
        return config;
    }
    std::optional<std::string> bytes;
    try {
        bytes = fs_->read(target);
    } catch (const std::exception&) {
    }
    if (bytes) {
        try {
            return decodeTonaviConfig(*bytes);
        } catch (const std::exception&) {
        }
    }
    const auto seconds = static_cast<long long>(std::trunc(clock_()));
    const Path backup = baseDir_ / ("state.corrupt-" + std::to_string(seconds) + ".json");
    try {
        fs_->move(target, backup);
    } catch (const std::exception&) {
        // The next save still replaces the bad file: it only backs up files that decode.
    }
    return recover(bytes, backup);
}

TonaviConfig TonaviConfigStore::recover(const std::optional<std::string>& damagedBytes,
                                        const Path& backupURL) const {
    std::vector<std::string> kept;
    TonaviConfig working;
    bool fromPrevious = false;
    try {
        working = decodeTonaviConfig(fs_->read(previousURL()));
        fromPrevious = true;
        kept.emplace_back("your last saved setup");
    } catch (const std::exception&) {
        working = TonaviConfig::firstRunDefaults(platform);
    }

    if (damagedBytes && !fromPrevious) {
        std::optional<json> mined;
        try {
            json whole = json::parse(*damagedBytes);
            if (whole.is_object())
                mined = std::move(whole);
        } catch (const std::exception&) {
        }
        if (!mined)
            mined = salvageTopLevel(*damagedBytes);
        if (mined) {
            const auto minedField = [&](const char* key, auto& field) {
                const auto it = mined->find(key);
                if (it == mined->end())
                    return false;
                try {
                    field = ConfigJson::asArray<typename std::decay_t<decltype(field)>::value_type>(*it);
                    return true;
                } catch (const std::exception&) {
                    return false;
                }
            };
            if (minedField("apps", working.apps))
                kept.emplace_back("your apps");
            minedField("devices", working.devices);
            minedField("groups", working.groups);
        }
    }

    std::string detail;
    if (kept.empty()) {
        detail = "Nothing in it could be read";
    } else {
        detail = "Kept: ";
        for (std::size_t i = 0; i < kept.size(); ++i)
            detail += (i ? ", " : "") + kept[i];
    }
    const std::string notice = "Tonavi's settings file was damaged, so it was set aside as " +
                               backupURL.filename().string() + " " + "in Application Support/Tonavi. " +
                               detail + ".";
    try {
        fs_->writeAtomically(recoveryNoticeURL(), notice);
    } catch (const std::exception&) {
    }
    try {
        save(working);
    } catch (const std::exception&) {
    }
    return working;
}

std::optional<json> TonaviConfigStore::salvageTopLevel(std::string_view bytes) {
    if (!isValidUTF8(bytes))
        return std::nullopt;
    json result = json::object();
    for (const char* key : {"apps", "devices", "groups"}) {
        const std::string quoted = std::string("\"") + key + "\"";
        const std::size_t at = bytes.find(quoted);
        if (at == std::string_view::npos)
            continue;
        const auto valueText = salvageValueText(bytes, at + quoted.size());
        if (!valueText)
            continue;
        try {
            result[key] = json::parse(valueText->begin(), valueText->end());
        } catch (const json::exception&) {
        }
    }
    if (result.empty())
        return std::nullopt;
    return result;
}

std::optional<std::string> TonaviConfigStore::takeRecoveryNotice() const {
    std::string text;
    try {
        text = fs_->read(recoveryNoticeURL());
    } catch (const std::exception&) {
        return std::nullopt;
    }
    if (!isValidUTF8(text))
        return std::nullopt;
    try {
        fs_->remove(recoveryNoticeURL());
    } catch (const std::exception&) {
    }
    return text;
}

void TonaviConfigStore::saveKeepingAppOwnedSettings(const TonaviConfig& config) const {
    withExclusiveAccess([&] {
        TonaviConfig toSave = config;
        std::optional<TonaviConfig> onDisk;
        std::string onDiskBytes;
        if (fs_->exists(configURL())) {
            try {
                onDiskBytes = fs_->read(configURL());
                onDisk = decodeTonaviConfig(onDiskBytes);
            } catch (const std::exception&) {
                // A damaged file goes through load, which sets it aside (it is never deleted) and
                // leaves the notice. Its recovered settings are not the user's latest, so the ones
                // in memory are saved.
                try {
                    (void)load();
                } catch (const std::exception&) {
                }
            }
        }
        if (onDisk)
            toSave.adoptAppOwnedSettings(*onDisk);
        // Under the lock the file is still the one just read and decoded, so the backup need not
        // read and decode it again.
        saveReplacing(toSave, onDisk ? &onDiskBytes : nullptr);
    });
}

// MARK: Quick configs

TonaviConfigStore::Path TonaviConfigStore::configFileURL(std::string_view name) const {
    std::string fileName(name);
    std::replace(fileName.begin(), fileName.end(), '/', '-');
    return configsDir() / (fileName + ".tonavirig");
}

void TonaviConfigStore::saveQuickConfig(const QuickConfig& config) const {
    fs_->writeAtomically(configFileURL(config.name), encodeForDisk(config));
}

TonaviConfigStore::QuickConfig TonaviConfigStore::loadQuickConfig(std::string_view name) const {
    return decodeStrictly<QuickConfig>(fs_->read(configFileURL(name)));
}

std::vector<TonaviConfigStore::QuickConfig> TonaviConfigStore::listQuickConfigs() const {
    std::vector<QuickConfig> out;
    std::vector<Path> entries;
    try {
        entries = fs_->list(configsDir());
    } catch (const std::exception&) {
        return out;
    }
    for (const auto& entry : entries) {
        if (entry.extension() != ".tonavirig")
            continue;
        try {
            out.push_back(decodeStrictly<QuickConfig>(fs_->read(entry)));
        } catch (const std::exception&) {
            // A damaged quick config stays invisible in lists.
        }
    }
    std::stable_sort(out.begin(), out.end(),
                     [](const QuickConfig& a, const QuickConfig& b) { return a.name < b.name; });
    return out;
}

void TonaviConfigStore::deleteQuickConfig(std::string_view name) const {
    fs_->remove(configFileURL(name));
}

// MARK: Auto-direct list and MIDI mappings

AutoDirectList TonaviConfigStore::loadAutoDirectList() const {
    const AutoDirectList bundled = AutoDirectList::bundled();
    try {
        if (decodeStrictly<AutoDirectList>(fs_->read(autoDirectURL())) == bundled)
            return bundled;
    } catch (const std::exception&) {
    }
    try {
        fs_->writeAtomically(autoDirectURL(), encodeForDisk(bundled));
    } catch (const std::exception&) {
    }
    return bundled;
}

void TonaviConfigStore::saveAutoDirectList(const AutoDirectList& list) const {
    fs_->writeAtomically(autoDirectURL(), encodeForDisk(list));
}

std::vector<MIDIMapping> TonaviConfigStore::loadMIDIMappings() const {
    if (!fs_->exists(midiMappingsURL()))
        return {};
    return decodeStrictly<std::vector<MIDIMapping>>(fs_->read(midiMappingsURL()));
}

void TonaviConfigStore::saveMIDIMappings(const std::vector<MIDIMapping>& mappings) const {
    fs_->writeAtomically(midiMappingsURL(), encodeForDisk(mappings));
}

} // namespace tonavi
