#pragma once
// The chain the benchmarks, the file renderer and the allocation test run: every built-in effect at a
// working setting, and the overdrive stage at twice the gain.

#include "audio/effects/BalancePanSettingsJSON.hpp"
#include "audio/effects/EQPresets.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "audio/effects/NoiseSuppressorSettingsJSON.hpp"
#include "audio/headphone/BundledHeadphoneProfiles.hpp"
#include "audio/headphone/HeadphoneProfileJSON.hpp"
#include "tests/audio/AudioTestSupport.hpp"

namespace kavore::bench {

using test::slot;

inline ChainSettings fullChainSettings() {
    return {{slot("eq", EffectKind::eq10, toJSON(EQPresets::named("Rock")->settings)),
             slot("comp", EffectKind::compressor,
                  toJSON(CompressorSettings(0.6, CompressorVoicing::music, true))),
             slot("lev", EffectKind::magicBoost, toJSON(LevelerSettings(0.5, true))),
             slot("pan", EffectKind::balancePan, toJSON(BalancePanSettings(0.3, true))),
             slot("ns", EffectKind::noiseSuppressor, toJSON(NoiseSuppressorSettings(0.8, true))),
             slot("hp", EffectKind::headphoneEQ, toJSON(BundledHeadphoneProfiles::all().front()))},
            OverdriveSettings(2.0),
            false};
}

} // namespace kavore::bench
