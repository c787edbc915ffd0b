#pragma once
// A value on the control socket that does not decode.

#include <stdexcept>
#include <string>

namespace tonavi {

class WireDecodingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Thrown when a value cannot be written, e.g. a number that is not finite.
class WireEncodingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace tonavi
