#pragma once
// The failure of the framing layer. The two cases print as "cannot connect: ..." and "io error: ...".

#include <stdexcept>
#include <string>

namespace tonavi {

class TransportError : public std::runtime_error {
public:
    enum class Kind { cannotConnect, io };

    static TransportError cannotConnect(const std::string& detail) { return {Kind::cannotConnect, detail}; }
    static TransportError io(const std::string& detail) { return {Kind::io, detail}; }

    Kind kind() const { return kind_; }
    const std::string& detail() const { return detail_; }

private:
    TransportError(Kind kind, const std::string& detail)
        : std::runtime_error((kind == Kind::cannotConnect ? "cannot connect: " : "io error: ") + detail),
          kind_(kind), detail_(detail) {}
    Kind kind_;
    std::string detail_;
};

}  // namespace tonavi
