#pragma once
// The one format the backend's streams speak: interleaved 32-bit float at the graph's rate.
// Included only by the backend's own sources (it pulls in SPA headers).

#include <cstdint>

#include <spa/param/audio/format-utils.h>
#include <spa/pod/builder.h>

namespace tonavi {

inline const spa_pod* buildFloatFormat(spa_pod_builder& builder, std::uint32_t channels, std::uint32_t rate) {
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32;
    info.rate = rate;
    info.channels = channels;
    if (channels == 2) {
        info.position[0] = SPA_AUDIO_CHANNEL_FL;
        info.position[1] = SPA_AUDIO_CHANNEL_FR;
    } else if (channels == 1) {
        info.position[0] = SPA_AUDIO_CHANNEL_MONO;
    } else {
        info.flags = SPA_AUDIO_FLAG_UNPOSITIONED;
    }
    return spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info);
}

} // namespace tonavi
