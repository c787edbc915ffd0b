#include "core/wire/AppLiveStatus.hpp"
#include "core/wire/WireJSON.hpp"

namespace tonavi {

TONAVI_WIRE_RECORD(AppLiveStatus, f("id", r.id); f("displayName", r.displayName); f("pid", r.pid);
                   f("isRunning", r.isRunning); f("isPlayingAudio", r.isPlayingAudio);
                   f("isCapturingAudio", r.isCapturingAudio);
                   f("hasRecentAudioSignal", r.hasRecentAudioSignal);
                   f("secondsSinceAudio", r.secondsSinceAudio); f("engaged", r.engaged);
                   f("directLocked", r.directLocked); f("level", r.level);
                   f("addedLatencyMS", r.addedLatencyMS); f("addedLatencySamples", r.addedLatencySamples);
                   f("volume", r.volume); f("muted", r.muted); f("boost", r.boost);
                   f("redirectUID", r.redirectUID); f("tapSourceUID", r.tapSourceUID);
                   f("tapOutputUID", r.tapOutputUID); f("displayRank", r.displayRank);
                   f("userControlled", r.userControlled); f("steadyVolume", r.steadyVolume);
                   f("isUserApp", r.isUserApp); f("audioCapable", r.audioCapable); f("soloed", r.soloed);
                   f("controlIssue", r.controlIssue);)

} // namespace tonavi
