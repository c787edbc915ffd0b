#pragma once
// Base64 (standard alphabet, padded) and UUID helpers.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi {

using Bytes = std::vector<std::uint8_t>;

std::string base64Encode(std::span<const std::uint8_t> bytes);
std::string base64Encode(std::string_view text);
// nullopt on any character outside the alphabet or a bad length or padding.
std::optional<Bytes> base64Decode(std::string_view text);

// A random (version 4) UUID in upper case, e.g. "0F8D3C1A-...".
std::string makeUUID();
bool isUUID(std::string_view text);

}  // namespace tonavi
