#pragma once
// Keeps the configuration on disk and survives its damage. The service and the user-interface
// application share these files, so every write is atomic, read-change-write sequences run under
// withExclusiveAccess, and a damaged file is set aside and mined rather than thrown away.
//
// The store holds no state beyond its folder (and the file system it writes through); any number
// of copies may exist. load and save take no lock of their own.

#include "core/config/AutoDirectList.hpp"
#include "core/config/ConfigDecodeError.hpp"
#include "core/config/ConfigEncodeError.hpp"
#include "core/config/FileSystem.hpp"
#include "core/config/MIDIMapping.hpp"
#include "core/config/QuickConfig.hpp"
#include "core/config/StateFileLock.hpp"
#include "core/config/TonaviConfig.hpp"

#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi {

class TonaviConfigStore {
  public:
    using Path = std::filesystem::path;
    using QuickConfig = tonavi::QuickConfig;

    // Creates the "configs" folder inside baseDir, dropping a failure.
    explicit TonaviConfigStore(Path baseDir, std::shared_ptr<FileSystem> fileSystem = FileSystem::real());

    // The per-user support folder, created with its parents (a failure is dropped).
    static Path defaultBase();

    // Whose first-run favourites a new or unreadable configuration starts from.
    AppPlatform platform = AppPlatform::macOS;

    const Path& baseDir() const { return baseDir_; }
    Path configURL() const { return baseDir_ / "state.json"; }
    Path temporaryURL() const { return baseDir_ / "state.json.tmp"; }
    Path previousURL() const { return baseDir_ / "state.previous.json"; }
    Path lockURL() const { return baseDir_ / "state.lock"; }
    Path recoveryNoticeURL() const { return baseDir_ / "recovery-notice.txt"; }
    Path autoDirectURL() const { return baseDir_ / "auto-direct.json"; }
    Path midiMappingsURL() const { return baseDir_ / "midi-mappings.json"; }
    Path configsDir() const { return baseDir_ / "configs"; }

    // The configuration on disk; first-run defaults (saved) when there is none, a recovered one when
    // the file is damaged. Raises only when the first-run save fails. Temporary files of a writer
    // killed mid-write are removed first.
    TonaviConfig load() const;
    // Atomic: "state.json" is the old complete file or the new one. The old one, when it decodes, is
    // first written atomically to "state.previous.json"; then the new file, staged in
    // "state.json.tmp", replaces "state.json". Raises on failure, leaving "state.json" as it was.
    void save(const TonaviConfig& config) const;
    // The recovery notice, once: the file is removed when read.
    std::optional<std::string> takeRecoveryNotice() const;

    // Runs body under an exclusive flock on "state.lock" and returns or raises what it does. When the
    // lock file cannot be opened, body runs anyway.
    template <class Body> auto withExclusiveAccess(Body&& body) const -> decltype(body()) {
        const StateFileLock lock(lockURL());
        const ExclusiveScope scope;
        return body();
    }

    // The service's save, under the lock: the user-interface settings (ui, startAtLogin,
    // superVolumeKeys) of the file on disk replace the ones in `config`, then `config` is saved.
    // When the file is missing or damaged, `config` is saved as it is; a damaged file is first set
    // aside by load, with its notice. Raises when the save fails.
    void saveKeepingAppOwnedSettings(const TonaviConfig& config) const;

    // Quick configs: "<name>.tonavirig" in "configs", with every "/" of the name made "-".
    Path configFileURL(std::string_view name) const;
    void saveQuickConfig(const QuickConfig& config) const;
    QuickConfig loadQuickConfig(std::string_view name) const;
    // Sorted by name; files that do not read are left out. Never raises.
    std::vector<QuickConfig> listQuickConfigs() const;
    void deleteQuickConfig(std::string_view name) const;

    // Always the bundled list; the file is rewritten to it whenever it differs. Never raises.
    AutoDirectList loadAutoDirectList() const;
    void saveAutoDirectList(const AutoDirectList& list) const;

    // Empty when the file does not exist; raises when it exists and cannot be read or decoded.
    std::vector<MIDIMapping> loadMIDIMappings() const;
    void saveMIDIMappings(const std::vector<MIDIMapping>& mappings) const;

    // Recovers "apps", "devices" and "groups" from text that JSON parsing refused, by a scan that
    // knows only strings and brackets. Nothing when no key yields a value. The result is an object.
    static std::optional<nlohmann::json> salvageTopLevel(std::string_view bytes);

    // Seconds since 1970 used to name set-aside files.
    void setClockForTesting(std::function<double()> clock) { clock_ = std::move(clock); }

  private:
    // Marks this thread as inside withExclusiveAccess, so that the leftover sweep knows the lock is
    // already its own (a second flock of the same file from this process would wait for itself).
    struct ExclusiveScope {
        ExclusiveScope() { ++exclusiveDepth; }
        ~ExclusiveScope() { --exclusiveDepth; }
        ExclusiveScope(const ExclusiveScope&) = delete;
        ExclusiveScope& operator=(const ExclusiveScope&) = delete;
    };
    static inline thread_local int exclusiveDepth = 0;
    // save, with the current file's bytes when the caller has already read and decoded them.
    void saveReplacing(const TonaviConfig& config, const std::string* verifiedCurrent) const;
    void removeQuietly(const Path& path) const;
    // "state.json.tmp" and the siblings of interrupted atomic writes of the state files; a writer
    // killed mid-save leaves them, and nothing else would ever remove them.
    void removeLeftoverTemporaries() const;
    TonaviConfig recover(const std::optional<std::string>& damagedBytes, const Path& backupURL) const;

    Path baseDir_;
    std::shared_ptr<FileSystem> fs_;
    std::function<double()> clock_;
};

} // namespace tonavi
