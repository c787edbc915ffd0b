#pragma once
// What a tap worker writes to its stdout: one JSON object a line. Every field but `kind` is
// optional, and an absent one leaves the parent's mirror of it unchanged.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tonavi {

struct TapWorkerEvent {
    static constexpr const char* ready = "ready";
    static constexpr const char* metrics = "metrics";
    static constexpr const char* auFailure = "au-failure";
    static constexpr const char* failure = "failure";

    std::string kind;
    std::optional<std::string> message;
    std::optional<std::string> slotID;
    std::optional<float> level;
    std::optional<double> sampleRate;
    std::optional<std::int64_t> tapBufferFrames;
    std::optional<std::int64_t> outputBufferFrames;
    std::optional<std::string> sourceDeviceUID;
    std::optional<std::string> targetDeviceUID;
    std::optional<double> lastIOAt;
    std::optional<double> lastRawAudioAt;

    static TapWorkerEvent failed(std::string message) {
        TapWorkerEvent event;
        event.kind = failure;
        event.message = std::move(message);
        return event;
    }

    static TapWorkerEvent slotFailed(std::string slotID, std::string message) {
        TapWorkerEvent event;
        event.kind = auFailure;
        event.slotID = std::move(slotID);
        event.message = std::move(message);
        return event;
    }

    // The encoded object followed by one line feed; absent fields are omitted.
    std::string line() const;
    // One line without its line feed; nothing when it is not JSON for an event (an object with a
    // string `kind`, every other present key of its type).
    static std::optional<TapWorkerEvent> decode(std::string_view line);

    bool operator==(const TapWorkerEvent&) const = default;
};

} // namespace tonavi
