#pragma once
// MIDI on a PipeWire server. The client is a connection of its own ("Tonavi", on the thread loop
// "tonavi-midi", this backend's MIDI thread); the input port is a filter node "TonaviIn" with one
// MIDI input port. Its process() runs on the graph's data thread and only copies the messages into a
// lock-free ring; "tonavi-midi" is woken to turn them into event lists and run the port's block, so
// the graph never waits for the service, and a busy service loses no message. Sources are the graph's MIDI output ports ("8 bit raw midi"): ALSA
// sequencer devices through the session's MIDI bridge, and any client's MIDI stream. A source is
// connected by a link from its port to ours; a port that appears tells the client the setup changed.
// MIDI 1.0 bytes are turned into UMP words, one per channel voice message.

#include "platform/MIDISystem.hpp"

#include <map>
#include <memory>
#include <set>

struct pw_thread_loop;
struct pw_context;
struct pw_core;
struct pw_registry;
struct pw_filter;
struct pw_proxy;

namespace tonavi {

class PipeWireMIDI final : public MIDISystem {
  public:
    PipeWireMIDI();
    ~PipeWireMIDI() override;
    PipeWireMIDI(const PipeWireMIDI&) = delete;
    PipeWireMIDI& operator=(const PipeWireMIDI&) = delete;

    OSStatus clientCreate(const std::string& name, NotifyBlock notify, MIDIClientRef& client) override;
    OSStatus inputPortCreate(MIDIClientRef client, const std::string& name, MIDIProtocolID protocol,
                             ReceiveBlock receive, MIDIPortRef& port) override;
    std::size_t numberOfSources() override;
    MIDIEndpointRef source(std::size_t index) override;
    OSStatus portConnectSource(MIDIPortRef port, MIDIEndpointRef source) override;
    void clientDispose(MIDIClientRef client) override;

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

} // namespace tonavi
