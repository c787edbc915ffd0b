// Codecs of the pipe protocol between the service and its tap workers. The pipe is private to the
// two sides, so the key order is whatever the encoder gives; lines are compact JSON.

#include "service/worker/TapWorkerEnvelope.hpp"
#include "service/worker/TapWorkerEvent.hpp"

#include <nlohmann/json.hpp>

namespace tonavi {

namespace {

std::optional<nlohmann::json> parseObject(std::string_view line) {
    // Invalid UTF-8 fails the parse as well, so such a line is refused here.
    auto json = nlohmann::json::parse(line.begin(), line.end(), nullptr, /*allow_exceptions=*/false);
    if (json.is_discarded() || !json.is_object())
        return std::nullopt;
    return json;
}

template <class T> void put(nlohmann::json& json, const char* key, const std::optional<T>& value) {
    if (value)
        json[key] = *value;
}

// False when the key is present with the wrong type; an absent key leaves `out` empty.
template <class T> bool take(const nlohmann::json& json, const char* key, std::optional<T>& out) {
    auto it = json.find(key);
    if (it == json.end())
        return true;
    if constexpr (std::is_same_v<T, std::string>) {
        if (!it->is_string())
            return false;
    } else if constexpr (std::is_integral_v<T>) {
        if (!it->is_number_integer())
            return false;
    } else {
        if (!it->is_number())
            return false;
    }
    out = it->get<T>();
    return true;
}

} // namespace

std::string TapWorkerEnvelope::line() const {
    nlohmann::json json = {{"action", action}};
    if (state)
        json["state"] = *state;
    return json.dump() + "\n";
}

std::optional<TapWorkerEnvelope> TapWorkerEnvelope::decode(std::string_view line) {
    auto json = parseObject(line);
    if (!json)
        return std::nullopt;
    auto action = json->find("action");
    if (action == json->end() || !action->is_string())
        return std::nullopt;
    TapWorkerEnvelope envelope;
    envelope.action = action->get<std::string>();
    if (auto state = json->find("state"); state != json->end()) {
        try {
            envelope.state = state->get<TapWorkerState>();
        } catch (const std::exception&) {
            return std::nullopt;
        }
    }
    return envelope;
}

std::string TapWorkerEvent::line() const {
    nlohmann::json json = {{"kind", kind}};
    put(json, "message", message);
    put(json, "slotID", slotID);
    put(json, "level", level);
    put(json, "sampleRate", sampleRate);
    put(json, "tapBufferFrames", tapBufferFrames);
    put(json, "outputBufferFrames", outputBufferFrames);
    put(json, "sourceDeviceUID", sourceDeviceUID);
    put(json, "targetDeviceUID", targetDeviceUID);
    put(json, "lastIOAt", lastIOAt);
    put(json, "lastRawAudioAt", lastRawAudioAt);
    return json.dump() + "\n";
}

std::optional<TapWorkerEvent> TapWorkerEvent::decode(std::string_view line) {
    auto json = parseObject(line);
    if (!json)
        return std::nullopt;
    auto kind = json->find("kind");
    if (kind == json->end() || !kind->is_string())
        return std::nullopt;
    TapWorkerEvent event;
    event.kind = kind->get<std::string>();
    const bool wellTyped = take(*json, "message", event.message) && take(*json, "slotID", event.slotID) &&
                           take(*json, "level", event.level) && take(*json, "sampleRate", event.sampleRate) &&
                           take(*json, "tapBufferFrames", event.tapBufferFrames) &&
                           take(*json, "outputBufferFrames", event.outputBufferFrames) &&
                           take(*json, "sourceDeviceUID", event.sourceDeviceUID) &&
                           take(*json, "targetDeviceUID", event.targetDeviceUID) &&
                           take(*json, "lastIOAt", event.lastIOAt) &&
                           take(*json, "lastRawAudioAt", event.lastRawAudioAt);
    if (!wellTyped)
        return std::nullopt;
    return event;
}

} // namespace tonavi
