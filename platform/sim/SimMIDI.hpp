#pragma once
// The simulated machine's MIDI: the world's sources, and the messages they send, delivered to the
// ports of every process that shares the world. A message sent by any process (or `tonavictl sim
// midi`) reaches a port on the thread that noticed the world change, this backend's MIDI thread.
// Each port hears only messages sent after its client was made.

#include "platform/MIDISystem.hpp"
#include "platform/sim/SimMachine.hpp"

#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace tonavi {

class SimMIDI final : public MIDISystem {
  public:
    explicit SimMIDI(std::shared_ptr<SimMachine> machine);
    ~SimMIDI() override;
    SimMIDI(const SimMIDI&) = delete;
    SimMIDI& operator=(const SimMIDI&) = delete;

    OSStatus clientCreate(const std::string& name, NotifyBlock notify, MIDIClientRef& client) override;
    OSStatus inputPortCreate(MIDIClientRef client, const std::string& name, MIDIProtocolID protocol,
                             ReceiveBlock receive, MIDIPortRef& port) override;
    std::size_t numberOfSources() override;
    MIDIEndpointRef source(std::size_t index) override;
    OSStatus portConnectSource(MIDIPortRef port, MIDIEndpointRef source) override;
    void clientDispose(MIDIClientRef client) override;

    // Sends one Control Change from a source of the world; `channel` is 1...16. Answers the refusal.
    static std::string sendControlChange(SimMachine& machine, const std::string& source, unsigned channel,
                                         unsigned controller, unsigned value);

  private:
    void worldChanged(const SimWorld& before, const SimWorld& after);
    MIDIEndpointRef endpointLocked(const std::string& name);

    std::shared_ptr<SimMachine> machine_;
    std::uint64_t observer_ = 0;

    // Held while a block runs, and by clientDispose, so no block runs after dispose returns. Recursive:
    // a block that reads the world may notice a newer one and deliver it on the same thread.
    std::recursive_mutex deliveryLock_;
    std::mutex stateLock_; // leaf: guards the fields below
    MIDIClientRef client_ = 0;
    NotifyBlock notify_;
    MIDIPortRef port_ = 0;
    ReceiveBlock receive_;
    std::set<std::string> connected_;
    std::map<std::string, MIDIEndpointRef> endpoints_; // stable per name for this process
    MIDIObjectRef nextRef_ = 1;
    std::uint64_t delivered_ = 0; // the newest sequence this process has handed on or skipped
};

} // namespace tonavi
