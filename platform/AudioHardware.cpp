#include "platform/AudioHardware.hpp"

namespace tonavi {

// The byte size Core Audio reports for a property of this type.
std::uint32_t propertyDataSize(const AudioPropertyValue& v) {
    struct Visitor {
        std::uint32_t operator()(std::monostate) const { return 0; }
        std::uint32_t operator()(std::uint32_t) const { return 4; }
        std::uint32_t operator()(std::int32_t) const { return 4; }
        std::uint32_t operator()(float) const { return 4; }
        std::uint32_t operator()(double) const { return 8; }
        std::uint32_t operator()(const std::string&) const { return sizeof(void*); } // a CFStringRef
        std::uint32_t operator()(const std::vector<AudioObjectID>& ids) const {
            return static_cast<std::uint32_t>(ids.size() * sizeof(AudioObjectID));
        }
        std::uint32_t operator()(const AudioStreamConfiguration& c) const {
            // AudioBufferList: the count, padded, then 16 bytes per AudioBuffer.
            return static_cast<std::uint32_t>(8 + 16 * c.channelsPerBuffer.size());
        }
        std::uint32_t operator()(const AudioValueRange&) const { return 16; }
        std::uint32_t operator()(const AudioHardwareIOProcStreamUsage& u) const {
            return static_cast<std::uint32_t>(sizeof(void*) + 4 + 4 * u.mStreamIsOn.size());
        }
    };
    return std::visit(Visitor{}, v);
}

} // namespace tonavi
