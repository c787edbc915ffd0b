#pragma once
// An application found on disk, for the client's picker.

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tonavi {

struct InstalledApp {
    std::string id; // the bundle identifier
    std::string name;
    std::string path;
    bool audioCapable = false;

    bool operator==(const InstalledApp&) const = default;
};

// All keys required when reading; throws WireDecodingError.
void to_json(nlohmann::json& j, const InstalledApp& value);
void from_json(const nlohmann::json& j, InstalledApp& value);

} // namespace tonavi
