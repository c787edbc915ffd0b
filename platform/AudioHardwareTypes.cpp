#include "platform/AudioHardwareTypes.hpp"

namespace tonavi {

std::string fourCharString(std::uint32_t code) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const auto c = static_cast<unsigned char>((code >> shift) & 0xFF);
        if (c < 32 || c > 126)
            return std::to_string(static_cast<std::int32_t>(code));
        text.push_back(static_cast<char>(c));
    }
    return "'" + text + "'";
}

std::uint32_t fourCharCodeFromString(const std::string& text) {
    if (text.size() != 4)
        return 0;
    std::uint32_t code = 0;
    for (char c : text)
        code = (code << 8) | static_cast<unsigned char>(c);
    return code;
}

} // namespace tonavi
