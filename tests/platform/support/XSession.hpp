#pragma once
// A private X display for the desktop tests: Xvfb on a free display number (it picks one and tells
// us through -displayfd), openbox on it to keep the EWMH properties, and real windows of our own
// processes. `start` says why when it cannot; the tests skip only when Xvfb itself cannot run.

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include <xcb/xcb.h>

#include "Eventually.hpp"
#include "Spawn.hpp"

namespace tonavi::test {

class XSession {
  public:
    ~XSession() { stop(); }

    // Xvfb on a new display number, or on `display` (":N") when given: the same display again.
    bool startServer(std::string& why, const std::string& display = {}) {
        if (!programExists("Xvfb")) {
            why = "Xvfb is not installed";
            return false;
        }
        // libXau builds the default authority path in a static buffer, so two threads connecting at
        // once (a test and the source it watches) race on it; a named file takes that path away. Xvfb
        // asks for no authority. Set before any thread of the test runs, and never changed after.
        ::setenv("XAUTHORITY", "/dev/null", 0);
        int out = -1;
        std::vector<std::string> argv{"Xvfb"};
        if (!display.empty())
            argv.push_back(display);
        // -noreset: the server must not reset when its last client (a probe of ours) leaves.
        for (const char* a : {"-screen", "0", "640x480x24", "-nolisten", "tcp", "-noreset", "-displayfd", "1"})
            argv.emplace_back(a);
        server_ = spawnProcess(argv, &out);
        const std::string number = server_ > 0 ? readLine(out) : std::string();
        if (out >= 0)
            ::close(out);
        if (number.empty()) {
            why = "Xvfb did not start";
            stopProcess(server_);
            server_ = -1;
            return false;
        }
        display_ = ":" + number;
        return true;
    }

    // openbox on the display, once it has claimed the window manager's selection.
    bool startWindowManager(std::string& why) {
        if (!programExists("openbox")) {
            why = "openbox is not installed";
            return false;
        }
        manager_ = spawnProcess({"openbox", "--sm-disable"}, nullptr, {"DISPLAY=" + display_});
        // openbox announces itself before it redirects the root's map requests; a window mapped in
        // between is never managed. A probe window that it lists shows it manages new windows.
        if (manager_ <= 0 || !eventually([&] { return probeManaged(); })) {
            why = "openbox did not take the display";
            return false;
        }
        return true;
    }

    void stop() {
        for (pid_t pid : clients_)
            stopProcess(pid);
        clients_.clear();
        stopProcess(std::exchange(manager_, -1));
        stopProcess(std::exchange(server_, -1));
    }

    // A window of a new process; its pid, and its X window ID in `window`.
    pid_t openWindow(const std::string& program, const std::string& title, std::string& window,
                     std::vector<std::string> environment = {}) {
        environment.push_back("DISPLAY=" + display_);
        int out = -1;
        const pid_t pid = spawnProcess({program, title}, &out, environment);
        window = pid > 0 ? readLine(out) : std::string();
        if (out >= 0)
            ::close(out);
        if (pid > 0)
            clients_.push_back(pid);
        return window.empty() ? -1 : pid;
    }

    // xdotool on this display; true when it exits 0. Its --sync waits for ever for a change the window
    // manager may not make on a loaded machine, so it is bounded.
    bool xdotool(const std::string& arguments) const {
        const std::string command =
            "DISPLAY=" + display_ + " timeout 10 xdotool " + arguments + " >/dev/null 2>&1";
        return std::system(command.c_str()) == 0;
    }

    // Maps a window of our own and says whether the window manager lists it within 300 ms.
    bool probeManaged() const {
        xcb_connection_t* c = xcb_connect(display_.c_str(), nullptr);
        bool listed = false;
        if (!xcb_connection_has_error(c)) {
            const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
            const xcb_window_t w = xcb_generate_id(c);
            xcb_create_window(c, XCB_COPY_FROM_PARENT, w, screen->root, 0, 0, 10, 10, 0,
                              XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, 0, nullptr);
            xcb_map_window(c, w);
            xcb_flush(c);
            const char* name = "_NET_CLIENT_LIST";
            auto* atom = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, 16, name), nullptr);
            listed = atom && eventually(
                                 [&] {
                                     auto* p = xcb_get_property_reply(
                                         c, xcb_get_property(c, 0, screen->root, atom->atom, XCB_ATOM_WINDOW, 0, 1024),
                                         nullptr);
                                     bool found = false;
                                     if (p) {
                                         const auto* ids = static_cast<const xcb_window_t*>(xcb_get_property_value(p));
                                         for (int i = 0; i < xcb_get_property_value_length(p) / 4; ++i)
                                             found = found || ids[i] == w;
                                     }
                                     std::free(p);
                                     return found;
                                 },
                                 std::chrono::milliseconds(300));
            std::free(atom);
            xcb_destroy_window(c, w);
            xcb_flush(c);
        }
        xcb_disconnect(c);
        return listed;
    }

    const std::string& display() const { return display_; }

  private:
    std::string display_;
    pid_t server_ = -1;
    pid_t manager_ = -1;
    std::vector<pid_t> clients_;
};

} // namespace tonavi::test
