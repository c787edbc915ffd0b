#pragma once
// Maps a rendered stereo frame onto one channel of an output device: a mono device gets the
// average, a stereo or wider device gets left and right on its first two channels.

namespace kavore::ProcessTapOutputMapper {

inline float sample(float left, float right, int channel, int destinationChannels) {
    if (channel < 0 || channel >= destinationChannels) {
        return 0.0f;
    }
    if (destinationChannels == 1) {
        return (left + right) * 0.5f;
    }
    if (channel == 0) {
        return left;
    }
    if (channel == 1) {
        return right;
    }
    return 0.0f;
}

} // namespace kavore::ProcessTapOutputMapper
