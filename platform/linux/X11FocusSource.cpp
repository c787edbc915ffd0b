#include "platform/linux/X11FocusSource.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include "base/Log.hpp"

namespace tonavi {

namespace {

// Window types that are an application's own windows; the others (docks, panels, notifications)
// get a layer above the applications', as the dock and menu bar have on macOS, and desktop windows
// are left out of the list altogether.
constexpr int applicationLayer = 0;
constexpr int panelLayer = 20;

template <class T> struct FreeDeleter {
    void operator()(T* p) const { std::free(p); }
};
template <class T> using Reply = std::unique_ptr<T, FreeDeleter<T>>;

std::string hostName() {
    char buffer[256] = {};
    if (::gethostname(buffer, sizeof(buffer) - 1) != 0)
        return {};
    return buffer;
}

} // namespace

struct X11FocusSource::Connection {
    xcb_connection_t* xcb = nullptr;
    xcb_window_t root = XCB_NONE;
    xcb_atom_t activeWindow = XCB_NONE;
    xcb_atom_t clientListStacking = XCB_NONE;
    xcb_atom_t wmPID = XCB_NONE;
    xcb_atom_t windowType = XCB_NONE;
    xcb_atom_t typeNormal = XCB_NONE;
    xcb_atom_t typeDialog = XCB_NONE;
    xcb_atom_t typeUtility = XCB_NONE;
    xcb_atom_t typeDesktop = XCB_NONE;
    std::vector<xcb_window_t> watched; // client windows whose structure events we asked for
    std::string host = hostName();

    ~Connection() {
        if (xcb)
            xcb_disconnect(xcb);
    }

    xcb_atom_t intern(const char* name) {
        auto cookie = xcb_intern_atom(xcb, 0, static_cast<std::uint16_t>(std::strlen(name)), name);
        Reply<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(xcb, cookie, nullptr));
        return reply ? reply->atom : XCB_NONE;
    }

    // The windows of a WINDOW-typed property of the root, in the property's order.
    std::optional<std::vector<xcb_window_t>> rootWindows(xcb_atom_t property, std::uint32_t maximum) {
        auto cookie = xcb_get_property(xcb, 0, root, property, XCB_ATOM_WINDOW, 0, maximum);
        Reply<xcb_get_property_reply_t> reply(xcb_get_property_reply(xcb, cookie, nullptr));
        if (!reply || reply->type != XCB_ATOM_WINDOW || reply->format != 32)
            return std::nullopt;
        const auto* values = static_cast<const xcb_window_t*>(xcb_get_property_value(reply.get()));
        const int count = xcb_get_property_value_length(reply.get()) / 4;
        return std::vector<xcb_window_t>(values, values + count);
    }

    struct WindowFacts {
        std::optional<pid_t> pid;
        bool viewable = false;
        bool desktop = false;
        int layer = applicationLayer;
    };

    // Facts of many windows in one pipeline: every request goes out before the first reply is read.
    std::vector<WindowFacts> facts(const std::vector<xcb_window_t>& windows, bool withTypes) {
        struct Cookies {
            xcb_get_property_cookie_t pid, machine, type;
            xcb_get_window_attributes_cookie_t attributes;
        };
        std::vector<Cookies> cookies;
        cookies.reserve(windows.size());
        for (auto w : windows) {
            Cookies c{};
            c.pid = xcb_get_property(xcb, 0, w, wmPID, XCB_ATOM_CARDINAL, 0, 1);
            c.machine = xcb_get_property(xcb, 0, w, XCB_ATOM_WM_CLIENT_MACHINE, XCB_ATOM_STRING, 0, 64);
            if (withTypes) {
                c.type = xcb_get_property(xcb, 0, w, windowType, XCB_ATOM_ATOM, 0, 16);
                c.attributes = xcb_get_window_attributes(xcb, w);
            }
            cookies.push_back(c);
        }
        std::vector<WindowFacts> out(windows.size());
        for (std::size_t i = 0; i < windows.size(); ++i) {
            auto& f = out[i];
            Reply<xcb_get_property_reply_t> pid(xcb_get_property_reply(xcb, cookies[i].pid, nullptr));
            Reply<xcb_get_property_reply_t> machine(xcb_get_property_reply(xcb, cookies[i].machine, nullptr));
            if (pid && pid->type == XCB_ATOM_CARDINAL && pid->format == 32 &&
                xcb_get_property_value_length(pid.get()) >= 4) {
                const auto value = *static_cast<const std::uint32_t*>(xcb_get_property_value(pid.get()));
                // A pid is only this machine's when the window says it is from this host (or says
                // nothing): a remote client's pid names some unrelated local process.
                bool local = true;
                if (machine && machine->type == XCB_ATOM_STRING && xcb_get_property_value_length(machine.get()) > 0) {
                    std::string name(static_cast<const char*>(xcb_get_property_value(machine.get())),
                                     static_cast<std::size_t>(xcb_get_property_value_length(machine.get())));
                    name = name.c_str(); // the property may carry its terminating NUL
                    local = host.empty() || name == host || name == "localhost";
                }
                if (value > 0 && local)
                    f.pid = static_cast<pid_t>(value);
            }
            if (!withTypes)
                continue;
            Reply<xcb_get_property_reply_t> type(xcb_get_property_reply(xcb, cookies[i].type, nullptr));
            Reply<xcb_get_window_attributes_reply_t> attributes(
                xcb_get_window_attributes_reply(xcb, cookies[i].attributes, nullptr));
            f.viewable = attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE;
            if (type && type->type == XCB_ATOM_ATOM && type->format == 32 &&
                xcb_get_property_value_length(type.get()) >= 4) {
                // The first type is the preferred one.
                const auto first = *static_cast<const xcb_atom_t*>(xcb_get_property_value(type.get()));
                f.desktop = first == typeDesktop;
                if (first != typeNormal && first != typeDialog && first != typeUtility)
                    f.layer = panelLayer;
            }
        }
        return out;
    }

    void watch(const std::vector<xcb_window_t>& windows) {
        // Map, unmap and destroy of a client window change the list without touching the root's
        // properties (a window minimised in place), so each listed window tells us itself.
        const std::uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY | XCB_EVENT_MASK_PROPERTY_CHANGE;
        for (auto w : windows)
            if (std::find(watched.begin(), watched.end(), w) == watched.end())
                xcb_change_window_attributes(xcb, w, XCB_CW_EVENT_MASK, &mask);
        watched = windows;
    }
};

X11FocusSource::X11FocusSource(std::string display, ActiveChanged onChange)
    : display_(display.empty() ? (std::getenv("DISPLAY") ? std::getenv("DISPLAY") : "") : std::move(display)),
      onChange_(std::move(onChange)) {
    if (display_.empty()) {
        Log::info("tonavi: no X display (DISPLAY is unset): no application in front from X11");
        return;
    }
    if (const std::string why = worker_.start("tonavi.x11focus", [this] { run(); }); !why.empty())
        Log::info("tonavi: X11 focus source not started: " + why);
}

X11FocusSource::~X11FocusSource() {
    worker_.requestStop();
    {
        std::lock_guard guard(socketMutex_);
        if (socketFD_ >= 0)
            ::shutdown(socketFD_, SHUT_RDWR);
    }
    worker_.join();
}

bool X11FocusSource::connected() const {
    std::lock_guard guard(mutex_);
    return connected_;
}

std::optional<pid_t> X11FocusSource::activePID() const {
    std::lock_guard guard(mutex_);
    return active_;
}

std::optional<std::vector<WindowInfo>> X11FocusSource::windows() const {
    std::lock_guard guard(mutex_);
    return windows_;
}

void X11FocusSource::publish(std::optional<pid_t> active, std::optional<std::vector<WindowInfo>> windows) {
    {
        std::lock_guard guard(mutex_);
        active_ = active;
        windows_ = std::move(windows);
    }
    if (announced_ && lastAnnounced_ == active)
        return;
    announced_ = true;
    lastAnnounced_ = active;
    if (onChange_ && !worker_.stopping())
        onChange_(active);
}

void X11FocusSource::run() {
    int backoff = 250;
    bool loggedFailure = false;
    while (!worker_.stopping()) {
        Connection c;
        int screen = 0;
        c.xcb = xcb_connect(display_.c_str(), &screen);
        if (const int error = xcb_connection_has_error(c.xcb); error != 0) {
            if (!loggedFailure)
                Log::info("tonavi: X display " + display_ + " does not answer (xcb error " + std::to_string(error) +
                          "); trying again in the background");
            loggedFailure = true;
            if (!worker_.waitUnlessStopped(backoff))
                break;
            backoff = std::min(backoff * 2, 5000);
            continue;
        }
        auto roots = xcb_setup_roots_iterator(xcb_get_setup(c.xcb));
        for (int i = 0; i < screen && roots.rem > 0; ++i)
            xcb_screen_next(&roots);
        c.root = roots.data ? roots.data->root : XCB_NONE;
        Log::info("tonavi: following the active window on X display " + display_);
        loggedFailure = false;
        backoff = 250;
        {
            std::lock_guard guard(socketMutex_);
            socketFD_ = xcb_get_file_descriptor(c.xcb);
        }
        {
            std::lock_guard guard(mutex_);
            connected_ = true;
        }
        const bool stopped = serve(c) || worker_.stopping();
        {
            std::lock_guard guard(socketMutex_);
            socketFD_ = -1;
        }
        {
            std::lock_guard guard(mutex_);
            connected_ = false;
        }
        publish(std::nullopt, std::nullopt);
        if (stopped || worker_.stopping())
            break;
        Log::info("tonavi: X display " + display_ + " connection lost; reconnecting");
        loggedFailure = true;
        if (!worker_.waitUnlessStopped(backoff))
            break;
    }
}

bool X11FocusSource::serve(Connection& c) {
    c.activeWindow = c.intern("_NET_ACTIVE_WINDOW");
    c.clientListStacking = c.intern("_NET_CLIENT_LIST_STACKING");
    c.wmPID = c.intern("_NET_WM_PID");
    c.windowType = c.intern("_NET_WM_WINDOW_TYPE");
    c.typeNormal = c.intern("_NET_WM_WINDOW_TYPE_NORMAL");
    c.typeDialog = c.intern("_NET_WM_WINDOW_TYPE_DIALOG");
    c.typeUtility = c.intern("_NET_WM_WINDOW_TYPE_UTILITY");
    c.typeDesktop = c.intern("_NET_WM_WINDOW_TYPE_DESKTOP");
    if (c.root == XCB_NONE || c.activeWindow == XCB_NONE || xcb_connection_has_error(c.xcb))
        return false;
    // The window manager writes both root properties on every focus and restacking change.
    const std::uint32_t rootMask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(c.xcb, c.root, XCB_CW_EVENT_MASK, &rootMask);

    auto refresh = [&] {
        std::optional<pid_t> active;
        if (auto ids = c.rootWindows(c.activeWindow, 1); ids && !ids->empty() && ids->front() != XCB_NONE)
            active = c.facts({ids->front()}, false).front().pid;
        std::optional<std::vector<WindowInfo>> list;
        if (auto stacking = c.rootWindows(c.clientListStacking, 4096)) {
            c.watch(*stacking);
            const auto facts = c.facts(*stacking, true);
            list.emplace();
            // The property runs bottom to top; the workspace answers front to back.
            for (std::size_t i = stacking->size(); i-- > 0;) {
                const auto& f = facts[i];
                if (!f.viewable || f.desktop)
                    continue;
                list->push_back(WindowInfo{f.layer, f.pid});
            }
        }
        xcb_flush(c.xcb);
        publish(active, std::move(list));
    };

    refresh();
    const int fd = xcb_get_file_descriptor(c.xcb);
    while (!worker_.stopping()) {
        bool dirty = false;
        while (xcb_generic_event_t* raw = xcb_poll_for_event(c.xcb)) {
            Reply<xcb_generic_event_t> event(raw);
            switch (event->response_type & 0x7f) {
            case XCB_PROPERTY_NOTIFY: {
                const auto* p = reinterpret_cast<const xcb_property_notify_event_t*>(event.get());
                if (p->window == c.root ? (p->atom == c.activeWindow || p->atom == c.clientListStacking)
                                        : (p->atom == c.wmPID || p->atom == c.windowType))
                    dirty = true;
                break;
            }
            case XCB_MAP_NOTIFY:
            case XCB_UNMAP_NOTIFY:
            case XCB_DESTROY_NOTIFY:
                dirty = true;
                break;
            default: // errors of windows that went away meanwhile, and events we do not use
                break;
            }
        }
        if (xcb_connection_has_error(c.xcb))
            return false;
        if (dirty) {
            refresh();
            continue; // the round trips may have queued more events
        }
        pollfd fds[2] = {{fd, POLLIN, 0}, {worker_.wakeFD(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR)
            return false;
        if (fds[1].revents & POLLIN)
            return true;
    }
    return true;
}

} // namespace tonavi
