#pragma once
// A MIDI system of the test's own: sources it can add, a client that can be refused, and a send that
// runs the port's receive block on the calling thread, as a backend's MIDI thread would.

#include "platform/MIDISystem.hpp"

#include <map>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

namespace tonavi::testing {

class FakeMIDISystem final : public MIDISystem {
  public:
    OSStatus clientCreate(const std::string& name, NotifyBlock notify, MIDIClientRef& client) override {
        std::lock_guard<std::mutex> guard(mutex);
        if (refuseClient != noErr)
            return refuseClient;
        clientName = name;
        notifyBlock = std::move(notify);
        client = 7;
        return noErr;
    }
    OSStatus inputPortCreate(MIDIClientRef, const std::string& name, MIDIProtocolID protocol, ReceiveBlock receive,
                             MIDIPortRef& port) override {
        std::lock_guard<std::mutex> guard(mutex);
        portName = name;
        portProtocol = protocol;
        receiveBlock = std::move(receive);
        port = 8;
        return noErr;
    }
    std::size_t numberOfSources() override {
        std::lock_guard<std::mutex> guard(mutex);
        return sources.size();
    }
    MIDIEndpointRef source(std::size_t index) override {
        std::lock_guard<std::mutex> guard(mutex);
        return index < sources.size() ? sources[index] : 0;
    }
    OSStatus portConnectSource(MIDIPortRef, MIDIEndpointRef source) override {
        std::lock_guard<std::mutex> guard(mutex);
        connected.insert(source);
        return noErr;
    }
    void clientDispose(MIDIClientRef) override {
        std::lock_guard<std::mutex> guard(mutex);
        receiveBlock = nullptr;
        notifyBlock = nullptr;
        disposed = true;
    }

    // A controller plugged in: the client hears that the setup changed.
    void plug(MIDIEndpointRef source) {
        NotifyBlock notify;
        {
            std::lock_guard<std::mutex> guard(mutex);
            sources.push_back(source);
            notify = notifyBlock;
        }
        if (notify)
            notify(kMIDIMsgSetupChanged);
    }
    void send(const MIDIEventList& list) {
        ReceiveBlock receive;
        {
            std::lock_guard<std::mutex> guard(mutex);
            receive = receiveBlock;
        }
        if (receive)
            receive(list);
    }
    void sendControlChange(unsigned channel, unsigned controller, unsigned value) {
        const std::uint32_t word = umpControlChange(channel, controller, value);
        MIDIEventListBuilder builder;
        builder.add(0, std::span<const std::uint32_t>(&word, 1));
        send(builder.list());
    }

    std::mutex mutex;
    OSStatus refuseClient = noErr;
    std::string clientName, portName;
    MIDIProtocolID portProtocol = 0;
    NotifyBlock notifyBlock;
    ReceiveBlock receiveBlock;
    std::vector<MIDIEndpointRef> sources;
    std::set<MIDIEndpointRef> connected;
    bool disposed = false;
};

} // namespace tonavi::testing
