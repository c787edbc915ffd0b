#include "platform/sim/SimDevice.hpp"

namespace tonavi {

bool SimDevice::isReadOnly(std::uint32_t selector) const {
    for (const auto& code : readOnly) {
        if (fourCharCodeFromString(code) == selector)
            return true;
    }
    return false;
}

std::uint32_t SimDevice::channels(bool input) const {
    std::uint32_t sum = 0;
    for (auto c : input ? inputStreams : outputStreams)
        sum += c;
    return sum;
}

} // namespace tonavi
