#pragma once
// The audio hardware boundary over a PipeWire server. Properties are computed from the
// connection's graph (no round trip); writes go to node Props and the "default" and "settings"
// metadata and return once the graph shows them. Listeners are fed by one diff pass over the
// graph after every change, on the queue "tonavi.pipewire.listeners", which also keeps the
// tapped applications' streams routed into their taps.

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "base/Dispatch.hpp"
#include "platform/AudioHardware.hpp"
#include "platform/pipewire/PipeWireGraph.hpp"

namespace tonavi {

class PipeWireConnection;
class PipeWireTap;
class PipeWireIOProc;

class PipeWireAudioHardware : public AudioHardware,
                              public std::enable_shared_from_this<PipeWireAudioHardware> {
  public:
    // Connects to the user's server; nullptr with a reason when none answers.
    static std::shared_ptr<PipeWireAudioHardware> connect(std::string& error);
    explicit PipeWireAudioHardware(std::shared_ptr<PipeWireConnection> connection);
    ~PipeWireAudioHardware() override;

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
    std::uint64_t convertHostTimeToNanos(std::uint64_t hostTime) override;
    // Bluetooth nodes by api.bluez5.address, with api.bluez5.codec (PipeWireBluetooth.cpp).
    std::vector<BluetoothRegistryEntry> bluetoothRegistry() override;

    PipeWireConnection& connection() { return *connection_; }
    // The node.name of a tap's virtual sink and of an IO proc's playback stream (tests, tools).
    std::string tapNodeName(AudioObjectID tap);
    std::string ioNodeName(AudioObjectID device, AudioDeviceIOProcID procID);
    struct IOStatistics {
        std::uint64_t cycles = 0;
        std::uint64_t lateInputs = 0;
        std::int64_t reportedLatencyFrames = -1;
    };
    std::optional<IOStatistics> ioStatistics(AudioObjectID device, AudioDeviceIOProcID procID);

  private:
    struct Tap {
        TapDescription description;
        std::vector<pid_t> pids;
        std::unique_ptr<PipeWireTap> sink;
        bool routing = false; // the applications' streams are steered into the sink
        std::set<std::uint32_t> movedNodes;
    };
    struct Aggregate {
        AggregateDeviceDescription description;
    };
    struct IOProc {
        AudioObjectID device = 0;
        std::unique_ptr<PipeWireIOProc> io;
        std::vector<std::uint32_t> inputUsage; // per tap stream, 1 on; empty: all on
    };
    struct Listener {
        AudioObjectID object;
        AudioObjectPropertyAddress address;
        DispatchQueue* queue;
        AudioObjectPropertyListenerBlock block;
        OSStatus lastStatus;
        AudioPropertyValue lastValue;
        std::shared_ptr<std::atomic<bool>> live;
    };

    OSStatus readLocked(const PipeWireGraph& g, AudioObjectID object, const AudioObjectPropertyAddress& a,
                        AudioPropertyValue& v) const;
    OSStatus readAggregateLocked(const PipeWireGraph& g, const Aggregate& agg,
                                 const AudioObjectPropertyAddress& a, AudioPropertyValue& v) const;
    OSStatus read(AudioObjectID object, const AudioObjectPropertyAddress& a, AudioPropertyValue& v);
    std::size_t inputStreamCountLocked(const Aggregate& agg) const;
    // Stream usage of an IO proc on a tap aggregate: read when `write` is null, else written.
    OSStatus streamUsageLocked(AudioObjectID object, const AudioObjectPropertyAddress& a,
                               AudioPropertyValue* read, const AudioPropertyValue* write);
    OSStatus writeVolume(const PipeWireGraph::Node& node, const AudioObjectPropertyAddress& a, float scalar);
    void scheduleDiff();
    void diffAndRoute(); // listener queue
    void routeLocked();  // stateMutex_ held, listener queue or a caller that made a change
    void unrouteLocked(Tap& tap);
    // Output groups: a combined sink of the members, made by the combine-stream module in this
    // process, so it ends with the process.
    OSStatus createCombinedSink(const AggregateDeviceDescription& description, AudioObjectID& device);

    std::shared_ptr<PipeWireConnection> connection_;
    DispatchQueue listenerQueue_{"tonavi.pipewire.listeners"};
    std::atomic<bool> diffPending_{false};

    // Taps, aggregates, IO procs and listeners of this process. Taken before the graph's lock.
    mutable std::mutex stateMutex_;
    std::map<AudioObjectID, Tap> taps_;
    std::map<AudioObjectID, Aggregate> aggregates_;
    std::map<AudioDeviceIOProcID, IOProc> procs_;
    std::map<std::string, std::uint64_t> combinedSinks_; // node.name (the group's UID) -> module
    std::vector<Listener> listeners_;
    // object.serial of every tap sink in the graph, whichever process made it: an application left
    // pointing at one that vanished (its maker was killed) is sent back to its own path.
    std::set<std::string> tapSinkSerials_;
    // target.object entries written by this process that the graph does not show yet, so that a
    // burst of diff passes writes each once.
    struct PendingTarget {
        std::string serial;
        std::chrono::steady_clock::time_point at;
    };
    std::map<std::uint32_t, PendingTarget> pendingTargets_;
    AudioDeviceIOProcID nextProcID_ = 1;
};

} // namespace tonavi
