#pragma once
// Raised when persisted JSON cannot be read as the record asked for: a required key is absent or
// of the wrong type, or the bytes are not JSON at all.

#include <stdexcept>
#include <string>

namespace tonavi {

class ConfigDecodeError : public std::runtime_error {
  public:
    explicit ConfigDecodeError(const std::string& what) : std::runtime_error(what) {}
};

} // namespace tonavi
