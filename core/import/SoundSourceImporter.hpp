#pragma once
// Reads the saved mixer of SoundSource, another maker's per-application audio tool, and turns it into
// a configuration: what has a counterpart here is mapped, the rest is reported. A pure function over
// two property lists (binary or XML), apart from one question: is this plug-in installed here? That
// question is a closure, so the caller decides which catalogue answers it.

#include "audio/chain/AUComponentKey.hpp"
#include "audio/chain/ChainSettings.hpp"
#include "core/config/AutoDirectList.hpp"
#include "core/config/TonaviConfig.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace tonavi {

struct SoundSourceImportResult {
    TonaviConfig config;
    AutoDirectList autoDirect;
    std::int64_t importedApps = 0;
    std::int64_t importedEffects = 0;
    std::vector<std::string> mappedEffects;  // without duplicates, ascending
    std::vector<std::string> skippedEffects; // without duplicates, ascending
};

class SoundSourceImportError : public std::runtime_error {
  public:
    enum class Kind { mixerNotFound, invalidMixer };
    explicit SoundSourceImportError(Kind kind);
    Kind kind() const { return kind_; }

  private:
    Kind kind_;
};

struct SoundSourceImporter {
    // True when a plug-in with these codes is installed on this machine. The codes are those of
    // `key`; its names are not filled in yet.
    using ComponentLookup = std::function<bool(const kavore::AUComponentKey& key)>;

    // Relative to the user's home folder.
    static constexpr const char* defaultSourcesURL = "Library/Application Support/SoundSource/Sources.plist";
    static constexpr const char* defaultPreferencesURL = "Library/Preferences/com.rogueamoeba.soundsource.plist";

    // A lookup that finds nothing: every plug-in effect takes the fallback.
    static bool noInstalledComponents(const kavore::AUComponentKey&) { return false; }

    // Reads the two files; a Sources file that cannot be read raises mixerNotFound, a preferences
    // file that cannot be read is no error. Empty paths mean the default ones under `home`.
    static SoundSourceImportResult loadDefault(const TonaviConfig& base, const AutoDirectList& existingAutoDirect,
                                               const ComponentLookup& lookup, const std::string& home,
                                               std::string sourcesPath = {}, std::string preferencesPath = {});

    // The same over the files' bytes. Raises invalidMixer for a Sources list that does not parse,
    // whose root is not a dictionary, or without a "modelItems" array.
    static SoundSourceImportResult importData(std::span<const std::uint8_t> sources,
                                              std::span<const std::uint8_t> preferences, const TonaviConfig& base,
                                              const AutoDirectList& existingAutoDirect,
                                              const ComponentLookup& lookup);

    // The number of "AppSource" items; 0 for a file that cannot be read.
    static std::int64_t discoverableAppCount(const std::string& path);

    // 0 for absent, not finite, or a magnitude of 1e9 or more; otherwise truncated.
    static std::int64_t safeInt(std::optional<double> value);
};

} // namespace tonavi
