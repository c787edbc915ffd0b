#pragma once
// A hosted effect component the catalogue knows about.

#include "audio/AUComponentKey.hpp"

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tonavi {

struct AudioUnitInfo {
    std::string id;
    kavore::AUComponentKey key;
    bool favorite = false;
    double lastScanAt = 0; // seconds since 1970

    bool operator==(const AudioUnitInfo&) const = default;
};

// All keys required when reading; throws WireDecodingError.
void to_json(nlohmann::json& j, const AudioUnitInfo& value);
void from_json(const nlohmann::json& j, AudioUnitInfo& value);

} // namespace tonavi
