#pragma once
// The window in front on an X11 display, from the window manager's EWMH properties on the root window:
// `_NET_ACTIVE_WINDOW` and that window's `_NET_WM_PID`, and `_NET_CLIENT_LIST_STACKING` for the window
// list. One thread, "tonavi.x11focus", owns the connection: it waits on the connection's socket for
// property and structure events (no polling), keeps the answers in memory and calls `onChange` when
// the active window's process changes. Readers take the cached answers under a leaf lock and never
// talk to the X server themselves, so a hung or vanished display cannot stall them.
//
// Without a display the answers are empty. A connection that fails or drops is tried again with a
// backoff from 250 ms to 5 s, so a display that comes back (an X server restarted on the same
// DISPLAY) is picked up; each lost or refused connection is logged once, until one succeeds again.

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

#include "platform/linux/StoppableThread.hpp"
#include "platform/linux/FocusSource.hpp"

namespace tonavi {

class X11FocusSource : public FocusSource {
  public:
    // onChange: nullopt when there is no active window, a window without `_NET_WM_PID`, a window of
    // another host, or no display.

    // `display` is the X display name ("" takes $DISPLAY). Starts the thread unless no display is
    // named at all, which is logged once.
    X11FocusSource(std::string display, ActiveChanged onChange);
    ~X11FocusSource() override; // stops and joins the thread; no callback runs after it returns
    X11FocusSource(const X11FocusSource&) = delete;
    X11FocusSource& operator=(const X11FocusSource&) = delete;

    // Whether a connection with an EWMH window manager is up now.
    bool connected() const override;
    std::optional<pid_t> activePID() const override;
    // nullopt without a connection, or without the window manager's stacking list.
    std::optional<std::vector<WindowInfo>> windows() const override;

  private:
    struct Connection;
    void run();
    bool serve(Connection& c); // false when the connection ended (a stop returns true)
    void publish(std::optional<pid_t> active, std::optional<std::vector<WindowInfo>> windows);

    const std::string display_;
    const ActiveChanged onChange_;
    // The connection's socket while one is up, so that a stop can cut a reply wait on a hung server.
    std::mutex socketMutex_;
    int socketFD_ = -1;

    mutable std::mutex mutex_; // leaf: guards the three answers below
    bool connected_ = false;
    std::optional<pid_t> active_;
    std::optional<std::vector<WindowInfo>> windows_;
    bool announced_ = false; // onChange_ has been called at least once (on the thread only)
    std::optional<pid_t> lastAnnounced_;

    StoppableThread worker_; // last: it stops before the members its loop uses go
};

} // namespace tonavi
