#pragma once
// An application that has an audio process right now, as listed for the client.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace tonavi {

struct RunningApp {
    std::string bundleID;
    std::int64_t pid = 0;
    bool isRunning = false;
    std::optional<double> secondsSinceAudio;

    bool operator==(const RunningApp&) const = default;
};

// `secondsSinceAudio` is left out when absent. Reading is strict and throws WireDecodingError.
void to_json(nlohmann::json& j, const RunningApp& value);
void from_json(const nlohmann::json& j, RunningApp& value);

} // namespace tonavi
