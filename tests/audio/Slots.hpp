#pragma once
// Effect slots for the chain and listening tests.

#include "audio/chain/ChainSettingsJSON.hpp"

#include <nlohmann/json.hpp>

#include <string>

namespace kavore::test {

// A slot whose settings bytes are given as they are stored.
inline EffectSlot rawSlot(const std::string& id, EffectKind kind, const std::string& bytes,
                          bool bypassed = false) {
    EffectSlot s;
    s.id = id;
    s.kind = kind;
    s.bypassed = bypassed;
    s.settingsJSON.assign(bytes.begin(), bytes.end());
    return s;
}

inline EffectSlot slot(const std::string& id, EffectKind kind, const nlohmann::json& settings,
                       bool bypassed = false) {
    return rawSlot(id, kind, settings.dump(), bypassed);
}

// A plug-in slot of the given component type ("aufx" is an effect).
inline EffectSlot auSlot(const std::string& id, const char* type = "aufx", bool bypassed = false) {
    EffectSlot s = rawSlot(id, EffectKind::audioUnit, "", bypassed);
    s.auComponent =
        AUComponentKey{fourCharCode(type), fourCharCode("abcd"), fourCharCode("tstm"), "FX", "Maker"};
    return s;
}

} // namespace kavore::test
