#pragma once
// Raised by the strict readers of effect and chain records. The message names the key at fault.

#include <stdexcept>
#include <string>

namespace kavore {

class JSONDecodeError : public std::runtime_error {
  public:
    explicit JSONDecodeError(const std::string& message) : std::runtime_error(message) {}
};

} // namespace kavore
