// MIDI control of TonaviRuntime: triggers from the mapper become ordinary requests, so MIDI has no
// behaviour of its own; and the requests that keep the mappings and their file.

#include "service/TonaviRuntime.hpp"

#include "core/wire/TonaviPayload.hpp"
#include "service/PayloadReply.hpp"
#include "service/RuntimeCallbacks.hpp"

#include <nlohmann/json.hpp>

#include <cassert>
#include <cmath>
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

bool TonaviRuntime::handleMIDILearnAsync(const TonaviRequest& request, std::function<void(TonaviReply)> completion) {
    const auto* learn = std::get_if<TonaviRequest::LearnMIDIControl>(&request.value);
    if (!learn)
        return false;
    if (midi_->client() == 0) {
        completion(TonaviReply::failure("no MIDI input to learn from: the MIDI client failed"));
        return true;
    }
    // Under the control server's 20-second wait, so the client hears why it ended.
    const double seconds = std::isfinite(learn->timeoutSeconds) ? std::clamp(learn->timeoutSeconds, 0.1, 19.0) : 15.0;
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    midiQueue_->async([weak, seconds, completion = std::move(completion)]() mutable {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            const std::uint64_t number = rt.nextMIDILearner_++;
            rt.midiLearners_.emplace(number, std::move(completion));
            rt.midi_->setLearning(true);
            rt.midiQueue_->afterSeconds(seconds, [weak, number, seconds] {
                withRuntime(weak, [&](TonaviRuntime& later) {
                    const auto waiting = later.midiLearners_.find(number);
                    if (waiting == later.midiLearners_.end())
                        return;
                    auto done = std::move(waiting->second);
                    later.midiLearners_.erase(waiting);
                    later.midi_->setLearning(!later.midiLearners_.empty());
                    char text[64];
                    std::snprintf(text, sizeof text, "no Control Change arrived within %g s", seconds);
                    done(TonaviReply::failure(text));
                });
            });
        });
    });
    return true;
}

void TonaviRuntime::midiControlLearned(std::int64_t channel, std::int64_t cc) {
    assert(midiQueue_->isCurrent());
    if (midiLearners_.empty())
        return;
    midi_->setLearning(false);
    TonaviReply reply = TonaviReply::success();
    const std::string payload = nlohmann::json{{"channel", channel}, {"cc", cc}}.dump();
    reply.payload = Bytes(payload.begin(), payload.end());
    // Every request waiting now learns the same control.
    for (auto& [number, done] : std::exchange(midiLearners_, {}))
        done(reply);
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
            } else if constexpr (std::is_same_v<T, R::LearnMIDIControl>) {
                // Waiting here would hold serialQueue: only the asynchronous path serves it.
                return failure("learnMIDIControl is answered through the control socket only");
            } else {
                return std::nullopt;
            }
        },
        request.value);
}

} // namespace tonavi
