#pragma once
// The service's one door to the audio hardware for everything that is not a tap: device reads and
// writes (volume, mute, sample rate, system roles), a half-second cache of DeviceLiveStatus records,
// the property listeners that drive the rest of the service, and enforcement of the user's device
// policy (maximum volume, hidden devices, locks, preferred order) against whatever the system or
// another program does. It keeps nothing persistent: the runtime pushes settings in with apply().
//
// Queues and locks: `stateQueue` is the runtime's serial queue; every listener and continuation runs
// there, and locks, preferred order, captured lock values, session output, the pending-switch flag and
// the per-device listeners belong to it. `settings` (settingsLock) and the status cache (cacheLock) are
// also read from the runtime's background hardware probe; both locks are leaves, held only for a copy,
// never across a hardware call, never together. `outputIOQueue` "tonavi.output-io" carries only the two
// hardware touches of a non-blocking output switch.
//
// Must be owned by a shared_ptr (see make): listener blocks and continuations hold it weakly.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/Dispatch.hpp"
#include "core/config/DeviceSettings.hpp"
#include "core/config/GlobalLocks.hpp"
#include "core/outputs/OutputRouteSignature.hpp"
#include "core/wire/DeviceLiveStatus.hpp"
#include "platform/AudioHardware.hpp"

namespace tonavi {

class TonaviDeviceManager : public std::enable_shared_from_this<TonaviDeviceManager> {
  public:
    using Transport = DeviceLiveStatus::Transport;
    struct BluetoothDetails {
        std::optional<std::int64_t> battery;
        std::optional<std::string> codec;
        std::optional<std::string> quality;
    };
    // From a Bluetooth MAC address ("ac:de:48:00:11:22") to what is known of the device.
    using BluetoothInfo = std::function<BluetoothDetails(const std::string& address)>;
    struct OutputListener {
        AudioObjectPropertyAddress address;
        AudioObjectPropertyListenerBlock block;
    };
    struct Options {
        // The pause between polls of the blocking verified switch; empty sleeps 0.2 s.
        std::function<void()> verifiedWait;
    };

    static constexpr const char* outputIOQueueLabel = "tonavi.output-io";
    static constexpr const char* tapAggregateUIDPrefix = "com.brelmoor.tonavi.agg.";
    static constexpr std::chrono::milliseconds statusCacheLifetime{500};
    // A verified switch polls every 20 ms for 4 s, or 10 s for a Bluetooth or AirPlay device.
    static constexpr int asyncSwitchAttempts = 200;
    static constexpr int slowSwitchAttempts = 500;
    static constexpr std::chrono::milliseconds asyncSwitchInterval{20};

    // `hardware` and `stateQueue` must outlive the manager. Cache ages follow the state queue's clock.
    static std::shared_ptr<TonaviDeviceManager> make(AudioHardware& hardware, DispatchQueue& stateQueue,
                                                     Options options = {});
    ~TonaviDeviceManager();
    TonaviDeviceManager(const TonaviDeviceManager&) = delete;
    TonaviDeviceManager& operator=(const TonaviDeviceManager&) = delete;

    // ---- Hooks, set by the runtime before installListeners; called on stateQueue ----
    void setOnDevicesChanged(std::function<void()> callback) { onDevicesChanged_ = std::move(callback); }
    void setOnDefaultOutputChanged(std::function<void(const std::string&)> callback) {
        onDefaultOutputChanged_ = std::move(callback);
    }

    // ---- Plain hardware access: synchronous, any queue; every write invalidates the cache first ----
    std::optional<std::vector<AudioObjectID>> readDeviceIDs();
    std::optional<std::string> stringProperty(AudioObjectID object, AudioObjectPropertySelector selector);
    std::optional<std::string> deviceUID(AudioObjectID device);
    std::optional<AudioObjectID> deviceID(const std::string& uid);
    std::optional<AudioObjectID> defaultDevice(bool input);
    std::optional<AudioObjectID> systemSoundEffectsDevice();
    Transport transport(AudioObjectID device);
    static Transport transportOfWord(std::uint32_t word);
    int channelCount(AudioObjectID device, bool input);
    std::set<std::string> relatedUIDs(AudioObjectID device);
    std::vector<AudioObjectPropertyElement> volumeScalarElements(AudioObjectID device);
    std::optional<double> volume(AudioObjectID device);
    bool setVolume(AudioObjectID device, double value);
    // Exactly 1 read from the mute property; nil when it cannot be read.
    std::optional<bool> muted(AudioObjectID device);
    bool setMuted(AudioObjectID device, bool muted);
    std::optional<double> sampleRate(AudioObjectID device);
    std::optional<std::uint32_t> bufferFrameSize(AudioObjectID device);
    bool setSampleRate(AudioObjectID device, double rate);
    // Both refuse a hidden device: false, nothing written.
    bool setDefaultDevice(AudioObjectID device, bool input);
    bool setSystemSoundEffectsDevice(AudioObjectID device);
    void invalidateDeviceCache();
    // Outputs by UID, the tap aggregates left out; a Bluetooth endpoint with no streams yet counts.
    std::map<std::string, OutputRouteSignature> outputTopology();
    // Served from the cache while it is younger than half a second.
    std::vector<DeviceLiveStatus> liveStatus(const BluetoothInfo& bluetoothInfo,
                                             const std::optional<std::vector<AudioObjectID>>& deviceIDs = {});

    // ---- Policy, on stateQueue ----
    void updateSettingsOnly(const std::vector<DeviceSettings>& settings);
    void apply(const std::vector<DeviceSettings>& settings, const GlobalLocks& locks,
               const std::vector<std::string>& preferred);
    void enforceMaxVolumes();
    void enforcePreferredOrder();
    void enforceHiddenDevices();
    void enforceLocks();
    void rememberSampleRateLock(const std::string& uid, double rate);
    // After a rate change under the lock: devices that share one clock (every device of a PipeWire
    // graph) moved with it, so what each reads now is what the lock keeps; otherwise the lock would
    // set the old rate back on the others in turn, and each write would undo the last.
    void recaptureLockedSampleRates();
    void installListeners();
    void refreshOutputListeners();

    // Blocking, for policy enforcement only: up to 10 s for wireless outputs, 4 s for others.
    bool setDefaultOutputVerified(const std::string& uid);
    // Non-blocking, for a user's request: the logic runs on stateQueue, the hardware on outputIOQueue;
    // completion runs on stateQueue.
    void setDefaultOutputVerifiedAsync(const std::string& uid, std::function<bool()> isCurrent,
                                       std::function<void(bool)> completion);

    // ---- State of stateQueue ----
    bool manualOutputSelectionPending() const { return manualOutputSelectionPending_; }
    void setManualOutputSelectionPending(bool pending) { manualOutputSelectionPending_ = pending; }
    const std::optional<std::string>& sessionOutputUID() const { return sessionOutputUID_; }
    void setSessionOutputUID(std::optional<std::string> uid) { sessionOutputUID_ = std::move(uid); }
    const GlobalLocks& locks() const { return locks_; }
    const std::vector<std::string>& preferredOrder() const { return preferredOrder_; }
    const std::optional<double>& lockedVolume() const { return lockedVolume_; }
    // A user's own change of the output volume is what the volume lock keeps from then on.
    void setLockedVolume(std::optional<double> volume) { lockedVolume_ = volume; }
    const std::map<std::string, double>& lockedSampleRate() const { return lockedSampleRate_; }
    const std::map<AudioObjectID, std::pair<std::string, std::vector<OutputListener>>>&
    outputListeners() const {
        return outputListeners_;
    }

    // A copy under settingsLock.
    std::map<std::string, DeviceSettings> settingsSnapshot() const;

  private:
    TonaviDeviceManager(AudioHardware& hardware, DispatchQueue& stateQueue, Options options);
    std::optional<DeviceSettings> settingsFor(const std::string& uid) const;
    bool isHidden(const std::string& uid) const;
    double clampToMax(AudioObjectID device, double value);
    std::vector<AudioObjectID> visibleCandidates(bool input);
    std::uint32_t transportWord(AudioObjectID device);
    static bool keepsItsOwnRate(std::uint32_t transportWord);
    AudioObjectPropertyListenerBlock makeBlock(std::function<void(TonaviDeviceManager&)> reaction);
    void onDeviceListChanged();
    void onDefaultOutputChangedProperty();

    AudioHardware& hardware_;
    Options options_;

    std::function<void()> onDevicesChanged_;
    std::function<void(const std::string&)> onDefaultOutputChanged_;
    DispatchQueue& stateQueue_;
    DispatchQueue outputIOQueue_;

    mutable std::mutex settingsLock_;
    std::map<std::string, DeviceSettings> settings_;

    GlobalLocks locks_;
    std::vector<std::string> preferredOrder_;
    bool manualOutputSelectionPending_ = false;
    std::optional<std::string> sessionOutputUID_;
    std::optional<double> lockedVolume_;
    std::map<std::string, double> lockedSampleRate_;

    std::mutex cacheLock_;
    std::vector<DeviceLiveStatus> cachedDeviceStatus_;
    DispatchTime cachedDeviceStatusAt_ = DispatchTime::min();

    std::map<AudioObjectID, std::pair<std::string, std::vector<OutputListener>>> outputListeners_;
    std::vector<OutputListener> systemListeners_;
};

} // namespace tonavi
