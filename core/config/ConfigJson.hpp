#pragma once
// Building blocks of the hand-written readers of persisted records. Only codec translation units
// include this header; it brings in the whole of nlohmann/json.
//
// The reading rule: a required key is read strictly and its failure fails the record; every other
// key is read on its own, and any failure there (wrong type, a nested record that failed, one bad
// element of an array) leaves the field at its default without a report.

#include "audio/chain/ChainSettingsJSON.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "audio/headphone/HeadphoneProfileJSON.hpp"
#include "audio/listening/GlobalListeningSettingsJSON.hpp"
#include "core/config/ConfigDecodeError.hpp"

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi::ConfigJson {

using json = nlohmann::json;

[[noreturn]] void fail(const std::string& what);

// Strict readers of single values. Each raises ConfigDecodeError on a wrong type.
void requireObject(const json& j, const char* record);
bool asBool(const json& j);
// Any JSON number; integers convert exactly when they can.
double asDouble(const json& j);
// An integer, or a float with an integral value that fits.
std::int64_t asInt(const json& j);
std::string asString(const json& j);
std::vector<std::string> asStringArray(const json& j);
std::map<std::string, double> asDoubleMap(const json& j);

template <class T> T as(const json& j) {
    if constexpr (std::is_same_v<T, bool>)
        return asBool(j);
    else if constexpr (std::is_same_v<T, double>)
        return asDouble(j);
    else if constexpr (std::is_same_v<T, std::int64_t>)
        return asInt(j);
    else if constexpr (std::is_same_v<T, std::string>)
        return asString(j);
    else if constexpr (std::is_same_v<T, std::vector<std::string>>)
        return asStringArray(j);
    else if constexpr (std::is_same_v<T, std::map<std::string, double>>)
        return asDoubleMap(j);
    else if constexpr (std::is_same_v<T, kavore::ChainSettings>)
        return kavore::chainSettingsFromJSON(j);
    else if constexpr (std::is_same_v<T, kavore::LevelerSettings>)
        return kavore::levelerSettingsFromJSON(j);
    else if constexpr (std::is_same_v<T, kavore::EQPreset>)
        return kavore::eqPresetFromJSON(j);
    else if constexpr (std::is_same_v<T, kavore::HeadphoneProfile>)
        return kavore::headphoneProfileFromJSON(j);
    else if constexpr (std::is_same_v<T, kavore::GlobalListeningSettings>)
        return kavore::globalListeningSettingsFromJSON(j);
    else
        return j.get<T>();
}

// Arrays are read whole: any element that fails fails the array.
template <class T> std::vector<T> asArray(const json& j) {
    if (!j.is_array())
        fail("expected an array");
    std::vector<T> out;
    out.reserve(j.size());
    for (const auto& element : j)
        out.push_back(as<T>(element));
    return out;
}

// A required key: absent or unreadable raises.
template <class T> T readRequired(const json& object, const char* key) {
    const auto it = object.find(key);
    if (it == object.end())
        fail(std::string("missing required key \"") + key + "\"");
    try {
        return as<T>(*it);
    } catch (const std::exception& e) {
        fail(std::string("bad value for \"") + key + "\": " + e.what());
    }
}

// An optional key: `out` keeps its default unless the key reads cleanly. True when it did.
template <class T> bool readOptional(const json& object, const char* key, T& out) {
    const auto it = object.find(key);
    if (it == object.end())
        return false;
    try {
        out = as<T>(*it);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

template <class T> bool readOptional(const json& object, const char* key, std::optional<T>& out) {
    T value{};
    if (!readOptional(object, key, value))
        return false;
    out = std::move(value);
    return true;
}

template <class T> bool readOptionalArray(const json& object, const char* key, std::vector<T>& out) {
    const auto it = object.find(key);
    if (it == object.end())
        return false;
    try {
        out = asArray<T>(*it);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// An optional key of a strictly read record: absent or null gives nothing, anything else must read.
template <class T> void readStrictOptional(const json& object, const char* key, std::optional<T>& out) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) {
        out.reset();
        return;
    }
    out = readRequired<T>(object, key);
}

// Arrays of records written by the signal-processing library's encoders.
template <class T> json arrayJSON(const std::vector<T>& values) {
    json out = json::array();
    for (const auto& value : values)
        out.push_back(kavore::toJSON(value));
    return out;
}

// Writes an optional field only when it holds a value.
template <class T> void putIfPresent(json& object, const char* key, const std::optional<T>& value) {
    if (value)
        object[key] = *value;
}

// Disk form: pretty printed with sorted keys. Raises ConfigEncodeError for a number that is not
// finite or text that is not UTF-8, so that such a record never reaches a file.
std::string dumpForDisk(const json& j);
// Strict JSON of a whole byte string; raises ConfigDecodeError.
json parseBytes(std::string_view bytes);

// Enumerations are stored by name. Each has one table of (value, name); unknown names read as
// nothing, so an optional key falls back to its default.
template <class E> struct EnumName {
    E value;
    std::string_view name;
};

template <class E, std::size_t N> std::string_view toName(const EnumName<E> (&table)[N], E value) {
    for (const auto& entry : table)
        if (entry.value == value)
            return entry.name;
    return table[0].name;
}

template <class E, std::size_t N>
std::optional<E> fromName(const EnumName<E> (&table)[N], std::string_view name) {
    for (const auto& entry : table)
        if (entry.name == name)
            return entry.value;
    return std::nullopt;
}

// An optional key holding an enumeration's name: `out` keeps its default for anything unknown.
template <class E, std::size_t N>
void readOptionalName(const json& object, const char* key, const EnumName<E> (&table)[N], E& out) {
    std::string name;
    if (readOptional(object, key, name))
        if (const auto value = fromName(table, name))
            out = *value;
}

// min(value, hi) compared with lo; anything not at least lo becomes lo, so NaN ends at lo.
inline double clamp(double value, double lo, double hi) {
    const double capped = hi < value ? hi : value;
    return capped >= lo ? capped : lo;
}

} // namespace tonavi::ConfigJson
