#include "core/import/SoundSourceImporter.hpp"

#include "audio/chain/ChainSettingsJSON.hpp"
#include "audio/effects/BalancePanSettingsJSON.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "audio/effects/NoiseSuppressorSettingsJSON.hpp"
#include "base/Encoding.hpp"

#include <plist/plist.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <memory>

namespace tonavi {

namespace {

// A saved mixer is a few hundred kilobytes; anything far beyond is not one, and is not read whole.
constexpr std::uintmax_t maximumFileBytes = 64u << 20;

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

std::optional<std::vector<std::uint8_t>> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return std::nullopt;
    std::vector<std::uint8_t> bytes;
    char chunk[65536];
    while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
        bytes.insert(bytes.end(), chunk, chunk + in.gcount());
        if (bytes.size() > maximumFileBytes)
            return std::nullopt;
    }
    if (in.bad())
        return std::nullopt;
    return bytes;
}

// Binary and XML alike; null for anything that is not a property list.
PlistPtr parse(std::span<const std::uint8_t> bytes) {
    if (bytes.empty() || bytes.size() > maximumFileBytes)
        return nullptr;
    plist_t root = nullptr;
    plist_from_memory(reinterpret_cast<const char*>(bytes.data()), static_cast<std::uint32_t>(bytes.size()), &root);
    return PlistPtr(root);
}

plist_t item(plist_t dict, const char* key) {
    return dict && plist_get_node_type(dict) == PLIST_DICT ? plist_dict_get_item(dict, key) : nullptr;
}

plist_t dictionary(plist_t dict, const char* key) {
    plist_t node = item(dict, key);
    return node && plist_get_node_type(node) == PLIST_DICT ? node : nullptr;
}

// A number as Foundation reads one: an integer, a real or a boolean.
std::optional<double> number(plist_t node) {
    if (!node)
        return std::nullopt;
    switch (plist_get_node_type(node)) {
    case PLIST_UINT: {
        std::uint64_t value = 0;
        plist_get_uint_val(node, &value);
        // Negative integers arrive in two's complement.
        return static_cast<double>(static_cast<std::int64_t>(value));
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return value;
    }
    case PLIST_BOOLEAN: {
        std::uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return value ? 1.0 : 0.0;
    }
    default:
        return std::nullopt;
    }
}

std::optional<bool> boolean(plist_t node) {
    if (node && plist_get_node_type(node) == PLIST_BOOLEAN)
        return plist_bool_val_is_true(node) != 0;
    if (const auto value = number(node))
        return *value != 0;
    return std::nullopt;
}

std::string trimmed(std::string text) {
    constexpr const char* blanks = " \t\n\r\v\f";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string string(plist_t node) {
    if (!node || plist_get_node_type(node) != PLIST_STRING)
        return {};
    std::uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    return text ? std::string(text, length) : std::string();
}

bool containsNS1(std::string_view name) {
    constexpr std::string_view needle = "ns1";
    return std::search(name.begin(), name.end(), needle.begin(), needle.end(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) == b;
           }) != name.end();
}

// "audioUnitUid" reads "Maker: Effect", the way plug-in hosts name a plug-in to the user; the maker
// is the part before the first colon.
std::string manufacturerName(plist_t settings, const std::string& effectName) {
    const std::string uid = trimmed(string(item(settings, "audioUnitUid")));
    if (const auto colon = uid.find(':'); colon != std::string::npos) {
        if (std::string maker = trimmed(uid.substr(0, colon)); !maker.empty())
            return maker;
    }
    return effectName;
}

std::optional<std::uint32_t> componentCode(plist_t settings, const char* key) {
    const auto value = number(item(settings, key));
    if (!value || !std::isfinite(*value) || *value < 0 || *value > 4294967295.0)
        return std::nullopt;
    return static_cast<std::uint32_t>(*value);
}

kavore::EffectSlot newSlot(kavore::EffectKind kind, bool enabled, const nlohmann::json& settings) {
    kavore::EffectSlot slot;
    slot.id = makeUUID();
    slot.kind = kind;
    slot.bypassed = !enabled;
    slot.settingsJSON = kavore::settingsJSONBytes(settings);
    return slot;
}

// The slot of a ten-band EQ, or nothing for a flat one. Values are 0...1 with 0.5 flat; the bands
// are "band1" to "band10", low to high.
std::optional<kavore::EffectSlot> eqSlot(plist_t properties, bool enabled) {
    const auto gain = [&](const std::string& key) {
        const double value = number(item(properties, key.c_str())).value_or(0.5);
        return std::clamp(std::isfinite(value) ? (value - 0.5) * 24.0 : 0.0, -12.0, 12.0);
    };
    std::vector<double> bands;
    bool flat = std::abs(gain("preamp")) <= 0.01;
    for (int band = 1; band <= 10; ++band) {
        bands.push_back(gain("band" + std::to_string(band)));
        flat = flat && std::abs(bands.back()) <= 0.01;
    }
    if (flat)
        return std::nullopt;
    return newSlot(kavore::EffectKind::eq10, enabled,
                   kavore::toJSON(kavore::EQ10Settings(bands, gain("preamp"), enabled)));
}

// The plug-in slot, when the plug-in is installed here and its settings serialise.
std::optional<kavore::EffectSlot> pluginSlot(plist_t properties, const std::string& name, bool enabled,
                                             const SoundSourceImporter::ComponentLookup& lookup) {
    plist_t settings = dictionary(properties, "audioUnitSettings");
    const auto type = componentCode(settings, "type");
    const auto subtype = componentCode(settings, "subtype");
    const auto manufacturer = componentCode(settings, "manufacturer");
    if (!type || !subtype || !manufacturer)
        return std::nullopt;
    kavore::AUComponentKey key{*type, *subtype, *manufacturer, {}, {}};
    if (!lookup || !lookup(key))
        return std::nullopt;
    char* preset = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(settings, &preset, &length);
    if (!preset)
        return std::nullopt;
    kavore::EffectSlot slot;
    slot.id = makeUUID();
    slot.kind = kavore::EffectKind::audioUnit;
    slot.bypassed = !enabled;
    slot.audioUnitPreset = std::vector<std::uint8_t>(preset, preset + length);
    plist_to_bin_free(preset);
    key.name = name;
    key.manufacturerName = manufacturerName(settings, name);
    slot.auComponent = key;
    return slot;
}

struct ImportedChain {
    kavore::ChainSettings chain;
    std::vector<std::string> mapped;
    std::vector<std::string> skipped;
};

ImportedChain effectChain(plist_t effectsOwner, const SoundSourceImporter::ComponentLookup& lookup) {
    ImportedChain result;
    result.chain.bypassed = boolean(item(effectsOwner, "effectsDisabled")).value_or(false);
    result.chain.overdrive = kavore::OverdriveSettings::off();
    plist_t effects = item(effectsOwner, "effects");
    if (!effects || plist_get_node_type(effects) != PLIST_ARRAY)
        return result;
    for (std::uint32_t i = 0, n = plist_array_get_size(effects); i < n; ++i) {
        plist_t effect = plist_array_get_item(effects, i);
        if (!effect || plist_get_node_type(effect) != PLIST_DICT)
            continue;
        const std::string markup = string(item(effect, "effectInfoKey"));
        // An effect without a name is reported under its kind, so the user can still tell which.
        std::string name = trimmed(string(item(effect, "name")));
        if (name.empty())
            name = markup.empty() ? "Unnamed effect" : markup;
        const bool enabled = boolean(item(effect, "enabled")).value_or(true);
        plist_t properties = dictionary(effect, "nodeProperties");

        if (markup == "TC10BandEQMarkup") {
            if (auto slot = eqSlot(properties, enabled))
                result.chain.slots.push_back(std::move(*slot));
            continue;
        }
        if (markup == "TCBalanceMarkup") {
            const double balance = number(item(properties, "balance")).value_or(0.0);
            if (std::isfinite(balance) && std::abs(balance) > 0.001)
                result.chain.slots.push_back(newSlot(kavore::EffectKind::balancePan, enabled,
                                                     kavore::toJSON(kavore::BalancePanSettings(balance, enabled))));
            continue;
        }
        if (markup == "TCVolumeOverdriveMarkup")
            continue;
        if (markup == "TCAudioUnitModelMarkup") {
            if (auto slot = pluginSlot(properties, name, enabled, lookup)) {
                result.chain.slots.push_back(std::move(*slot));
                result.mapped.push_back(name + " with exact Audio Unit preset");
                continue;
            }
        }
        // The noise suppressor plug-in of that name has a built-in counterpart here.
        if (containsNS1(name)) {
            auto slot = newSlot(kavore::EffectKind::noiseSuppressor, enabled,
                                kavore::toJSON(kavore::NoiseSuppressorSettings(0.66, enabled)));
            slot.nickname = "NS1 migration";
            result.chain.slots.push_back(std::move(slot));
            result.mapped.push_back(name + " mapped to built-in Noise Suppressor");
        } else {
            result.skipped.push_back(name + " needs a fresh plugin preset");
        }
    }
    return result;
}

void sortUnique(std::vector<std::string>& texts) {
    std::sort(texts.begin(), texts.end());
    texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
}

plist_t modelItems(plist_t root) {
    plist_t items = item(root, "modelItems");
    return items && plist_get_node_type(items) == PLIST_ARRAY ? items : nullptr;
}

} // namespace

SoundSourceImportError::SoundSourceImportError(Kind kind)
    : std::runtime_error(kind == Kind::mixerNotFound ? "No SoundSource mixer was found on this Mac."
                                                     : "SoundSource's saved mixer could not be read safely."),
      kind_(kind) {}

std::int64_t SoundSourceImporter::safeInt(std::optional<double> value) {
    if (!value || !std::isfinite(*value) || std::abs(*value) >= 1e9)
        return 0;
    return static_cast<std::int64_t>(*value);
}

SoundSourceImportResult SoundSourceImporter::loadDefault(const TonaviConfig& base,
                                                         const AutoDirectList& existingAutoDirect,
                                                         const ComponentLookup& lookup, const std::string& home,
                                                         std::string sourcesPath, std::string preferencesPath) {
    if (sourcesPath.empty())
        sourcesPath = home + "/" + defaultSourcesURL;
    if (preferencesPath.empty())
        preferencesPath = home + "/" + defaultPreferencesURL;
    const auto sources = readFile(sourcesPath);
    if (!sources)
        throw SoundSourceImportError(SoundSourceImportError::Kind::mixerNotFound);
    const auto preferences = readFile(preferencesPath).value_or(std::vector<std::uint8_t>{});
    return importData(*sources, preferences, base, existingAutoDirect, lookup);
}

SoundSourceImportResult SoundSourceImporter::importData(std::span<const std::uint8_t> sources,
                                                        std::span<const std::uint8_t>, const TonaviConfig& base,
                                                        const AutoDirectList&, const ComponentLookup& lookup) {
    // Nothing is taken from the preferences yet: the mixer itself lives in the Sources list.
    const PlistPtr root = parse(sources);
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT)
        throw SoundSourceImportError(SoundSourceImportError::Kind::invalidMixer);
    plist_t items = modelItems(root.get());
    if (!items)
        throw SoundSourceImportError(SoundSourceImportError::Kind::invalidMixer);

    SoundSourceImportResult result;
    result.config = base;
    const auto addReports = [&](const ImportedChain& imported, const std::string& prefix) {
        for (const auto& text : imported.mapped)
            result.mappedEffects.push_back(prefix + text);
        for (const auto& text : imported.skipped)
            result.skippedEffects.push_back(prefix + text);
        result.importedEffects += static_cast<std::int64_t>(imported.chain.slots.size());
    };
    for (std::uint32_t i = 0, n = plist_array_get_size(items); i < n; ++i) {
        plist_t entry = plist_array_get_item(items, i);
        const std::string kind = string(item(entry, "infoKey"));
        if (kind == "OutputSource") {
            ImportedChain imported = effectChain(entry, lookup);
            addReports(imported, "");
            result.config.systemRows.systemChain = std::move(imported.chain);
            continue;
        }
        if (kind != "AppSource")
            continue;
        const std::string bundleID = trimmed(string(item(dictionary(entry, "applicationRef"), "bundleid")));
        if (bundleID.empty())
            continue;
        std::string name = trimmed(string(item(entry, "sourceName")));
        if (name.empty())
            name = trimmed(string(item(entry, "customName")));
        AppAudioState app(bundleID);
        if (!name.empty())
            app.displayName = name;
        plist_t volume = dictionary(entry, "volumeProperties");
        const double level = number(item(volume, "volume")).value_or(1.0);
        app.volume = std::clamp(std::isfinite(level) ? level : 1.0, 0.0, 1.0);
        app.muted = boolean(item(volume, "mute")).value_or(false);
        ImportedChain imported = effectChain(entry, lookup);
        app.chain = imported.chain;
        app.favorite = boolean(item(entry, "favourite")).value_or(true);
        app.favoriteRank = safeInt(number(item(entry, "position")));
        app.displayRank.reset();
        app.metersEnabled = true;
        result.config.upsertApp(app);
        result.importedApps += 1;
        addReports(imported, app.displayName + ": ");
    }
    result.autoDirect = AutoDirectList::bundled();
    sortUnique(result.mappedEffects);
    sortUnique(result.skippedEffects);
    return result;
}

std::int64_t SoundSourceImporter::discoverableAppCount(const std::string& path) {
    const auto bytes = readFile(path);
    if (!bytes)
        return 0;
    const PlistPtr root = parse(*bytes);
    plist_t items = modelItems(root.get());
    std::int64_t count = 0;
    for (std::uint32_t i = 0, n = items ? plist_array_get_size(items) : 0; i < n; ++i)
        count += string(item(plist_array_get_item(items, i), "infoKey")) == "AppSource";
    return count;
}

} // namespace tonavi
