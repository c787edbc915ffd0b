#pragma once
// A rig file: a configuration of this mixer, with room for the configuration of the sibling
// multichannel product, which is carried along unread.

#include "core/config/TonaviConfig.hpp"

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace tonavi {

struct RigFile {
    std::int64_t formatVersion = currentFormatVersion;
    std::optional<TonaviConfig> tonavi;
    // The sibling product's configuration as compact JSON text, exactly as it was read.
    std::optional<std::string> kavore;

    static constexpr std::int64_t currentFormatVersion = 1;

    bool operator==(const RigFile&) const = default;
};

void to_json(nlohmann::json& j, const RigFile& value);
// Strict: `formatVersion` is required; a `tonavi` or `kavore` key that is present must read.
void from_json(const nlohmann::json& j, RigFile& value);

} // namespace tonavi
