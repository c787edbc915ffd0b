#pragma once
// Battery, codec and signal of Bluetooth devices, which the audio hardware layer does not know.
// Two sources: the platform's fast registry, read on each call, and a slow one (a child process)
// that is never waited for: a call answers from the last read's cache and at most starts a new
// read in the background, once every 30 seconds, one at a time.
//
// Locks and queues: `cacheLock` guards the read throttle and its cache; it is a leaf, released
// before a read is dispatched. Calls come from the runtime's hardware probe and its serial queue;
// the slow read runs on the global utility queue and holds this object strongly until it is done.

#include "base/Dispatch.hpp"
#include "core/outputs/BluetoothReadThrottle.hpp"
#include "core/outputs/BluetoothReading.hpp"
#include "platform/AudioHardware.hpp"
#include "service/devices/TonaviDeviceManager.hpp"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace tonavi {

class BluetoothInfo : public std::enable_shared_from_this<BluetoothInfo> {
  public:
    using Details = TonaviDeviceManager::BluetoothDetails;
    // The slow read: every device it knows by lower-case MAC; empty when it failed.
    using ProfilerRead = std::function<std::map<std::string, BluetoothReading>()>;

    // `hardware` must outlive this object. An empty `readProfiler` means there is no slow source.
    // Time for the throttle comes from `clock`; the read runs on `readQueue` (default: the global
    // utility queue).
    static std::shared_ptr<BluetoothInfo> make(AudioHardware& hardware, ProfilerRead readProfiler,
                                               std::shared_ptr<DispatchClock> clock,
                                               DispatchQueue* readQueue = nullptr);

    // The registry's answer for a lower-case MAC, or nothing when it does not list the device.
    std::optional<Details> registryDetails(const std::string& mac);
    // The cache's answer, never waiting; all unknown before the first read finished. The codec is
    // never known from this source.
    Details profilerDetails(const std::string& mac);
    // The registry's answer, its missing battery and quality filled from the slow source.
    Details details(const std::string& mac);
    // The closure the device manager's live status takes.
    TonaviDeviceManager::BluetoothInfo closure();

    // BlueZ's devices through `busctl` on the system bus, as a child process; empty when it
    // cannot run or says nothing readable.
    static std::map<std::string, BluetoothReading> readBlueZ();
    // Runs `argv` with standard output on a pipe and standard error discarded, and answers what
    // it wrote, or nothing when it could not start or did not exit with 0.
    static std::optional<std::string> runChild(const std::vector<std::string>& argv);

  private:
    BluetoothInfo(AudioHardware& hardware, ProfilerRead readProfiler, std::shared_ptr<DispatchClock> clock,
                  DispatchQueue& readQueue);
    double seconds() const;

    AudioHardware& hardware_;
    ProfilerRead readProfiler_;
    std::shared_ptr<DispatchClock> clock_;
    DispatchQueue& readQueue_;
    std::mutex cacheLock_;
    BluetoothReadThrottle throttle_;
};

} // namespace tonavi
