#include "core/wire/WireJSON.hpp"

#include <charconv>
#include <cmath>

namespace tonavi::WireJSON {

std::string describe(const json& j) {
    switch (j.type()) {
    case json::value_t::null:
        return "null";
    case json::value_t::boolean:
        return "a boolean";
    case json::value_t::string:
        return "a string";
    case json::value_t::array:
        return "an array";
    case json::value_t::object:
        return "an object";
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
        return "an integer";
    case json::value_t::number_float:
        return "a number";
    default:
        return "an unsupported value";
    }
}

void typeMismatch(const char* expected, const json& found) {
    throw WireDecodingError(std::string("expected ") + expected + ", found " + describe(found));
}

void requireObject(const json& j) {
    if (!j.is_object())
        typeMismatch("an object", j);
}

bool readBool(const json& j) {
    if (!j.is_boolean())
        typeMismatch("a boolean", j);
    return j.get<bool>();
}

double readDouble(const json& j) {
    if (!j.is_number())
        typeMismatch("a number", j);
    return j.get<double>();
}

float readFloat(const json& j) {
    const double value = readDouble(j);
    if (std::isfinite(value) && std::fabs(value) > static_cast<double>(std::numeric_limits<float>::max()))
        throw WireDecodingError("number " + j.dump() + " does not fit a 32-bit float");
    return static_cast<float>(value);
}

std::int64_t readInt(const json& j) {
    if (j.is_number_integer() && !j.is_number_unsigned())
        return j.get<std::int64_t>();
    if (j.is_number_unsigned()) {
        const auto value = j.get<std::uint64_t>();
        if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            throw WireDecodingError("integer " + j.dump() + " does not fit 64 signed bits");
        return static_cast<std::int64_t>(value);
    }
    if (j.is_number_float()) {
        const double value = j.get<double>();
        // 2^63 is exactly representable; anything at or above it does not fit.
        if (std::trunc(value) == value && value >= -9223372036854775808.0 && value < 9223372036854775808.0)
            return static_cast<std::int64_t>(value);
        throw WireDecodingError("number " + j.dump() + " is not an integer");
    }
    typeMismatch("an integer", j);
}

std::uint64_t readUInt64(const json& j) {
    if (j.is_number_unsigned())
        return j.get<std::uint64_t>();
    if (j.is_number_integer())
        throw WireDecodingError("integer " + j.dump() + " is negative");
    if (j.is_number_float()) {
        const double value = j.get<double>();
        if (std::trunc(value) == value && value >= 0 && value < 18446744073709551616.0)
            return static_cast<std::uint64_t>(value);
        throw WireDecodingError("number " + j.dump() + " is not an unsigned integer");
    }
    typeMismatch("an unsigned integer", j);
}

std::string readString(const json& j) {
    if (!j.is_string())
        typeMismatch("a string", j);
    return j.get<std::string>();
}

json floatValue(float value) {
    if (!std::isfinite(value))
        return json(static_cast<double>(value)); // refused by finishText with its path
    char text[32];
    const auto written = std::to_chars(text, text + sizeof text, value);
    double widened = 0;
    std::from_chars(text, written.ptr, widened);
    return json(widened);
}

json healthEventJSON(const HealthEvent& event) {
    return json{{"id", event.id}, {"at", event.at}, {"kind", event.kind}, {"detail", event.detail}};
}

HealthEvent readHealthEvent(const json& j) {
    requireObject(j);
    HealthEvent event;
    readField(j, "id", event.id);
    readField(j, "at", event.at);
    readField(j, "kind", event.kind);
    readField(j, "detail", event.detail);
    return event;
}

namespace {
void requireFinite(const json& j, std::string& path) {
    if (j.is_number_float()) {
        if (!std::isfinite(j.get<double>()))
            throw WireEncodingError("cannot encode a number that is not finite at " +
                                    (path.empty() ? "the top" : path));
    } else if (j.is_object()) {
        for (auto it = j.begin(); it != j.end(); ++it) {
            const std::size_t mark = path.size();
            if (mark != 0)
                path.push_back('.');
            path.append(it.key());
            requireFinite(it.value(), path);
            path.resize(mark);
        }
    } else if (j.is_array()) {
        for (std::size_t i = 0; i < j.size(); ++i) {
            const std::size_t mark = path.size();
            path.push_back('[');
            path.append(std::to_string(i));
            path.push_back(']');
            requireFinite(j[i], path);
            path.resize(mark);
        }
    }
}
} // namespace

std::string finishText(const json& document) {
    std::string path;
    requireFinite(document, path);
    try {
        return document.dump();
    } catch (const json::exception& e) {
        throw WireEncodingError(std::string("cannot encode: ") + e.what());
    }
}

json parseText(std::string_view text) {
    try {
        return json::parse(text.begin(), text.end());
    } catch (const json::exception& e) {
        throw WireDecodingError(std::string("The given data was not valid JSON: ") + e.what());
    }
}

} // namespace tonavi::WireJSON
