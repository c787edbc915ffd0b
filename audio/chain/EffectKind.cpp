#include "audio/chain/EffectKind.hpp"

#include <array>
#include <utility>

namespace kavore {

namespace {
constexpr std::array<std::pair<EffectKind, std::string_view>, 7> kNames{{
    {EffectKind::eq10, "eq10"},
    {EffectKind::compressor, "compressor"},
    {EffectKind::magicBoost, "magicBoost"},
    {EffectKind::headphoneEQ, "headphoneEQ"},
    {EffectKind::balancePan, "balancePan"},
    {EffectKind::noiseSuppressor, "noiseSuppressor"},
    {EffectKind::audioUnit, "audioUnit"},
}};
} // namespace

std::string_view effectKindName(EffectKind kind) {
    for (const auto& [k, name] : kNames)
        if (k == kind)
            return name;
    return "eq10";
}

std::optional<EffectKind> effectKindFromName(std::string_view name) {
    for (const auto& [k, n] : kNames)
        if (n == name)
            return k;
    return std::nullopt;
}

} // namespace kavore
