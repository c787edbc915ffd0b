#include "audio/chain/RenderChain.hpp"

#include "audio/effects/BalancePan.hpp"
#include "audio/effects/BalancePanSettingsJSON.hpp"
#include "audio/effects/EQ10.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "audio/effects/MagicLeveler.hpp"
#include "audio/effects/NoiseSuppressor.hpp"
#include "audio/effects/NoiseSuppressorSettingsJSON.hpp"
#include "audio/effects/OneKnobCompressor.hpp"
#include "audio/headphone/HeadphoneEQ.hpp"
#include "audio/headphone/HeadphoneProfileJSON.hpp"

#include <nlohmann/json.hpp>

#include <exception>
#include <utility>

namespace kavore {

namespace {

// Decodes a slot's settings bytes with the kind's strict reader. Any failure, from bytes that
// are not JSON to a missing key, yields nothing and the caller uses the neutral settings.
template <typename Settings, typename Decode>
std::optional<Settings> decodeSettings(const std::vector<std::uint8_t>& bytes, Decode decode) {
    const auto json = nlohmann::json::parse(bytes.begin(), bytes.end(), nullptr, /*allow_exceptions=*/false);
    if (json.is_discarded())
        return std::nullopt;
    try {
        return decode(json);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

} // namespace

RenderChain::RenderChain() : bridge_(std::make_shared<AUBridge>()) {}

bool RenderChain::matches(const ChainSettings& settings, double sampleRate) const {
    return appliedSettings_ && *appliedSettings_ == settings && appliedSampleRate_ == sampleRate;
}

void RenderChain::configure(const ChainSettings& settings, double sampleRate) {
    if (matches(settings, sampleRate))
        return;
    appliedSettings_ = settings;
    appliedSampleRate_ = sampleRate;
    ++rebuildCount_;

    processors_.clear();
    slotIDs_.clear();
    for (const auto& slot : settings.slots)
        slotIDs_.push_back(slot.id);
    chainBypassed_ = settings.bypassed;

    for (const auto& slot : settings.slots) {
        if (slot.bypassed)
            continue;
        processors_.push_back(makeProcessor(slot, sampleRate));
    }

    overdrive_.configure(settings.overdrive, sampleRate, 0.0, false);
    overdriveActive_ = settings.overdrive.multiplier > 1.001;
}

RenderChain::Processor RenderChain::makeProcessor(const EffectSlot& slot, double sampleRate) const {
    Processor p{slot.id, slot.kind, nullptr, [] { return 0; }};
    switch (slot.kind) {
    case EffectKind::eq10: {
        auto eq = std::make_shared<EQ10>();
        eq->configure(decodeSettings<EQ10Settings>(slot.settingsJSON, eq10SettingsFromJSON)
                          .value_or(EQ10Settings::flat()),
                      sampleRate);
        p.process = [eq](std::span<float> buffer) { eq->process(buffer); };
        break;
    }
    case EffectKind::compressor: {
        auto comp = std::make_shared<OneKnobCompressor>();
        comp->configure(decodeSettings<CompressorSettings>(slot.settingsJSON, compressorSettingsFromJSON)
                            .value_or(CompressorSettings::off()),
                        sampleRate);
        p.process = [comp](std::span<float> buffer) { comp->process(buffer); };
        break;
    }
    case EffectKind::magicBoost: {
        auto leveler = std::make_shared<MagicLeveler>();
        leveler->configure(decodeSettings<LevelerSettings>(slot.settingsJSON, levelerSettingsFromJSON)
                               .value_or(LevelerSettings::off()),
                           sampleRate);
        p.process = [leveler](std::span<float> buffer) { leveler->process(buffer); };
        p.latency = [leveler] { return leveler->latencySamples(); };
        break;
    }
    case EffectKind::headphoneEQ: {
        auto hp = std::make_shared<HeadphoneEQ>();
        const auto profile = decodeSettings<HeadphoneProfile>(slot.settingsJSON, headphoneProfileFromJSON);
        // An unreadable profile leaves the filter set disabled.
        hp->configure(profile ? &*profile : nullptr, sampleRate, profile.has_value());
        p.process = [hp](std::span<float> buffer) { hp->process(buffer); };
        break;
    }
    case EffectKind::balancePan: {
        auto pan = std::make_shared<BalancePan>();
        pan->configure(decodeSettings<BalancePanSettings>(slot.settingsJSON, balancePanSettingsFromJSON)
                           .value_or(BalancePanSettings::off()));
        p.process = [pan](std::span<float> buffer) { pan->processInterleavedStereo(buffer); };
        break;
    }
    case EffectKind::noiseSuppressor: {
        auto ns = std::make_shared<NoiseSuppressor>();
        ns->configure(
            decodeSettings<NoiseSuppressorSettings>(slot.settingsJSON, noiseSuppressorSettingsFromJSON)
                .value_or(NoiseSuppressorSettings::off()),
            sampleRate);
        p.process = [ns](std::span<float> buffer) { ns->process(buffer); };
        break;
    }
    case EffectKind::audioUnit: {
        // No processor here: the slot renders through the host's bridge, reached weakly.
        std::weak_ptr<AUBridge> bridge = bridge_;
        p.process = [bridge, id = slot.id](std::span<float> buffer) {
            if (const auto b = bridge.lock(); b && b->render)
                b->render(id, buffer);
        };
        p.latency = [bridge, id = slot.id] {
            if (const auto b = bridge.lock(); b && b->latency)
                return b->latency(id);
            return 0;
        };
        break;
    }
    }
    return p;
}

void RenderChain::process(std::span<float> buffer) {
    if (chainBypassed_)
        return;
    for (const auto& p : processors_)
        p.process(buffer);
    if (overdriveActive_ && overdrive_.active())
        overdrive_.process(buffer);
}

int RenderChain::latencySamples() const {
    if (chainBypassed_)
        return 0;
    int total = 0;
    for (const auto& p : processors_)
        total += p.latency();
    if (overdriveActive_ && overdrive_.active())
        total += static_cast<int>(overdrive_.lookaheadFrames());
    return total;
}

void RenderChain::setExternalAURender(AURender render) {
    bridge_->render = std::move(render);
}

void RenderChain::setExternalAULatencySamples(AULatency latency) {
    bridge_->latency = std::move(latency);
}

} // namespace kavore
