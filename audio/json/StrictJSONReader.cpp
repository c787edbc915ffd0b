#include "audio/json/StrictJSONReader.hpp"

#include "base/Encoding.hpp"

#include <cmath>

namespace kavore {

StrictJSONReader::StrictJSONReader(const nlohmann::json& j, const char* what) : json_(j), what_(what) {
    if (!j.is_object())
        throw JSONDecodeError(std::string(what) + ": expected an object");
}

std::string StrictJSONReader::where(const char* key) const {
    return std::string(what_) + "." + key;
}

const nlohmann::json& StrictJSONReader::value(const char* key) const {
    const auto it = json_.find(key);
    if (it == json_.end())
        throw JSONDecodeError(where(key) + ": missing key");
    return *it;
}

const nlohmann::json* StrictJSONReader::optionalValue(const char* key) const {
    const auto it = json_.find(key);
    if (it == json_.end() || it->is_null())
        return nullptr;
    return &*it;
}

std::string StrictJSONReader::string(const char* key) const {
    const auto& v = value(key);
    if (!v.is_string())
        throw JSONDecodeError(where(key) + ": expected a string");
    return v.get<std::string>();
}

bool StrictJSONReader::boolean(const char* key) const {
    const auto& v = value(key);
    if (!v.is_boolean())
        throw JSONDecodeError(where(key) + ": expected a boolean");
    return v.get<bool>();
}

double StrictJSONReader::number(const char* key) const {
    return asNumber(value(key), where(key));
}

std::uint32_t StrictJSONReader::uint32(const char* key) const {
    return asUInt32(value(key), where(key));
}

const nlohmann::json& StrictJSONReader::object(const char* key) const {
    const auto& v = value(key);
    if (!v.is_object())
        throw JSONDecodeError(where(key) + ": expected an object");
    return v;
}

const nlohmann::json& StrictJSONReader::array(const char* key) const {
    const auto& v = value(key);
    if (!v.is_array())
        throw JSONDecodeError(where(key) + ": expected an array");
    return v;
}

std::vector<std::uint8_t> StrictJSONReader::bytes(const char* key) const {
    return asBytes(value(key), where(key));
}

double StrictJSONReader::asNumber(const nlohmann::json& j, const std::string& where) {
    if (!j.is_number())
        throw JSONDecodeError(where + ": expected a number");
    return j.get<double>();
}

std::uint32_t StrictJSONReader::asUInt32(const nlohmann::json& j, const std::string& where) {
    if (j.is_number_unsigned()) {
        const auto v = j.get<std::uint64_t>();
        if (v <= 0xFFFFFFFFull)
            return static_cast<std::uint32_t>(v);
    } else if (j.is_number_integer()) {
        const auto v = j.get<std::int64_t>();
        if (v >= 0 && v <= 0xFFFFFFFFll)
            return static_cast<std::uint32_t>(v);
    } else if (j.is_number_float()) {
        const double v = j.get<double>();
        if (v >= 0.0 && v <= 4294967295.0 && std::floor(v) == v)
            return static_cast<std::uint32_t>(v);
    }
    throw JSONDecodeError(where + ": expected an unsigned 32-bit integer");
}

std::vector<std::uint8_t> StrictJSONReader::asBytes(const nlohmann::json& j, const std::string& where) {
    if (!j.is_string())
        throw JSONDecodeError(where + ": expected base64 text");
    auto decoded = tonavi::base64Decode(j.get_ref<const std::string&>());
    if (!decoded)
        throw JSONDecodeError(where + ": invalid base64");
    return std::move(*decoded);
}

} // namespace kavore
