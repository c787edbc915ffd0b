#include "base/Encoding.hpp"

#include <array>
#include <cctype>
#include <cstdio>
#include <random>
#include <sys/random.h>

namespace tonavi {

namespace {
constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int decodeChar(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}
}  // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        std::uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += alphabet[(v >> 6) & 63];
        out += alphabet[v & 63];
    }
    size_t rest = bytes.size() - i;
    if (rest == 1) {
        std::uint32_t v = bytes[i] << 16;
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += "==";
    } else if (rest == 2) {
        std::uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8);
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += alphabet[(v >> 6) & 63];
        out += '=';
    }
    return out;
}

std::string base64Encode(std::string_view text) {
    return base64Encode(std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(text.data()),
                                                      text.size()));
}

std::optional<Bytes> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    Bytes out;
    out.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        bool last = i + 4 == text.size();
        int a = decodeChar(text[i]), b = decodeChar(text[i + 1]);
        if (a < 0 || b < 0) return std::nullopt;
        char c3 = text[i + 2], c4 = text[i + 3];
        if (last && c3 == '=' && c4 == '=') {
            if (b & 0x0F) return std::nullopt;  // non-canonical padding bits
            out.push_back(static_cast<std::uint8_t>((a << 2) | (b >> 4)));
            break;
        }
        int c = decodeChar(c3);
        if (c < 0) return std::nullopt;
        if (last && c4 == '=') {
            if (c & 0x03) return std::nullopt;
            out.push_back(static_cast<std::uint8_t>((a << 2) | (b >> 4)));
            out.push_back(static_cast<std::uint8_t>(((b & 0x0F) << 4) | (c >> 2)));
            break;
        }
        int d = decodeChar(c4);
        if (d < 0) return std::nullopt;
        std::uint32_t v = (a << 18) | (b << 12) | (c << 6) | d;
        out.push_back(static_cast<std::uint8_t>(v >> 16));
        out.push_back(static_cast<std::uint8_t>(v >> 8));
        out.push_back(static_cast<std::uint8_t>(v));
    }
    return out;
}

std::string makeUUID() {
    std::array<std::uint8_t, 16> b{};
    if (getrandom(b.data(), b.size(), 0) != static_cast<ssize_t>(b.size())) {
        std::random_device rd;
        for (auto& x : b) x = static_cast<std::uint8_t>(rd());
    }
    b[6] = static_cast<std::uint8_t>((b[6] & 0x0F) | 0x40);  // version 4
    b[8] = static_cast<std::uint8_t>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
    char out[37];
    std::snprintf(out, sizeof out, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0],
                  b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return out;
}

bool isUUID(std::string_view t) {
    if (t.size() != 36) return false;
    for (size_t i = 0; i < t.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        char c = t[i];
        if (dash ? c != '-' : !std::isxdigit(static_cast<unsigned char>(c))) return false;
    }
    return true;
}

}  // namespace tonavi
