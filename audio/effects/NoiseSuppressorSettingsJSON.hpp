#pragma once
// JSON of the noise suppressor settings: {"amount": number, "enabled": bool}. Reading is strict
// (both keys required, JSONDecodeError otherwise) and keeps the stored amount unclamped.

#include "audio/effects/NoiseSuppressorSettings.hpp"
#include "audio/json/JSONDecodeError.hpp"

#include <nlohmann/json_fwd.hpp>

namespace kavore {

nlohmann::json toJSON(const NoiseSuppressorSettings& settings);
NoiseSuppressorSettings noiseSuppressorSettingsFromJSON(const nlohmann::json& j);

} // namespace kavore
