#pragma once
// One real top-level X11 window for the desktop tests, as a toolkit would make it: WM_NAME, and the
// EWMH owner facts _NET_WM_PID and WM_CLIENT_MACHINE that a window manager and the workspace read.
// Opened on $DISPLAY; events are drained by whoever owns the connection (drain()).

#include <cstdint>
#include <cstring>
#include <string>
#include <unistd.h>
#include <xcb/xcb.h>

namespace tonavi::test {

class TestWindow {
  public:
    // False when the display does not answer.
    bool open(const std::string& title) {
        connection_ = xcb_connect(nullptr, nullptr);
        if (xcb_connection_has_error(connection_))
            return false;
        const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
        window_ = xcb_generate_id(connection_);
        const std::uint32_t values[] = {screen->white_pixel, XCB_EVENT_MASK_STRUCTURE_NOTIFY};
        xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window_, screen->root, 0, 0, 200, 120, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK,
                          values);
        set(XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8, title.size(), title.data());
        const std::uint32_t pid = static_cast<std::uint32_t>(::getpid());
        set(atom("_NET_WM_PID"), XCB_ATOM_CARDINAL, 32, 1, &pid);
        char host[256] = {};
        ::gethostname(host, sizeof(host) - 1);
        set(XCB_ATOM_WM_CLIENT_MACHINE, XCB_ATOM_STRING, 8, std::strlen(host), host);
        xcb_map_window(connection_, window_);
        xcb_flush(connection_);
        return true;
    }
    ~TestWindow() {
        if (connection_)
            xcb_disconnect(connection_);
    }
    std::uint32_t id() const { return window_; }
    int fd() const { return xcb_get_file_descriptor(connection_); }
    // False once the display has gone.
    bool drain() {
        while (xcb_generic_event_t* e = xcb_poll_for_event(connection_))
            std::free(e);
        return xcb_connection_has_error(connection_) == 0;
    }

  private:
    xcb_atom_t atom(const char* name) {
        auto cookie = xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(std::strlen(name)), name);
        xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(connection_, cookie, nullptr);
        const xcb_atom_t a = reply ? reply->atom : XCB_NONE;
        std::free(reply);
        return a;
    }
    void set(xcb_atom_t property, xcb_atom_t type, std::uint8_t format, std::size_t count, const void* data) {
        xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, window_, property, type, format,
                            static_cast<std::uint32_t>(count), data);
    }
    xcb_connection_t* connection_ = nullptr;
    xcb_window_t window_ = 0;
};

} // namespace tonavi::test
