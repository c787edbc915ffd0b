#pragma once
// Building blocks of the strict wire codecs. Only codec translation units include this header; it brings
// in the whole of nlohmann/json.
//
// Reading: a required key must be present and of its type; an optional key may be absent or null. Every
// failure is a WireDecodingError whose message names the path to the bad value, e.g.
// "setAppMuted: muted: expected a boolean, found a string". Keys nobody asked for are ignored.
// Writing: optional fields are left out when absent; `finishText` refuses any number that is not finite,
// because the library would otherwise write null there.

#include "audio/ChainSettingsJSON.hpp"
#include "audio/EffectSettingsJSON.hpp"
#include "audio/GlobalListeningSettingsJSON.hpp"
#include "base/Encoding.hpp"
#include "core/engine/HealthEvent.hpp"
#include "core/wire/AudioOnset.hpp"
#include "core/wire/DeviceLiveStatus.hpp"
#include "core/wire/WireError.hpp"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace tonavi::WireJSON {

using json = nlohmann::json;

// The JSON type of a value in words: "a string", "an object", ...
std::string describe(const json& j);
[[noreturn]] void typeMismatch(const char* expected, const json& found);

void requireObject(const json& j);

bool readBool(const json& j);
double readDouble(const json& j);
float readFloat(const json& j);
// An integer, or a number with an integral value that fits.
std::int64_t readInt(const json& j);
// All 64 bits: a non-negative integer below 2^64.
std::uint64_t readUInt64(const json& j);
std::string readString(const json& j);

// The shortest decimal of a float, so 0.1f goes out as 0.1 and reads back as the same float.
json floatValue(float value);

// The engine's HealthEvent, read and written here so that the wire never needs the engine library.
json healthEventJSON(const HealthEvent& event);
HealthEvent readHealthEvent(const json& j);

template <class T> struct IsVector : std::false_type {};
template <class T> struct IsVector<std::vector<T>> : std::true_type {};

template <class E> E readEnum(const json& j, std::optional<E> value, const char* type) {
    if (!value)
        throw WireDecodingError(std::string("cannot initialize ") + type + " from invalid value " + j.dump());
    return *value;
}

// Any wire value: primitives, lists, persisted records (their own tolerant readers, but the value must
// be an object), signal-processing records and the wire's own records.
template <class T> T read(const json& j);

template <class T> std::vector<T> readArray(const json& j) {
    if (!j.is_array())
        typeMismatch("an array", j);
    std::vector<T> out;
    out.reserve(j.size());
    for (std::size_t i = 0; i < j.size(); ++i) {
        try {
            out.push_back(read<T>(j[i]));
        } catch (const WireDecodingError& e) {
            throw WireDecodingError("[" + std::to_string(i) + "]: " + e.what());
        }
    }
    return out;
}

template <class T> T read(const json& j) {
    if constexpr (std::is_same_v<T, bool>)
        return readBool(j);
    else if constexpr (std::is_same_v<T, double>)
        return readDouble(j);
    else if constexpr (std::is_same_v<T, float>)
        return readFloat(j);
    else if constexpr (std::is_same_v<T, std::int64_t>)
        return readInt(j);
    else if constexpr (std::is_same_v<T, std::uint64_t>)
        return readUInt64(j);
    else if constexpr (std::is_same_v<T, std::string>)
        return readString(j);
    else if constexpr (IsVector<T>::value)
        return readArray<typename T::value_type>(j);
    else if constexpr (std::is_same_v<T, HealthEvent>)
        return readHealthEvent(j);
    else if constexpr (std::is_same_v<T, DeviceLiveStatus::Transport>)
        return readEnum(j, transportFromName(readString(j)), "Transport");
    else if constexpr (std::is_same_v<T, AudioOnset::Kind>)
        return readEnum(j, onsetKindFromName(readString(j)), "Kind");
    else {
        requireObject(j);
        try {
            if constexpr (std::is_same_v<T, kavore::ChainSettings>)
                return kavore::chainSettingsFromJSON(j);
            else if constexpr (std::is_same_v<T, kavore::LevelerSettings>)
                return kavore::levelerSettingsFromJSON(j);
            else if constexpr (std::is_same_v<T, kavore::GlobalListeningSettings>)
                return kavore::globalListeningSettingsFromJSON(j);
            else if constexpr (std::is_same_v<T, kavore::EQPreset>)
                return kavore::eqPresetFromJSON(j);
            else if constexpr (std::is_same_v<T, kavore::AUComponentKey>)
                return kavore::auComponentKeyFromJSON(j);
            else
                return j.get<T>();
        } catch (const WireDecodingError&) {
            throw;
        } catch (const std::exception& e) {
            throw WireDecodingError(e.what());
        }
    }
}

// A required key.
template <class T> void readField(const json& object, const char* key, T& out) {
    const auto it = object.find(key);
    if (it == object.end())
        throw WireDecodingError(std::string("missing required key \"") + key + "\"");
    try {
        out = read<T>(*it);
    } catch (const WireDecodingError& e) {
        throw WireDecodingError(std::string(key) + ": " + e.what());
    }
}

// An optional key: absent or null leaves nothing.
template <class T> void readField(const json& object, const char* key, std::optional<T>& out) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) {
        out.reset();
        return;
    }
    T value{};
    readField(object, key, value);
    out = std::move(value);
}

template <class T> json write(const T& value) {
    if constexpr (std::is_same_v<T, float>)
        return floatValue(value);
    else if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, double> ||
                       std::is_same_v<T, std::int64_t> || std::is_same_v<T, std::uint64_t> ||
                       std::is_same_v<T, std::string>)
        return json(value);
    else if constexpr (IsVector<T>::value) {
        json out = json::array();
        for (const auto& element : value)
            out.push_back(write(element));
        return out;
    } else if constexpr (std::is_same_v<T, HealthEvent>)
        return healthEventJSON(value);
    else if constexpr (std::is_same_v<T, DeviceLiveStatus::Transport>)
        return json(transportName(value));
    else if constexpr (std::is_same_v<T, AudioOnset::Kind>)
        return json(onsetKindName(value));
    else if constexpr (std::is_same_v<T, kavore::ChainSettings> ||
                       std::is_same_v<T, kavore::LevelerSettings> ||
                       std::is_same_v<T, kavore::GlobalListeningSettings> ||
                       std::is_same_v<T, kavore::EQPreset> || std::is_same_v<T, kavore::AUComponentKey>)
        return kavore::toJSON(value);
    else
        return json(value);
}

template <class T> void writeField(json& object, const char* key, const T& value) {
    object[key] = write(value);
}
template <class T> void writeField(json& object, const char* key, const std::optional<T>& value) {
    if (value)
        object[key] = write(*value);
}

// Compact text of a document; throws WireEncodingError for a number that is not finite (naming where)
// or text that is not UTF-8.
std::string finishText(const json& document);
// Parses one whole document; throws WireDecodingError.
json parseText(std::string_view text);

// Runs `body`, putting `context` before the message of any decoding failure.
template <class F> auto withContext(std::string_view context, F&& body) {
    try {
        return body();
    } catch (const WireDecodingError& e) {
        throw WireDecodingError(std::string(context) + ": " + e.what());
    }
}

} // namespace tonavi::WireJSON

// Defines the JSON functions of a wire record from one list of its fields, written as
// `f("key", r.key);` statements, so that reading and writing cannot drift apart.
#define TONAVI_WIRE_RECORD(Type, ...)                                                                        \
    namespace {                                                                                              \
    template <class R, class F> void fieldsOf##Type(R& r, F&& f) {                                           \
        __VA_ARGS__                                                                                          \
    }                                                                                                        \
    }                                                                                                        \
    void to_json(nlohmann::json& j, const Type& value) {                                                     \
        j = nlohmann::json::object();                                                                        \
        fieldsOf##Type(value,                                                                                \
                       [&](const char* key, const auto& field) { WireJSON::writeField(j, key, field); });    \
    }                                                                                                        \
    void from_json(const nlohmann::json& j, Type& value) {                                                   \
        WireJSON::requireObject(j);                                                                          \
        fieldsOf##Type(value, [&](const char* key, auto& field) { WireJSON::readField(j, key, field); });    \
    }
