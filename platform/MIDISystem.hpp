#pragma once
// The MIDI boundary, in Core MIDI's shape: a client with a notification block, an input port that
// receives event lists of Universal MIDI Packet words, and the system's sources, which a port
// connects to. Every backend delivers a MIDI 1.0 channel voice message as one UMP word of message
// type 2, so the code above reads the same words whatever the controller speaks.
//
// An event list is packets laid end to end in 32-bit words: a 64-bit time stamp (two words, low
// first), a word count, then that many words; the next packet starts right after the last used word.

#include "platform/AudioHardwareTypes.hpp"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace tonavi {

using MIDIObjectRef = std::uint32_t;
using MIDIClientRef = MIDIObjectRef;
using MIDIPortRef = MIDIObjectRef;
using MIDIEndpointRef = MIDIObjectRef;
using MIDIProtocolID = std::int32_t;
using MIDINotificationMessageID = std::int32_t;

constexpr MIDIProtocolID kMIDIProtocol_1_0 = 1;
constexpr MIDINotificationMessageID kMIDIMsgSetupChanged = 1;
// Core MIDI's "the server could not be reached" status, for a client that cannot be made.
constexpr OSStatus kMIDIServerStartErr = -10845;
constexpr OSStatus kMIDIUnknownEndpoint = -10832;
constexpr OSStatus kMIDIInvalidClient = -10830;

struct MIDIEventList {
    MIDIProtocolID protocol = kMIDIProtocol_1_0;
    std::uint32_t numPackets = 0;
    std::span<const std::uint32_t> words; // the packets, laid end to end
};

// Lays packets end to end. The list it hands out borrows the builder's words.
class MIDIEventListBuilder {
  public:
    void add(std::uint64_t timeStamp, std::span<const std::uint32_t> packetWords);
    MIDIEventList list() const { return {kMIDIProtocol_1_0, packets_, words_}; }
    bool empty() const { return packets_ == 0; }

  private:
    std::vector<std::uint32_t> words_;
    std::uint32_t packets_ = 0;
};

// The UMP word of a MIDI 1.0 Control Change in group 0; `channel` is 0...15.
constexpr std::uint32_t umpControlChange(unsigned channel, unsigned controller, unsigned value) {
    return 0x20B00000u | ((channel & 15u) << 16) | ((controller & 127u) << 8) | (value & 127u);
}

// Turns a MIDI 1.0 byte stream's channel voice messages into UMP words (message type 2, group 0).
// System messages and SysEx give no word; running status is followed. `status` carries the running
// status from one call to the next of the same source.
std::vector<std::uint32_t> umpWordsFromMIDI1Bytes(std::span<const std::uint8_t> bytes, std::uint8_t& status);

class MIDISystem {
  public:
    using NotifyBlock = std::function<void(MIDINotificationMessageID)>;
    // Called on the backend's MIDI thread; the list lives only for the call.
    using ReceiveBlock = std::function<void(const MIDIEventList&)>;

    virtual ~MIDISystem() = default;

    virtual OSStatus clientCreate(const std::string& name, NotifyBlock notify, MIDIClientRef& client) = 0;
    virtual OSStatus inputPortCreate(MIDIClientRef client, const std::string& name, MIDIProtocolID protocol,
                                     ReceiveBlock receive, MIDIPortRef& port) = 0;
    virtual std::size_t numberOfSources() = 0;
    // 0 when there is no such source.
    virtual MIDIEndpointRef source(std::size_t index) = 0;
    // Connecting a source twice does no harm.
    virtual OSStatus portConnectSource(MIDIPortRef port, MIDIEndpointRef source) = 0;
    // Ends the client and its ports: no block of theirs runs after this returns.
    virtual void clientDispose(MIDIClientRef client) = 0;
};

} // namespace tonavi
