#pragma once
// Why an output group's record cannot be realised, decided without hardware.

#include <stdexcept>

namespace tonavi {

class OutputGroupValidationError : public std::runtime_error {
  public:
    enum class Kind { emptyName, tooFewMembers, emptyMemberUID, duplicateMemberUID, recursiveGroup };

    explicit OutputGroupValidationError(Kind kind);
    Kind kind() const { return kind_; }
    static const char* errorDescription(Kind kind);

  private:
    Kind kind_;
};

} // namespace tonavi
