#pragma once
// Shared pieces of the platform tests: typed property reads, the preset's device UIDs, process lookup
// on the simulated machine, a tap read by an aggregate, and a listener that records what it heard and on
// which queue.

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "platform/sim/SimMachine.hpp"
#include "tests/platform/support/Eventually.hpp"
#include "tests/platform/support/ToneLevel.hpp"
#include "tests/support/TempFolder.hpp"

namespace tonavi::test {

inline constexpr const char* speakersUID = "BuiltInSpeakerDevice";
inline constexpr const char* usbUID = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
inline constexpr const char* budsUID = "AC-DE-48-00-11-22:output";

// A property's value, or nothing when the read fails.
template <class T>
std::optional<T> read(AudioHardware& audio, AudioObjectID object, const AudioObjectPropertyAddress& address) {
    T value{};
    return audio.get(object, address, value) == noErr ? std::optional<T>(value) : std::nullopt;
}
inline AudioObjectPropertyAddress outputAddress(AudioObjectPropertySelector selector,
                                                AudioObjectPropertyElement element = 0) {
    return scopedAddress(selector, kAudioObjectPropertyScopeOutput, element);
}

// An aggregate of `members`, the first its clock; the others (or all, with `driftAll`) drift-corrected.
inline AggregateDeviceDescription groupOf(const std::string& uid, const std::vector<std::string>& members,
                                          bool driftAll = false) {
    AggregateDeviceDescription group;
    group.uid = uid;
    group.name = "Test group";
    group.mainSubDevice = members.front();
    for (std::size_t i = 0; i < members.size(); ++i)
        group.subDevices.push_back({members[i], driftAll || i > 0});
    return group;
}

// A private tap of `description` read by a private aggregate of `subDevices`, the first its clock: the
// aggregate, or 0 when either is refused.
inline AudioObjectID tapAggregate(AudioHardware& audio, TapDescription description,
                                  const std::vector<std::string>& subDevices,
                                  AudioObjectID* tapID = nullptr) {
    description.isPrivate = true;
    AudioObjectID tap = 0, device = 0;
    auto d = groupOf("agg." + description.uuid, subDevices, true);
    d.isPrivate = true;
    d.taps = {{description.uuid, true}};
    if (audio.createProcessTap(description, tap) != noErr || audio.createAggregateDevice(d, device) != noErr)
        return 0;
    if (tapID)
        *tapID = tap;
    return device;
}
// An IO proc created and started on the device, or 0.
inline AudioDeviceIOProcID startIO(AudioHardware& audio, AudioObjectID device, AudioDeviceIOBlock block,
                                   DispatchQueue* queue = nullptr) {
    AudioDeviceIOProcID proc = 0;
    return audio.createIOProcIDWithBlock(device, queue, std::move(block), proc) == noErr &&
                   audio.deviceStart(device, proc) == noErr
               ? proc
               : 0;
}

// The process object of a running application on a simulated machine, or 0.
inline AudioObjectID processOf(SimMachine& machine, const std::string& bundleID) {
    const auto world = machine.world();
    for (const auto& p : world->processes)
        if (p.bundleID == bundleID)
            return p.id;
    return 0;
}

// Records each delivery: the addresses, and whether it ran on the queue it was registered with.
class RecordingListener {
  public:
    explicit RecordingListener(DispatchQueue& queue) : queue_(queue) {}
    bool waitForCalls(int count, std::chrono::seconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return calls_ >= count; });
    }
    int calls() const { return calls_; }
    int offQueue() const { return offQueue_; }
    std::vector<AudioObjectPropertyAddress> heard() {
        std::lock_guard<std::mutex> guard(mutex_);
        return heard_;
    }

    AudioObjectPropertyListenerBlock block =
        std::make_shared<const std::function<void(std::span<const AudioObjectPropertyAddress>)>>(
            [this](std::span<const AudioObjectPropertyAddress> addresses) {
                std::lock_guard<std::mutex> guard(mutex_);
                offQueue_ += queue_.isCurrent() ? 0 : 1;
                heard_.insert(heard_.end(), addresses.begin(), addresses.end());
                calls_ += 1;
                changed_.notify_all();
            });

  private:
    DispatchQueue& queue_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::atomic<int> calls_ = 0, offQueue_ = 0; // written under the mutex, read without it
    std::vector<AudioObjectPropertyAddress> heard_;
};

} // namespace tonavi::test
