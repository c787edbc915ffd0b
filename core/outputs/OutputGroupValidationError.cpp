#include "core/outputs/OutputGroupValidationError.hpp"

namespace tonavi {

OutputGroupValidationError::OutputGroupValidationError(Kind kind)
    : std::runtime_error(errorDescription(kind)), kind_(kind) {}

const char* OutputGroupValidationError::errorDescription(Kind kind) {
    switch (kind) {
    case Kind::emptyName:
        return "output group needs a name";
    case Kind::tooFewMembers:
        return "output group needs at least two output devices";
    case Kind::emptyMemberUID:
        return "output group contains a device with no UID";
    case Kind::duplicateMemberUID:
        return "an output device can appear only once in a group";
    case Kind::recursiveGroup:
        return "output groups cannot contain another Tonavi output group";
    }
    return "output group is not valid";
}

} // namespace tonavi
