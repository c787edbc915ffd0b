#pragma once
// The aggregate device that realises an output group, and the checks a group's record must pass
// before any hardware is touched. The UID is a hash of the group's ID, so it is the same after
// every restart: routes to the group keep working, and the service recognises its own aggregates.

#include <string>
#include <string_view>
#include <vector>

#include "core/config/OutputGroup.hpp"

namespace tonavi::OutputGroupIdentity {

inline constexpr std::string_view aggregateUIDPrefix = "com.brelmoor.tonavi.output-group.";
// The aggregate's name is this followed by the group's own name.
inline constexpr std::string_view aggregateNamePrefix = "Tonavi Group — ";

// The prefix followed by the 64-bit FNV-1a hash of the ID's UTF-8 bytes, upper-case hex, unpadded.
std::string aggregateDeviceUID(std::string_view groupID);
inline std::string aggregateDeviceUID(const OutputGroup& group) {
    return aggregateDeviceUID(group.id);
}

// The member UIDs in order; throws OutputGroupValidationError on the first failed test.
std::vector<std::string> validatedMemberUIDs(const OutputGroup& group);

} // namespace tonavi::OutputGroupIdentity
