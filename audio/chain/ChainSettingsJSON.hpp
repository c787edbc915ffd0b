#pragma once
// JSON of chains and their slots. Reading is strict: one bad slot fails the whole chain, and the
// caller falls back to ChainSettings::empty(). Byte fields travel as base64 text.

#include "audio/chain/AUComponentKey.hpp"
#include "audio/chain/ChainSettings.hpp"
#include "audio/chain/EffectKind.hpp"
#include "audio/chain/EffectSlot.hpp"
#include "audio/json/JSONDecodeError.hpp"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <vector>

namespace kavore {

nlohmann::json toJSON(EffectKind kind);
EffectKind effectKindFromJSON(const nlohmann::json& j);

nlohmann::json toJSON(const AUComponentKey& key);
AUComponentKey auComponentKeyFromJSON(const nlohmann::json& j);

nlohmann::json toJSON(const EffectSlot& slot);
EffectSlot effectSlotFromJSON(const nlohmann::json& j);

nlohmann::json toJSON(const ChainSettings& settings);
ChainSettings chainSettingsFromJSON(const nlohmann::json& j);

// The compact JSON text of a settings record, as bytes for EffectSlot::settingsJSON.
std::vector<std::uint8_t> settingsJSONBytes(const nlohmann::json& settings);

} // namespace kavore
