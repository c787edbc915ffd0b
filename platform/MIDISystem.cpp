#include "platform/MIDISystem.hpp"

namespace tonavi {

void MIDIEventListBuilder::add(std::uint64_t timeStamp, std::span<const std::uint32_t> packetWords) {
    words_.push_back(static_cast<std::uint32_t>(timeStamp & 0xFFFFFFFFu));
    words_.push_back(static_cast<std::uint32_t>(timeStamp >> 32));
    words_.push_back(static_cast<std::uint32_t>(packetWords.size()));
    words_.insert(words_.end(), packetWords.begin(), packetWords.end());
    ++packets_;
}

namespace {
// Data bytes that follow a channel voice status: program change and channel pressure take one.
int dataBytes(std::uint8_t status) {
    const std::uint8_t kind = status & 0xF0;
    return (kind == 0xC0 || kind == 0xD0) ? 1 : 2;
}
} // namespace

std::vector<std::uint32_t> umpWordsFromMIDI1Bytes(std::span<const std::uint8_t> bytes, std::uint8_t& status) {
    std::vector<std::uint32_t> words;
    std::uint8_t data[2] = {0, 0};
    int have = 0;
    for (std::uint8_t byte : bytes) {
        if (byte >= 0xF8)
            continue; // real-time bytes may sit anywhere, even inside a message
        if (byte & 0x80) {
            // A channel status starts a message; a system status (SysEx, song position, ...) ends
            // running status, and its data bytes are dropped until the next channel status.
            status = byte < 0xF0 ? byte : 0;
            have = 0;
            continue;
        }
        if (status == 0)
            continue;
        data[have++] = byte;
        if (have == dataBytes(status)) {
            words.push_back(0x20000000u | (std::uint32_t(status) << 16) | (std::uint32_t(data[0]) << 8) |
                            (have == 2 ? data[1] : 0u));
            have = 0;
        }
    }
    return words;
}

} // namespace tonavi
