#pragma once
// Identifies a hosted Audio Unit by its three four-character codes, with names for display.

#include <cstdint>
#include <string>
#include <string_view>

namespace kavore {

// "aufx" -> 0x61756678: the first character is the most significant byte.
constexpr std::uint32_t fourCharCode(std::string_view code) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value = (value << 8) | static_cast<std::uint8_t>(i < code.size() ? code[i] : ' ');
    return value;
}

struct AUComponentKey {
    std::uint32_t type = 0;
    std::uint32_t subtype = 0;
    std::uint32_t manufacturer = 0;
    std::string name;
    std::string manufacturerName;

    bool operator==(const AUComponentKey&) const = default;
};

} // namespace kavore
