#pragma once
// Turns a bundle ID into a process tap, a private aggregate device around it and a running IO proc,
// so that the app is silenced on its own path and its samples reach the chosen output through the
// render callback. One provider runs in each tap worker, holding that worker's one handle.
//
// The static operations read Core Audio's view of processes and devices; they are safe on any
// thread and are what the service's discovery uses too.
//
// The provider must be owned by a shared_ptr (see make): its IO blocks hold it weakly and do
// nothing once it is gone.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/Dispatch.hpp"
#include "core/engine/TapProviding.hpp"
#include "platform/AudioHardware.hpp"
#include "platform/Workspace.hpp"
#include "service/taps/AudioSnapshot.hpp"
#include "service/taps/TapProcessIdentity.hpp"
#include "service/taps/TonaviTapHandle.hpp"

namespace tonavi {

class TonaviTapProvider final : public TapProviding, public std::enable_shared_from_this<TonaviTapProvider> {
  public:
    // Called on the IO thread with the tapped audio, interleaved stereo, in place. Must not
    // allocate, log or block.
    using RenderCallback = std::function<void(const std::string& bundleID, std::span<float> buffer,
                                              int frames, std::uint64_t hostTime)>;
    using TapFailureCallback = std::function<void(const std::string& bundleID, const std::string& message)>;
    // The UID an app is routed to; empty follows the default output.
    using RouteCallback = std::function<std::string(const std::string& bundleID)>;
    // The aggregate's real sample rate, from createTap before IO starts.
    using StreamFormatCallback = std::function<void(double sampleRate)>;
    // Seconds since 1970.
    using WallClock = std::function<double()>;

    struct AudioProcess {
        AudioObjectID object = 0;
        std::int32_t pid = -1;
        std::optional<std::string> bundleID;
        friend bool operator==(const AudioProcess&, const AudioProcess&) = default;
    };
    struct ProcessGroup {
        std::vector<AudioObjectID> objects; // in list order: the order given to the tap
        std::set<std::int32_t> pids;
        TapProcessIdentity identity;
    };

    static constexpr const char* captureQueueLabel = "tonavi.taps.capture";
    static constexpr const char* aggregateUIDPrefix = "com.brelmoor.tonavi.agg.";
    static constexpr int preferredTapQuantum = 128;

    // Both must outlive the provider. Without a clock, the system's wall clock.
    static std::shared_ptr<TonaviTapProvider> make(AudioHardware& hardware, Workspace& workspace,
                                                   WallClock clock = {});
    ~TonaviTapProvider() override;
    TonaviTapProvider(const TonaviTapProvider&) = delete;
    TonaviTapProvider& operator=(const TonaviTapProvider&) = delete;

    // Set before the first createTap; not changed while IO runs.
    void setRender(RenderCallback render) { render_ = std::move(render); }
    void setOnTapFailure(TapFailureCallback callback) { onTapFailure_ = std::move(callback); }
    void setRouteFor(RouteCallback routeFor) { routeFor_ = std::move(routeFor); }
    void setOnStreamFormat(StreamFormatCallback callback) { onStreamFormat_ = std::move(callback); }
    const TapFailureCallback& onTapFailure() const { return onTapFailure_; }

    // ---- TapProviding ----

    // A TonaviTapHandle, or null on any failure (logged, with everything made so far released).
    TapHandlePtr createTap(const std::string& bundleID) override;
    // Stops IO, then destroys the proc, the aggregate and last the tap, so the app is heard on its
    // direct path again only once nothing of the tap is left.
    void destroyTap(const TapHandlePtr& handle) override;

    std::shared_ptr<TonaviTapHandle> liveHandle(std::string_view bundleID) const;
    // Meter RMS x 3, clamped to 0...1; 0 without a handle.
    float level(std::string_view bundleID) const;
    std::optional<std::string> targetDevice(std::string_view bundleID) const;

    // ---- Process discovery (static, any thread) ----

    // Every process object with its PID and bundle ID; nothing when the list cannot be read or any
    // entry is invalid, since a half-valid list must not be taken for the truth.
    static std::optional<std::vector<AudioProcess>> readAudioProcesses(AudioHardware& hardware);
    static std::vector<AudioObjectID> processOutputDevices(AudioHardware& hardware, AudioObjectID object);
    // The app's processes with its helpers (processes it is responsible for).
    static ProcessGroup processGroup(AudioHardware& hardware, Workspace& workspace,
                                     const std::string& bundleID);
    static std::optional<AudioSnapshot> audioSnapshot(AudioHardware& hardware, Workspace& workspace);
    static std::optional<std::string> bundleID(AudioHardware& hardware, AudioObjectID object);
    // The app that answers for the process, else the process's own bundle ID.
    static std::optional<std::string> ownerBundleID(AudioHardware& hardware, Workspace& workspace,
                                                    AudioObjectID object);

    // ---- Devices (static, any thread) ----

    static bool deviceExists(AudioHardware& hardware, const std::string& uid);
    // Empty when there is none.
    static std::string defaultOutputUID(AudioHardware& hardware);
    // 0 when no device has this UID.
    static AudioObjectID deviceID(AudioHardware& hardware, const std::string& uid);
    static std::vector<int> streamChannelCounts(AudioHardware& hardware, AudioObjectID device,
                                                AudioObjectPropertyScope scope);
    // Wireless, aggregate and virtual transports keep their own quantum; so does a device whose
    // transport cannot be read.
    static bool preservesTransportBuffer(AudioHardware& hardware, AudioObjectID device);
    static int preferredTapBufferFrameSize(AudioHardware& hardware, AudioObjectID device);

    // One IO cycle of `handle`, exactly as its installed block runs it on the device's IO thread:
    // tapped input to the render buffer, render, meter, output mapping. No allocation except when
    // the quantum changes, no logging, no lock.
    void ioCycle(TonaviTapHandle& handle, const AudioBufferList& input, AudioBufferList& output,
                 const AudioTimeStamp& outputTime);

  private:
    struct Passkey {};

  public:
    TonaviTapProvider(Passkey, AudioHardware& hardware, Workspace& workspace, WallClock clock);

  private:
    // Creates the tap in the given form; the handle's form and compensation follow it.
    OSStatus makeTap(TonaviTapHandle& handle, const std::vector<AudioObjectID>& objects, bool mixdown,
                     float compensation, std::string& tapUUID);
    void releaseParts(TonaviTapHandle& handle);
    void logStreamFormats(const TonaviTapHandle& handle);
    double now() const;

    AudioHardware& hardware_;
    Workspace& workspace_;
    WallClock clock_;
    RenderCallback render_;
    TapFailureCallback onTapFailure_;
    RouteCallback routeFor_;
    StreamFormatCallback onStreamFormat_;

    mutable std::mutex stateMutex_; // guards the two below; never taken by the IO block
    std::map<std::string, std::shared_ptr<TonaviTapHandle>, std::less<>> liveHandles_;
    std::set<std::string, std::less<>> deferredProcessLogs_;

    // Names where the IO procs belong; the blocks run on the device's IO thread.
    DispatchQueue queue_{captureQueueLabel};
};

} // namespace tonavi
