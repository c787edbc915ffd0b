#pragma once
// Raised when a record cannot be written as JSON (a number that is not finite, text that is not
// UTF-8). Nothing on disk has been touched when it is raised.

#include <stdexcept>
#include <string>

namespace tonavi {

class ConfigEncodeError : public std::runtime_error {
  public:
    explicit ConfigEncodeError(const std::string& what) : std::runtime_error(what) {}
};

} // namespace tonavi
