#include "core/wire/TonaviStatus.hpp"
#include "core/wire/WireJSON.hpp"

namespace tonavi {

TONAVI_WIRE_RECORD(TonaviStatus, f("stageMode", r.stageMode); f("anyEngaged", r.anyEngaged);
                   f("engagedCount", r.engagedCount); f("apps", r.apps); f("devices", r.devices);
                   f("defaultOutputUID", r.defaultOutputUID); f("defaultInputUID", r.defaultInputUID);
                   f("soundEffectsUID", r.soundEffectsUID); f("outputVolume", r.outputVolume);
                   f("outputMuted", r.outputMuted); f("outputVolumeIsSoft", r.outputVolumeIsSoft);
                   f("manualDuckOn", r.manualDuckOn); f("sampleRate", r.sampleRate);
                   f("bufferFrames", r.bufferFrames); f("health", r.health);
                   f("recentOnsets", r.recentOnsets); f("smartLive", r.smartLive);
                   f("soloAppIDs", r.soloAppIDs); f("soloUnmutedAppIDs", r.soloUnmutedAppIDs);)

std::string encodeStatus(const TonaviStatus& status) {
    return WireJSON::finishText(nlohmann::json(status));
}

TonaviStatus decodeStatus(std::string_view text) {
    return WireJSON::read<TonaviStatus>(WireJSON::parseText(text));
}

} // namespace tonavi
