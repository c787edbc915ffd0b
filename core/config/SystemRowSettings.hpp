#pragma once
// Settings of the mixer's system row: sound effects routing, input metering and the system chain.

#include "audio/chain/ChainSettings.hpp"
#include "audio/effects/LevelerSettings.hpp"

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tonavi {

enum class InputMeteringMode { passive, active, disabled };

struct SystemRowSettings {
    std::string soundEffectsDeviceUID;
    bool soundEffectsFollowsOutput = false;
    InputMeteringMode inputMetering = InputMeteringMode::passive;
    kavore::ChainSettings systemChain = kavore::ChainSettings::empty();
    kavore::LevelerSettings systemMagicBoost = kavore::LevelerSettings::off();

    static SystemRowSettings defaults() { return SystemRowSettings(); }

    bool operator==(const SystemRowSettings&) const = default;
};

void to_json(nlohmann::json& j, const SystemRowSettings& value);
void from_json(const nlohmann::json& j, SystemRowSettings& value);

} // namespace tonavi
