#pragma once
// One moment something started to sound: an application, an alert or an output device.

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace tonavi {

struct AudioOnset {
    enum class Kind { app, alert, output };

    std::string id;
    double startedAt = 0; // seconds since 1970
    std::optional<Kind> kind;
    std::optional<std::string> frontmostAppID;
    std::optional<std::string> label;

    bool operator==(const AudioOnset&) const = default;
};

std::string_view onsetKindName(AudioOnset::Kind kind);
// nullopt for any other text.
std::optional<AudioOnset::Kind> onsetKindFromName(std::string_view name);

// Optional fields are left out when absent. Reading is strict and throws WireDecodingError.
void to_json(nlohmann::json& j, const AudioOnset& value);
void from_json(const nlohmann::json& j, AudioOnset& value);

} // namespace tonavi
