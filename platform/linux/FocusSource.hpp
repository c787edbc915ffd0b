#pragma once
// A source of the window in front on a Linux session: the process owning the focused window, and the
// mapped windows front to back when the source can list them. Each source owns one thread and its
// connection; readers take cached answers and never wait for the display server.

#include <functional>
#include <optional>
#include <sys/types.h>
#include <vector>

#include "platform/Workspace.hpp"

namespace tonavi {

class FocusSource {
  public:
    // Called on the source's thread with the pid owning the focused window, nullopt when none is known.
    using ActiveChanged = std::function<void(std::optional<pid_t>)>;

    virtual ~FocusSource() = default;
    // Whether the connection to the display server or compositor is up now.
    virtual bool connected() const = 0;
    virtual std::optional<pid_t> activePID() const = 0;
    // Mapped client windows, front to back, with their owners' pids; nullopt when not known.
    virtual std::optional<std::vector<WindowInfo>> windows() const = 0;
};

} // namespace tonavi
