#pragma once
// Field access for records that read strictly: a missing key or a value of the wrong type raises
// JSONDecodeError. Used only by codec translation units, so the full JSON header is fine here.

#include "audio/json/JSONDecodeError.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kavore {

class StrictJSONReader {
  public:
    // Raises unless `j` is an object; `what` names the record in the message.
    explicit StrictJSONReader(const nlohmann::json& j, const char* what);

    const nlohmann::json& value(const char* key) const;
    // nullptr when the key is absent or null.
    const nlohmann::json* optionalValue(const char* key) const;

    std::string string(const char* key) const;
    bool boolean(const char* key) const;
    double number(const char* key) const;
    std::uint32_t uint32(const char* key) const;
    const nlohmann::json& object(const char* key) const;
    const nlohmann::json& array(const char* key) const;
    // Base64 text holding bytes.
    std::vector<std::uint8_t> bytes(const char* key) const;

    static double asNumber(const nlohmann::json& j, const std::string& where);
    static std::uint32_t asUInt32(const nlohmann::json& j, const std::string& where);
    static std::vector<std::uint8_t> asBytes(const nlohmann::json& j, const std::string& where);

  private:
    std::string where(const char* key) const;

    const nlohmann::json& json_;
    const char* what_;
};

} // namespace kavore
