#pragma once
// The kinds of effect a chain slot can hold. The JSON value of each kind is its case name.

#include <optional>
#include <string_view>

namespace kavore {

enum class EffectKind { eq10, compressor, magicBoost, headphoneEQ, balancePan, noiseSuppressor, audioUnit };

std::string_view effectKindName(EffectKind kind);
// nullopt for any text that is not exactly one of the case names.
std::optional<EffectKind> effectKindFromName(std::string_view name);

} // namespace kavore
