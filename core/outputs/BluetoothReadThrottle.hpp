#pragma once
// When the slow Bluetooth source is read again, and what the last read said. A read is started at
// most once every 30 seconds, never while one is in flight, and a failed read counts as a read so
// that it is not retried at once. Callers hold their own lock around it; times are seconds on any
// steady clock.

#include "core/outputs/BluetoothReading.hpp"

#include <map>
#include <optional>
#include <string>

namespace tonavi {

class BluetoothReadThrottle {
  public:
    static constexpr double intervalSeconds = 30.0;

    // True when a read should start now; the read is then in flight until finishRead.
    bool beginReadIfDue(double now);
    void finishRead(double now, std::map<std::string, BluetoothReading> result);
    // The last read's answer for a lower-case MAC; nothing before the first read finished.
    std::optional<BluetoothReading> lookup(const std::string& mac) const;
    bool readInFlight() const { return readInFlight_; }

  private:
    std::map<std::string, BluetoothReading> cache_;
    std::optional<double> lastReadAt_;
    bool readInFlight_ = false;
};

} // namespace tonavi
