#pragma once
// The simulated machine as an audio hardware backend. It holds one world, either private to this
// process (deterministic tests) or shared with other processes through a world file that each of
// them watches; a change made by anyone fires the property listeners of all. Taps mute the
// processes they capture, aggregates expose a tap's stream as input, and IO procs run on a
// real-time-like thread or are stepped by a manual clock. Faults and slow reads can be injected.

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "base/Dispatch.hpp"
#include "platform/AudioHardware.hpp"
#include "platform/sim/SimIOProc.hpp"
#include "platform/sim/SimWorld.hpp"
#include "platform/sim/SimWorldFile.hpp"

namespace tonavi {

class SimMachine final : public AudioHardware {
  public:
    struct Options {
        // With a manual clock, IO procs do not get threads: each advance of the clock runs the cycles
        // that fall due, on the advancing thread, and host time follows the clock.
        std::shared_ptr<ManualClock> clock;
        // How often a shared world's file is looked at for changes by others.
        std::chrono::milliseconds watchInterval{20};
    };
    using WorldObserver = std::function<void(const SimWorld& before, const SimWorld& after)>;

    // A machine of this process alone.
    explicit SimMachine(SimWorld world);
    SimMachine(SimWorld world, Options options);
    // A machine shared through the world file at `path`; nullptr with a message when it cannot be read.
    static std::shared_ptr<SimMachine> open(const std::string& path, std::string& error);
    static std::shared_ptr<SimMachine> open(const std::string& path, std::string& error, Options options);
    ~SimMachine() override;
    SimMachine(const SimMachine&) = delete;
    SimMachine& operator=(const SimMachine&) = delete;

    OSStatus getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             AudioPropertyValue& value) override;
    OSStatus getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 std::uint32_t& size) override;
    OSStatus setPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             const AudioPropertyValue& value) override;
    bool hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) override;
    OSStatus isPropertySettable(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                bool& settable) override;
    OSStatus addPropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 DispatchQueue& queue,
                                 const AudioObjectPropertyListenerBlock& block) override;
    OSStatus removePropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                    DispatchQueue& queue,
                                    const AudioObjectPropertyListenerBlock& block) override;
    OSStatus createProcessTap(const TapDescription& description, AudioObjectID& tap) override;
    OSStatus destroyProcessTap(AudioObjectID tap) override;
    OSStatus createAggregateDevice(const AggregateDeviceDescription& description,
                                   AudioObjectID& device) override;
    OSStatus destroyAggregateDevice(AudioObjectID device) override;
    OSStatus createIOProcIDWithBlock(AudioObjectID device, DispatchQueue* queue, AudioDeviceIOBlock block,
                                     AudioDeviceIOProcID& procID) override;
    OSStatus destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) override;
    OSStatus deviceStart(AudioObjectID device, AudioDeviceIOProcID procID) override;
    OSStatus deviceStop(AudioObjectID device, AudioDeviceIOProcID procID) override;
    std::uint64_t currentHostTime() override;
    std::uint64_t convertHostTimeToNanos(std::uint64_t hostTime) override { return hostTime; }
    // Bluetooth devices with facts in the world, the address taken from the UID as the registry
    // writes it ("AC:DE:48:00:11:22" for "AC-DE-48-00-11-22:output").
    std::vector<BluetoothRegistryEntry> bluetoothRegistry() override;

    // The world as this process sees it now (a shared world is reloaded first if it changed).
    std::shared_ptr<const SimWorld> world();
    // Edits the world, the file under its lock when shared, and fires the listeners of every change.
    // Answers the edit's error text, or the file's; on error nothing changed.
    std::string mutate(const std::function<std::string(SimWorld&)>& edit);
    // Reloads a shared world if its file changed, and fires the listeners of what changed.
    void refresh();
    bool isShared() const { return file_ != nullptr; }

    // Called after every change with the world before and after, on the thread that noticed it.
    // Removal returns only once a call in flight has finished; none starts after it.
    std::uint64_t addWorldObserver(WorldObserver observer);
    void removeWorldObserver(std::uint64_t token);

    // Failure injection, shared like everything else in the world.
    std::string failNext(SimOperation operation, int count, OSStatus status, std::uint32_t selector = 0);
    std::string setReadDelay(std::chrono::milliseconds delay, std::uint32_t selector = 0);

    // Bundle IDs of the processes heard on their own path on `deviceUID`: playing, not silent, and not
    // muted by a tap. A process playing to a public aggregate is heard on its sub-devices.
    std::vector<std::string> directlyAudible(const std::string& deviceUID);
    // Metering and recording of what an IO proc of this process writes to its outputs.
    std::optional<SimIOProc::Meter> ioMeter(AudioDeviceIOProcID procID);
    std::string startRecording(AudioDeviceIOProcID procID, const std::string& path, double seconds);
    std::string stopRecording(AudioDeviceIOProcID procID);

    pid_t viewerPID() const { return viewer_; }

  private:
    struct Listener {
        AudioObjectID object;
        AudioObjectPropertyAddress address;
        DispatchQueue* queue;
        AudioObjectPropertyListenerBlock block;
        // Cleared under `deliveryMutex_` when the listener goes: a change picked up before the
        // removal is then neither posted to its queue (which may be gone) nor run from it.
        std::shared_ptr<std::atomic<bool>> live;
    };
    struct Delivery {
        DispatchQueue* queue;
        AudioObjectPropertyListenerBlock block;
        std::shared_ptr<std::atomic<bool>> live;
        std::vector<AudioObjectPropertyAddress> addresses;
    };
    // An observer is called with its own lock held, and removal takes that lock before it returns,
    // so that no call reaches an observer whose owner has gone. Recursive: an observer may remove
    // itself from inside its call.
    struct ObserverSlot {
        std::recursive_mutex callMutex;
        bool live = true; // under callMutex
        WorldObserver observer;
    };
    // What a change owes to listeners and observers, handed out after the lock is released.
    struct Notice {
        std::vector<Delivery> deliveries;
        std::vector<std::shared_ptr<ObserverSlot>> observers;
        std::shared_ptr<const SimWorld> before;
        std::shared_ptr<const SimWorld> after;
    };

    SimMachine(std::unique_ptr<SimWorldFile> file, SimWorld world, SimWorldFile::Stamp stamp,
               Options options);
    void startWatching();
    void watchTick();
    // Installs `next` as the current world and answers what listeners and observers must hear.
    void installLocked(SimWorld next, Notice& notice);
    void deliver(const Notice& notice);
    void publishMeters();
    // Starts asked-for recordings on this process's IO procs, and writes and retires finished ones.
    void serveRecordings();
    void stopProcsOn(AudioObjectID device);
    std::optional<OSStatus> takeFault(SimOperation operation, std::uint32_t selector);
    // What a create edit answers: the new object's ID, or the status that refused it.
    struct Creation {
        OSStatus status = noErr;
        AudioObjectID id = 0;
    };
    static Creation refusal(OSStatus status) { return {status, 0}; }
    // The create path shared by taps and aggregates: an injected fault first, then `build` on the
    // world, whose ID is handed out only when the change is in place.
    OSStatus createInWorld(SimOperation operation, AudioObjectID& created,
                           const std::function<Creation(SimWorld&)>& build);
    void delayRead(std::uint32_t selector);
    void settleDefaultOutput();
    // Brings running IO procs in line with the world: tapped tones, stalled or vanished devices.
    void updateIOLocked();
    void stepDueCycles();
    OSStatus streamUsageLocked(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               AudioPropertyValue* read, const AudioPropertyValue* write);
    bool filterOrphans(SimWorld& world) const;
    OSStatus adjustRunningCount(AudioObjectID device, int delta);

    const pid_t viewer_;
    Options options_;
    std::unique_ptr<SimWorldFile> file_;

    std::mutex deliveryMutex_; // held while changes are posted to listeners' queues
    std::mutex mutex_;         // guards everything below
    std::shared_ptr<const SimWorld> world_;
    SimWorldFile::Stamp stamp_;
    bool orphansOnDisk_ = false;
    std::vector<Listener> listeners_;
    std::map<std::uint64_t, std::shared_ptr<ObserverSlot>> observers_;
    std::uint64_t nextObserverToken_ = 1;
    std::map<AudioDeviceIOProcID, std::unique_ptr<SimIOProc>> ioProcs_;
    AudioDeviceIOProcID nextProcID_ = 1;

    // Taken first by whatever starts, stops, destroys or steps IO procs, so that no proc goes away
    // while its cycles run on the stepping thread.
    std::mutex lifecycleMutex_;
    std::shared_ptr<std::function<void()>> stepper_;

    int ticks_ = 0;
    bool publishedMeters_ = false;
    std::map<std::string, AudioDeviceIOProcID> servedRecordings_; // by path; watch queue only
    std::unique_ptr<DispatchQueue> watchQueue_;
    std::unique_ptr<DispatchTimer> watchTimer_;
};

} // namespace tonavi
