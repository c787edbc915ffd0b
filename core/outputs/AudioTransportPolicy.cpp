#include "core/outputs/AudioTransportPolicy.hpp"

namespace tonavi::AudioTransportPolicy {

bool preservesNegotiatedTiming(DeviceLiveStatus::Transport transport) {
    using T = DeviceLiveStatus::Transport;
    switch (transport) {
    case T::bluetooth:
    case T::airplay:
    case T::aggregate:
    case T::virtual_:
        return true;
    case T::builtin:
    case T::usb:
    case T::other:
        return false;
    }
    return false;
}

} // namespace tonavi::AudioTransportPolicy
