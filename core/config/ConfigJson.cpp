#include "core/config/ConfigJson.hpp"

#include "core/config/ConfigEncodeError.hpp"

#include <cmath>
#include <limits>

namespace tonavi::ConfigJson {

void fail(const std::string& what) {
    throw ConfigDecodeError(what);
}

void requireObject(const json& j, const char* record) {
    if (!j.is_object())
        fail(std::string(record) + ": expected an object");
}

bool asBool(const json& j) {
    if (!j.is_boolean())
        fail("expected a boolean");
    return j.get<bool>();
}

double asDouble(const json& j) {
    if (!j.is_number())
        fail("expected a number");
    const double value = j.get<double>();
    if (!std::isfinite(value))
        fail("number out of range");
    return value;
}

std::int64_t asInt(const json& j) {
    if (j.is_number_integer() && !j.is_number_unsigned())
        return j.get<std::int64_t>();
    if (j.is_number_unsigned()) {
        const auto value = j.get<std::uint64_t>();
        if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            fail("integer out of range");
        return static_cast<std::int64_t>(value);
    }
    if (j.is_number_float()) {
        const double value = j.get<double>();
        // 2^63 is exactly representable; anything at or beyond it does not fit.
        if (std::isfinite(value) && std::trunc(value) == value && value >= -9223372036854775808.0 &&
            value < 9223372036854775808.0)
            return static_cast<std::int64_t>(value);
        fail("expected an integer");
    }
    fail("expected an integer");
}

std::string asString(const json& j) {
    if (!j.is_string())
        fail("expected a string");
    return j.get<std::string>();
}

std::vector<std::string> asStringArray(const json& j) {
    if (!j.is_array())
        fail("expected an array of strings");
    std::vector<std::string> out;
    out.reserve(j.size());
    for (const auto& element : j)
        out.push_back(asString(element));
    return out;
}

std::map<std::string, double> asDoubleMap(const json& j) {
    if (!j.is_object())
        fail("expected an object of numbers");
    std::map<std::string, double> out;
    for (const auto& [key, value] : j.items())
        out.emplace(key, asDouble(value));
    return out;
}

namespace {
bool allFinite(const json& j) {
    switch (j.type()) {
    case json::value_t::number_float:
        return std::isfinite(j.get<double>());
    case json::value_t::array:
    case json::value_t::object:
        for (const auto& element : j)
            if (!allFinite(element))
                return false;
        return true;
    default:
        return true;
    }
}
} // namespace

std::string dumpForDisk(const json& j) {
    // A non-finite number would be written as null and silently lose the field on the next read.
    if (!allFinite(j))
        throw ConfigEncodeError("a number is not finite");
    try {
        return j.dump(2);
    } catch (const json::exception& e) {
        throw ConfigEncodeError(e.what());
    }
}

json parseBytes(std::string_view bytes) {
    try {
        return json::parse(bytes.begin(), bytes.end());
    } catch (const json::exception& e) {
        fail(e.what());
    }
}

} // namespace tonavi::ConfigJson
