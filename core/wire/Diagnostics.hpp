#pragma once
// Everything a bug report needs in one record: the payload of the diagnostics request.

#include "core/config/TonaviConfig.hpp"
#include "core/engine/HealthEvent.hpp"
#include "core/wire/TonaviStatus.hpp"

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace tonavi {

struct Diagnostics {
    std::string version;
    double timestamp = 0; // seconds since 1970
    TonaviStatus status;
    TonaviConfig config;
    std::vector<HealthEvent> healthLog;
    std::int64_t auCount = 0;
    std::string os;

    bool operator==(const Diagnostics&) const = default;
};

// All keys required when reading; `config` itself reads tolerantly like the persisted file.
void to_json(nlohmann::json& j, const Diagnostics& value);
void from_json(const nlohmann::json& j, Diagnostics& value);

} // namespace tonavi
