#pragma once
// JSON of the equaliser, compressor, leveler and overdrive settings and of EQ presets.
// Readers are strict: every key is required and a value of the wrong type raises JSONDecodeError.
// Amounts and the overdrive multiplier are kept as stored; the EQ record normalises itself.

#include "audio/effects/CompressorSettings.hpp"
#include "audio/effects/EQ10Settings.hpp"
#include "audio/effects/EQPreset.hpp"
#include "audio/effects/LevelerSettings.hpp"
#include "audio/effects/OverdriveSettings.hpp"
#include "audio/json/JSONDecodeError.hpp"

#include <nlohmann/json_fwd.hpp>

namespace kavore {

nlohmann::json toJSON(const EQ10Settings& settings);
EQ10Settings eq10SettingsFromJSON(const nlohmann::json& j);

nlohmann::json toJSON(const CompressorSettings& settings);
CompressorSettings compressorSettingsFromJSON(const nlohmann::json& j);

nlohmann::json toJSON(const LevelerSettings& settings);
LevelerSettings levelerSettingsFromJSON(const nlohmann::json& j);

nlohmann::json toJSON(const OverdriveSettings& settings);
OverdriveSettings overdriveSettingsFromJSON(const nlohmann::json& j);

nlohmann::json toJSON(const EQPreset& preset);
EQPreset eqPresetFromJSON(const nlohmann::json& j);

} // namespace kavore
