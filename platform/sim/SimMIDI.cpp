#include "platform/sim/SimMIDI.hpp"

#include <algorithm>

namespace tonavi {

SimMIDI::SimMIDI(std::shared_ptr<SimMachine> machine) : machine_(std::move(machine)) {
    observer_ = machine_->addWorldObserver(
        [this](const SimWorld& before, const SimWorld& after) { worldChanged(before, after); });
}

SimMIDI::~SimMIDI() {
    machine_->removeWorldObserver(observer_);
    // An observer call that began before the removal may still run; it waits here.
    std::lock_guard<std::recursive_mutex> delivery(deliveryLock_);
}

MIDIEndpointRef SimMIDI::endpointLocked(const std::string& name) {
    auto [it, added] = endpoints_.try_emplace(name, 0);
    if (added)
        it->second = nextRef_++;
    return it->second;
}

OSStatus SimMIDI::clientCreate(const std::string&, NotifyBlock notify, MIDIClientRef& client) {
    const std::uint64_t newest = machine_->world()->midiSequence;
    std::lock_guard<std::mutex> guard(stateLock_);
    if (client_ != 0)
        return kMIDIInvalidClient; // one client per process is all the service makes
    client_ = nextRef_++;
    notify_ = std::move(notify);
    delivered_ = std::max(delivered_, newest);
    client = client_;
    return noErr;
}

OSStatus SimMIDI::inputPortCreate(MIDIClientRef client, const std::string&, MIDIProtocolID, ReceiveBlock receive,
                                  MIDIPortRef& port) {
    std::lock_guard<std::mutex> guard(stateLock_);
    if (client == 0 || client != client_)
        return kMIDIInvalidClient;
    port_ = nextRef_++;
    receive_ = std::move(receive);
    port = port_;
    return noErr;
}

std::size_t SimMIDI::numberOfSources() { return machine_->world()->midiSources.size(); }

MIDIEndpointRef SimMIDI::source(std::size_t index) {
    const auto world = machine_->world();
    if (index >= world->midiSources.size())
        return 0;
    std::lock_guard<std::mutex> guard(stateLock_);
    return endpointLocked(world->midiSources[index]);
}

OSStatus SimMIDI::portConnectSource(MIDIPortRef port, MIDIEndpointRef source) {
    std::lock_guard<std::mutex> guard(stateLock_);
    if (port == 0 || port != port_)
        return kMIDIInvalidClient;
    for (const auto& [name, ref] : endpoints_)
        if (ref == source) {
            connected_.insert(name);
            return noErr;
        }
    return kMIDIUnknownEndpoint;
}

void SimMIDI::clientDispose(MIDIClientRef client) {
    std::lock_guard<std::recursive_mutex> delivery(deliveryLock_);
    std::lock_guard<std::mutex> guard(stateLock_);
    if (client != client_)
        return;
    client_ = port_ = 0;
    notify_ = nullptr;
    receive_ = nullptr;
    connected_.clear();
}

void SimMIDI::worldChanged(const SimWorld& before, const SimWorld& after) {
    std::lock_guard<std::recursive_mutex> delivery(deliveryLock_);
    MIDIEventListBuilder builder;
    NotifyBlock notify;
    ReceiveBlock receive;
    {
        std::lock_guard<std::mutex> guard(stateLock_);
        if (client_ == 0)
            return;
        for (const auto& m : after.midiMessages) {
            if (m.sequence <= delivered_)
                continue;
            if (connected_.count(m.source) && receive_)
                builder.add(m.sentAtNanos, m.words);
        }
        delivered_ = std::max(delivered_, after.midiSequence);
        if (before.midiSources != after.midiSources)
            notify = notify_;
        receive = receive_;
    }
    // The blocks run without the state lock: the notification connects sources through it.
    if (notify)
        notify(kMIDIMsgSetupChanged);
    if (!builder.empty() && receive)
        receive(builder.list());
}

std::string SimMIDI::sendControlChange(SimMachine& machine, const std::string& source, unsigned channel,
                                       unsigned controller, unsigned value) {
    if (channel < 1 || channel > 16)
        return "a MIDI channel is 1 to 16";
    if (controller > 127 || value > 127)
        return "a controller and its value are 0 to 127";
    const std::uint64_t now = machine.currentHostTime();
    return machine.mutate([&](SimWorld& world) {
        return world.sendMIDI(source, {umpControlChange(channel - 1, controller, value)}, now);
    });
}

} // namespace tonavi
