#include "core/outputs/OutputGroupIdentity.hpp"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <set>

#include "core/outputs/OutputGroupValidationError.hpp"

namespace tonavi::OutputGroupIdentity {

std::string aggregateDeviceUID(std::string_view groupID) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (unsigned char byte : groupID) {
        hash ^= byte;
        hash *= 0x100000001b3ULL;
    }
    char hex[17];
    std::snprintf(hex, sizeof hex, "%llX", static_cast<unsigned long long>(hash));
    return std::string(aggregateUIDPrefix) + hex;
}

std::vector<std::string> validatedMemberUIDs(const OutputGroup& group) {
    using Kind = OutputGroupValidationError::Kind;
    bool blankName = true;
    for (unsigned char c : group.name)
        blankName = blankName && std::isspace(c);
    if (blankName)
        throw OutputGroupValidationError(Kind::emptyName);
    if (group.members.size() < 2)
        throw OutputGroupValidationError(Kind::tooFewMembers);
    std::vector<std::string> uids;
    for (const auto& m : group.members) {
        if (m.id.empty())
            throw OutputGroupValidationError(Kind::emptyMemberUID);
        uids.push_back(m.id);
    }
    if (std::set<std::string>(uids.begin(), uids.end()).size() != uids.size())
        throw OutputGroupValidationError(Kind::duplicateMemberUID);
    const std::string own = aggregateDeviceUID(group);
    for (const auto& uid : uids)
        if (uid == own || uid.starts_with(aggregateUIDPrefix))
            throw OutputGroupValidationError(Kind::recursiveGroup);
    return uids;
}

} // namespace tonavi::OutputGroupIdentity
