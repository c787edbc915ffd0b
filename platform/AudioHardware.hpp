#pragma once
// The audio hardware boundary: Core Audio's object and property calls, process taps, aggregate
// devices, IO procs and host time. Every call answers with a status (0 success); nothing throws.
// A backend implements it once; everything above it is unaware of which backend runs.

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "platform/AggregateDeviceDescription.hpp"
#include "platform/AudioHardwareTypes.hpp"
#include "platform/BluetoothRegistryEntry.hpp"
#include "platform/TapDescription.hpp"

namespace tonavi {

class DispatchQueue;

// A property's value. Each selector has one alternative: object lists and flags as they appear in
// Core Audio (UInt32, Float32, Float64, CFString, AudioObjectID[], ...). A read of the wrong type
// answers kAudioHardwareBadPropertySizeError.
using AudioPropertyValue = std::variant<std::monostate, std::uint32_t, std::int32_t, float, double,
                                        std::string, std::vector<AudioObjectID>, AudioStreamConfiguration,
                                        AudioValueRange, AudioHardwareIOProcStreamUsage>;

// The byte size Core Audio would report for a value: what a property-size query answers.
std::uint32_t propertyDataSize(const AudioPropertyValue& value);

// A listener is identified by its block: removal must hand over the same block and queue.
using AudioObjectPropertyListenerBlock =
    std::shared_ptr<const std::function<void(std::span<const AudioObjectPropertyAddress>)>>;

// Receives the input buffers, fills the output buffers (zeroed beforehand) and gets the time of the
// output. Runs on the device's IO thread: no allocation, no logging, no blocking.
using AudioDeviceIOBlock = std::function<void(const AudioBufferList& input, AudioBufferList& output,
                                              const AudioTimeStamp& outputTime)>;

class AudioHardware {
  public:
    virtual ~AudioHardware() = default;

    virtual OSStatus getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                     AudioPropertyValue& value) = 0;
    virtual OSStatus getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                         std::uint32_t& size) = 0;
    virtual OSStatus setPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                     const AudioPropertyValue& value) = 0;
    virtual bool hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) = 0;
    virtual OSStatus isPropertySettable(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                        bool& settable) = 0;

    // The block runs on `queue` for every change of the property, whoever made it. The queue must
    // outlive the registration.
    virtual OSStatus addPropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                         DispatchQueue& queue,
                                         const AudioObjectPropertyListenerBlock& block) = 0;
    virtual OSStatus removePropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                            DispatchQueue& queue,
                                            const AudioObjectPropertyListenerBlock& block) = 0;

    virtual OSStatus createProcessTap(const TapDescription& description, AudioObjectID& tap) = 0;
    virtual OSStatus destroyProcessTap(AudioObjectID tap) = 0;
    virtual OSStatus createAggregateDevice(const AggregateDeviceDescription& description,
                                           AudioObjectID& device) = 0;
    virtual OSStatus destroyAggregateDevice(AudioObjectID device) = 0;

    // The queue names where the block belongs; the block itself is called from the device's IO
    // thread, as Core Audio does.
    virtual OSStatus createIOProcIDWithBlock(AudioObjectID device, DispatchQueue* queue,
                                             AudioDeviceIOBlock block, AudioDeviceIOProcID& procID) = 0;
    virtual OSStatus destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) = 0;
    virtual OSStatus deviceStart(AudioObjectID device, AudioDeviceIOProcID procID) = 0;
    virtual OSStatus deviceStop(AudioObjectID device, AudioDeviceIOProcID procID) = 0;

    virtual std::uint64_t currentHostTime() = 0;
    virtual std::uint64_t convertHostTimeToNanos(std::uint64_t hostTime) = 0;

    // The Bluetooth devices the system's fast registry knows, with what it says of each: beside
    // Core Audio on macOS (the I/O registry), so a backend without such a registry has none.
    virtual std::vector<BluetoothRegistryEntry> bluetoothRegistry() { return {}; }

    // Typed reads and writes over the calls above. A read leaves `out` alone unless it succeeds.
    template <class T> OSStatus get(AudioObjectID object, const AudioObjectPropertyAddress& address, T& out) {
        AudioPropertyValue value;
        if constexpr (std::is_same_v<T, AudioHardwareIOProcStreamUsage>)
            value = out;
        const OSStatus status = getPropertyData(object, address, value);
        if (status != noErr)
            return status;
        if (auto* typed = std::get_if<T>(&value)) {
            out = std::move(*typed);
            return noErr;
        }
        return kAudioHardwareBadPropertySizeError;
    }
    template <class T>
    OSStatus set(AudioObjectID object, const AudioObjectPropertyAddress& address, const T& in) {
        return setPropertyData(object, address, AudioPropertyValue(in));
    }
};

// Addresses on the main element.
inline AudioObjectPropertyAddress globalAddress(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}
inline AudioObjectPropertyAddress
scopedAddress(AudioObjectPropertySelector selector, AudioObjectPropertyScope scope,
              AudioObjectPropertyElement element = kAudioObjectPropertyElementMain) {
    return {selector, scope, element};
}

} // namespace tonavi
