#pragma once
// The window in front on sway and i3, from their IPC socket ($SWAYSOCK, else $I3SOCK): GET_TREE once
// for the focused window at connection, then the "window" events it is subscribed to, whose "focus"
// changes carry the container with its "pid" (XWayland and X11 windows included). One thread,
// "tonavi.swayipc", owns the socket and sleeps in read() between events. No window list: the IPC's
// tree has no stacking order across outputs, so the front-window fallback gets nothing here.
// A socket that fails or closes is tried again with a backoff from 250 ms to 5 s, logged once per loss.

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "platform/linux/StoppableThread.hpp"
#include "platform/linux/FocusSource.hpp"

namespace tonavi {

class SwayFocusSource : public FocusSource {
  public:
    SwayFocusSource(std::string socketPath, ActiveChanged onChange);
    ~SwayFocusSource() override; // stops and joins the thread; no callback runs after it returns
    SwayFocusSource(const SwayFocusSource&) = delete;
    SwayFocusSource& operator=(const SwayFocusSource&) = delete;

    bool connected() const override;
    std::optional<pid_t> activePID() const override;
    std::optional<std::vector<WindowInfo>> windows() const override { return std::nullopt; }

    // The pid of the focused node of a GET_TREE reply, nullopt when none is focused or it has no pid.
    // Public for the tests; throws nothing (a damaged reply gives nullopt).
    static std::optional<pid_t> focusedPIDInTree(const std::string& json);

  private:
    void run();
    bool serve(int fd); // false when the connection ended (a stop returns true)
    void publish(std::optional<pid_t> active);

    const std::string path_;
    const ActiveChanged onChange_;
    mutable std::mutex mutex_; // leaf
    bool connected_ = false;
    std::optional<pid_t> active_;
    bool announced_ = false;
    std::optional<pid_t> lastAnnounced_;
    StoppableThread worker_; // last: it stops before the members its loop uses go
};

} // namespace tonavi
