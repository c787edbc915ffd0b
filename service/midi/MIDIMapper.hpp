#pragma once
// Listens to every MIDI source of the system and turns Control Change messages into triggers.
// It knows nothing of what a trigger does: the runtime's handler makes an ordinary request of it.
//
// `handle` runs on the backend's MIDI thread. It copies the mappings under `mappingsLock`, a leaf
// lock held only around that copy, and posts each trigger to the trigger queue (the runtime's
// "tonavi.midi"), so the MIDI thread never waits for the runtime. The mappings are written from
// the runtime's serialQueue.

#include "base/Dispatch.hpp"
#include "core/config/MIDIMapping.hpp"
#include "platform/MIDISystem.hpp"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace tonavi {

class MIDIMapper {
  public:
    using Trigger = std::function<void(const MIDIMapping& mapping, double value)>;
    // Every Control Change while learning is on: channel 1...16, controller 0...127.
    using ControlChange = std::function<void(std::int64_t channel, std::int64_t cc)>;

    static constexpr const char* clientName = "Tonavi";
    static constexpr const char* inputPortName = "TonaviIn";

    // `system` may be null: no MIDI on this backend, and start() says so. Triggers run on `triggerQueue`,
    // which must outlive the mapper.
    MIDIMapper(std::shared_ptr<MIDISystem> system, DispatchQueue& triggerQueue);
    // Disposes of the client, so the MIDI thread is done with this mapper when it returns; a trigger
    // already posted finds the mapper gone and does nothing.
    ~MIDIMapper();
    MIDIMapper(const MIDIMapper&) = delete;
    MIDIMapper& operator=(const MIDIMapper&) = delete;

    // Set once, before start().
    void setOnTrigger(Trigger trigger);
    void setOnControlChange(ControlChange observer);
    // While on, every Control Change also goes to the observer, on the trigger queue, mapped or not.
    void setLearning(bool on) { learning_.store(on); }
    void setMappings(std::vector<MIDIMapping> mappings);
    std::vector<MIDIMapping> mappings() const;

    // Once, at service start. A client that cannot be made is logged, and the service runs on
    // without MIDI.
    void start();
    // Every message of `list`, on the MIDI thread.
    void handle(const MIDIEventList& list);

    MIDIClientRef client() const { return client_; }
    MIDIPortRef inputPort() const { return inputPort_.load(); }

  private:
    std::size_t connectAllSources();

    std::shared_ptr<MIDISystem> system_;
    DispatchQueue& triggerQueue_;
    MIDIClientRef client_ = 0;
    // Read by the notification block, on the backend's thread.
    std::atomic<MIDIPortRef> inputPort_{0};
    std::atomic<bool> learning_{false};

    mutable std::mutex mappingsLock_; // leaf: guards storedMappings_
    std::vector<MIDIMapping> storedMappings_;

    // What a posted trigger needs; it holds this weakly, so a trigger after the mapper is gone does
    // nothing.
    struct TriggerTarget {
        Trigger onTrigger;
        ControlChange onControlChange;
    };
    std::shared_ptr<TriggerTarget> target_ = std::make_shared<TriggerTarget>();
};

} // namespace tonavi
