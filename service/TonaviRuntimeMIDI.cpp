// MIDI control of TonaviRuntime: triggers from the mapper become ordinary requests, so MIDI has no
// behaviour of its own; and the requests that keep the mappings and their file.

#include "service/TonaviRuntime.hpp"

#include "core/wire/TonaviPayload.hpp"
#include "service/PayloadReply.hpp"

#include <cassert>
#include <type_traits>

namespace tonavi {

void TonaviRuntime::startMIDI() { midi_->start(); }

bool TonaviRuntime::midiPressedEdge(const MIDIMapping& mapping, bool pressed) {
    assert(midiQueue_->isCurrent());
    // The mapping's own channel (0 stays 0 for any channel), so two mappings of one controller
    // with different targets keep a state each.
    const std::string key = std::to_string(mapping.channel) + "-" + std::to_string(mapping.cc) + "-" +
                            std::to_string(mapping.targetCaseNumber());
    const bool wasPressed = midiPressed_[key];
    midiPressed_[key] = pressed;
    return pressed && !wasPressed;
}

void TonaviRuntime::handleMIDI(const MIDIMapping& mapping, double value) {
    assert(midiQueue_->isCurrent());
    // A level above the middle is a pressed button; the mute follows it, so a momentary button
    // mutes while held.
    const bool pressed = value > 0.5;
    using M = MIDIMapping;
    std::visit(
        [&](const auto& target) {
            using T = std::decay_t<decltype(target)>;
            if constexpr (std::is_same_v<T, M::AppVolume>) {
                handle(TonaviRequest{TonaviRequest::SetAppVolume{target.bundleID, value}});
            } else if constexpr (std::is_same_v<T, M::AppMute>) {
                handle(TonaviRequest{TonaviRequest::SetAppMuted{target.bundleID, pressed}});
            } else if constexpr (std::is_same_v<T, M::DeviceVolume>) {
                handle(TonaviRequest{TonaviRequest::SetDeviceVolume{target.uid, value}});
            } else if constexpr (std::is_same_v<T, M::OutputVolume>) {
                handle(TonaviRequest{TonaviRequest::SetOutputVolume{value}});
            } else if constexpr (std::is_same_v<T, M::ConfigLoad>) {
                // A scene load waits for the system to show its output: it must not hold this queue,
                // so it takes the asynchronous path and nobody reads the reply.
                if (midiPressedEdge(mapping, pressed))
                    handleAsync(TonaviRequest{TonaviRequest::LoadConfig{target.name}}, [](TonaviReply) {});
            } else if constexpr (std::is_same_v<T, M::StageMode>) {
                // The current state is read in the same hop as the request, so two quick presses
                // toggle twice rather than both turning it on.
                if (midiPressedEdge(mapping, pressed))
                    serialQueue_->sync(
                        [this] { handleLocked(TonaviRequest{TonaviRequest::StageMode{!engine_->stageMode()}}); });
            }
        },
        mapping.target);
}

TonaviReply TonaviRuntime::storeMIDIMappings(std::vector<MIDIMapping> list, const char* failurePrefix) {
    try {
        store_->saveMIDIMappings(list);
    } catch (const std::exception& e) {
        // Neither the mapper nor the list has changed: what is heard is what is on disk.
        return failure(std::string(failurePrefix) + e.what());
    }
    midi_->setMappings(list);
    midiMappings_ = std::move(list);
    return success();
}

std::optional<TonaviReply> TonaviRuntime::handleMIDIRequestLocked(const TonaviRequest& request) {
    assert(serialQueue_->isCurrent());
    using R = TonaviRequest;
    return std::visit(
        [&](const auto& c) -> std::optional<TonaviReply> {
            using T = std::decay_t<decltype(c)>;
            if constexpr (std::is_same_v<T, R::SetMIDIMapping>) {
                std::vector<MIDIMapping> list = midiMappings_;
                std::erase_if(list, [&](const MIDIMapping& m) { return m.id == c._0.id; });
                list.push_back(c._0);
                return storeMIDIMappings(std::move(list), "could not save MIDI mapping: ");
            } else if constexpr (std::is_same_v<T, R::RemoveMIDIMapping>) {
                std::vector<MIDIMapping> list = midiMappings_;
                std::erase_if(list, [&](const MIDIMapping& m) { return m.id == c.id; });
                return storeMIDIMappings(std::move(list), "could not remove MIDI mapping: ");
            } else if constexpr (std::is_same_v<T, R::ListMIDIMappings>) {
                return payloadReply(midiMappings_);
            } else {
                return std::nullopt;
            }
        },
        request.value);
}

} // namespace tonavi
