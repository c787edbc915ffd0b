#include "service/midi/MIDIMapper.hpp"

#include "base/Log.hpp"

namespace tonavi {

MIDIMapper::MIDIMapper(std::shared_ptr<MIDISystem> system, DispatchQueue& triggerQueue)
    : system_(std::move(system)), triggerQueue_(triggerQueue) {}

MIDIMapper::~MIDIMapper() {
    if (system_ && client_ != 0)
        system_->clientDispose(client_);
}

void MIDIMapper::setOnTrigger(Trigger trigger) { target_->onTrigger = std::move(trigger); }

void MIDIMapper::setOnControlChange(ControlChange observer) { target_->onControlChange = std::move(observer); }

void MIDIMapper::setMappings(std::vector<MIDIMapping> mappings) {
    std::lock_guard<std::mutex> guard(mappingsLock_);
    storedMappings_ = std::move(mappings);
}

std::vector<MIDIMapping> MIDIMapper::mappings() const {
    std::lock_guard<std::mutex> guard(mappingsLock_);
    return storedMappings_;
}

void MIDIMapper::start() {
    if (!system_) {
        Log::info("tonavi: MIDI client failed (no MIDI system on this backend)");
        return;
    }
    MIDIClientRef client = 0;
    // The notification block may outlive nothing: clientDispose in the destructor ends it first.
    const OSStatus status = system_->clientCreate(
        clientName,
        [this](MIDINotificationMessageID message) {
            // A controller plugged in later is connected with no further ado; connecting one twice
            // does no harm, and one that vanished needs nothing.
            if (message == kMIDIMsgSetupChanged)
                connectAllSources();
        },
        client);
    if (status != noErr) {
        Log::info("tonavi: MIDI client failed (" + std::to_string(status) + ")");
        return;
    }
    client_ = client;
    MIDIPortRef port = 0;
    // The port's status is not checked: without a port no message ever arrives, and the mappings
    // still work as a list.
    system_->inputPortCreate(client_, inputPortName, kMIDIProtocol_1_0,
                             [this](const MIDIEventList& list) { handle(list); }, port);
    inputPort_.store(port);
    const std::size_t sources = connectAllSources();
    Log::info("tonavi: MIDI mapper listening (" + std::to_string(sources) + " sources)");
}

std::size_t MIDIMapper::connectAllSources() {
    const MIDIPortRef port = inputPort_.load();
    const std::size_t count = system_->numberOfSources();
    if (port == 0)
        return count;
    for (std::size_t i = 0; i < count; ++i)
        if (const MIDIEndpointRef source = system_->source(i); source != 0)
            system_->portConnectSource(port, source);
    return count;
}

void MIDIMapper::handle(const MIDIEventList& list) {
    std::vector<MIDIMapping> mappings;
    {
        std::lock_guard<std::mutex> guard(mappingsLock_);
        mappings = storedMappings_;
    }
    const bool learning = learning_.load();
    if ((mappings.empty() && !learning) || list.numPackets == 0)
        return;
    const auto words = list.words;
    std::size_t at = 0;
    for (std::uint32_t packet = 0; packet < list.numPackets; ++packet) {
        // Two words of time stamp, one of count, then the count's words.
        if (at + 3 > words.size())
            return;
        const std::size_t count = words[at + 2];
        at += 3;
        const std::size_t end = std::min(words.size(), at + count);
        for (; at < end; ++at) {
            const std::uint32_t word = words[at];
            // Message type 2 (MIDI 1.0 channel voice) with status 0xB (Control Change); the group
            // nibble is ignored.
            if ((word & 0xF0F00000u) != 0x20B00000u)
                continue;
            const std::int64_t channel = ((word >> 16) & 15) + 1;
            const std::int64_t cc = (word >> 8) & 127;
            const double value = (word & 127) / 127.0;
            if (learning)
                triggerQueue_.async([weak = std::weak_ptr<TriggerTarget>(target_), channel, cc] {
                    if (auto target = weak.lock(); target && target->onControlChange)
                        target->onControlChange(channel, cc);
                });
            for (const auto& mapping : mappings) {
                if (mapping.cc != cc || (mapping.channel != 0 && mapping.channel != channel))
                    continue;
                triggerQueue_.async([weak = std::weak_ptr<TriggerTarget>(target_), mapping, value] {
                    if (auto target = weak.lock(); target && target->onTrigger)
                        target->onTrigger(mapping, value);
                });
            }
        }
        at = end;
    }
}

} // namespace tonavi
