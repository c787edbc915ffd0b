#include "core/outputs/BluetoothFacts.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>

namespace tonavi::BluetoothFacts {

namespace {

bool isHex(char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

char lower(char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

// Six hexadecimal pairs joined by `separator` at the start of `text`.
bool isAddressAt(std::string_view text, char separator) {
    if (text.size() < 17)
        return false;
    for (std::size_t i = 0; i < 17; ++i)
        if (i % 3 == 2 ? text[i] != separator : !isHex(text[i]))
            return false;
    return true;
}

std::string lowerWithColons(std::string_view text) {
    std::string out(text);
    for (auto& c : out)
        c = (c == '-' || c == '_') ? ':' : lower(c);
    return out;
}

} // namespace

std::optional<std::string> quality(std::optional<std::int64_t> rssi) {
    if (!rssi)
        return std::nullopt;
    if (*rssi >= -59)
        return "strong";
    if (*rssi >= -74)
        return "fair";
    return "weak";
}

std::optional<std::int64_t> percent(std::string_view text) {
    std::string digits;
    for (char c : text)
        if (c != '%')
            digits += c;
    std::int64_t value = 0;
    const char* end = digits.data() + digits.size();
    auto [ptr, ec] = std::from_chars(digits.data(), end, value);
    if (digits.empty() || ec != std::errc() || ptr != end)
        return std::nullopt;
    return value;
}

std::optional<std::int64_t> battery(std::optional<std::string_view> left,
                                    std::optional<std::string_view> right,
                                    std::optional<std::string_view> level,
                                    std::optional<std::string_view> main) {
    auto read = [](std::optional<std::string_view> text) {
        return text ? percent(*text) : std::optional<std::int64_t>();
    };
    const auto l = read(left);
    const auto r = read(right);
    if (l && r)
        return std::min(*l, *r);
    if (auto value = read(level))
        return value;
    return read(main);
}

std::string macFromUID(std::string_view uid) {
    std::string_view first;
    for (std::size_t start = 0; start <= uid.size();) {
        const std::size_t end = std::min(uid.find(':', start), uid.size());
        if (end > start) {
            first = uid.substr(start, end - start);
            break;
        }
        start = end + 1;
    }
    const std::string mac = lowerWithColons(first);
    if (isAddressAt(mac, ':'))
        return mac;
    for (std::size_t i = 0; i + 17 <= uid.size(); ++i)
        if ((i == 0 || !isHex(uid[i - 1])) && isAddressAt(uid.substr(i), '_') &&
            (i + 17 == uid.size() || !isHex(uid[i + 17])))
            return lowerWithColons(uid.substr(i, 17));
    return mac;
}

std::optional<std::string> macFromBytes(const std::vector<std::uint8_t>& bytes) {
    if (bytes.size() != 6)
        return std::nullopt;
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2], bytes[3],
                  bytes[4], bytes[5]);
    return std::string(text);
}

std::map<std::string, BluetoothReading> parseBlueZObjects(std::string_view text) {
    using nlohmann::json;
    std::map<std::string, BluetoothReading> result;
    const json root = json::parse(text, nullptr, false);
    if (!root.is_object() || !root.contains("data") || !root["data"].is_array() || root["data"].empty() ||
        !root["data"][0].is_object())
        return result;
    // Each property is {"type": ..., "data": value}.
    auto value = [](const json& interface, const char* name) -> const json* {
        if (!interface.is_object() || !interface.contains(name) || !interface[name].is_object() ||
            !interface[name].contains("data"))
            return nullptr;
        return &interface[name]["data"];
    };
    for (const auto& [path, interfaces] : root["data"][0].items()) {
        if (!interfaces.is_object() || !interfaces.contains("org.bluez.Device1"))
            continue;
        const json* address = value(interfaces["org.bluez.Device1"], "Address");
        if (!address || !address->is_string())
            continue;
        BluetoothReading reading;
        if (const json* rssi = value(interfaces["org.bluez.Device1"], "RSSI");
            rssi && rssi->is_number_integer())
            reading.rssi = rssi->get<std::int64_t>();
        if (interfaces.contains("org.bluez.Battery1"))
            if (const json* level = value(interfaces["org.bluez.Battery1"], "Percentage");
                level && level->is_number_integer())
                reading.battery = level->get<std::int64_t>();
        result[lowerWithColons(address->get<std::string>())] = reading;
    }
    return result;
}

} // namespace tonavi::BluetoothFacts
