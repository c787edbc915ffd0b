#include "core/outputs/BluetoothReadThrottle.hpp"

namespace tonavi {

bool BluetoothReadThrottle::beginReadIfDue(double now) {
    if (readInFlight_ || (lastReadAt_ && now - *lastReadAt_ < intervalSeconds))
        return false;
    readInFlight_ = true;
    return true;
}

void BluetoothReadThrottle::finishRead(double now, std::map<std::string, BluetoothReading> result) {
    cache_ = std::move(result);
    lastReadAt_ = now;
    readInFlight_ = false;
}

std::optional<BluetoothReading> BluetoothReadThrottle::lookup(const std::string& mac) const {
    auto it = cache_.find(mac);
    return it == cache_.end() ? std::nullopt : std::optional<BluetoothReading>(it->second);
}

} // namespace tonavi
