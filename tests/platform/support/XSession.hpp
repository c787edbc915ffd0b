#pragma once
// A private X display for the desktop tests: Xvfb on a free display number (it picks one and tells
// us through -displayfd), openbox on it to keep the EWMH properties, and real windows of our own
// processes. `start` says why when it cannot; the tests skip only when Xvfb itself cannot run.

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <xcb/xcb.h>

#include "Eventually.hpp"

extern char** environ;

namespace tonavi::test {

// Starts argv with stdout on a pipe when `out` is given; -1 when it cannot start.
inline pid_t spawnProcess(const std::vector<std::string>& argv, int* out = nullptr,
                          const std::vector<std::string>& extraEnvironment = {}) {
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        env.emplace_back(*e);
    for (const auto& e : extraEnvironment)
        env.push_back(e);
    std::vector<char*> envp;
    for (auto& e : env)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    int fds[2] = {-1, -1};
    if (out) {
        if (::pipe2(fds, O_CLOEXEC) != 0)
            return -1;
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    }
    const int devnull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    posix_spawn_file_actions_adddup2(&actions, devnull, 2);
    if (!out)
        posix_spawn_file_actions_adddup2(&actions, devnull, 1);
    pid_t pid = -1;
    const int r = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(devnull);
    if (out) {
        ::close(fds[1]);
        *out = fds[0];
    }
    return r == 0 ? pid : -1;
}

inline void stopProcess(pid_t pid, int signal = SIGTERM) {
    if (pid <= 0)
        return;
    ::kill(pid, signal);
    int status = 0;
    ::waitpid(pid, &status, 0);
}

// One line from a pipe, waiting at most `timeoutMs`; empty on time-out or end of file.
inline std::string readLine(int fd, int timeoutMs = 10'000) {
    std::string line;
    char c = 0;
    while (true) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) <= 0 || ::read(fd, &c, 1) != 1)
            return {};
        if (c == '\n')
            return line;
        line += c;
    }
}

inline bool programExists(const char* name) {
    const std::string command = std::string("command -v ") + name + " >/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}

class XSession {
  public:
    ~XSession() { stop(); }

    // Xvfb on a new display number, or on `display` (":N") when given: the same display again.
    bool startServer(std::string& why, const std::string& display = {}) {
        if (!programExists("Xvfb")) {
            why = "Xvfb is not installed";
            return false;
        }
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

    bool start(std::string& why) { return startServer(why) && startWindowManager(why); }

    void stopServer() {
        stopProcess(manager_);
        manager_ = -1;
        stopProcess(server_);
        server_ = -1;
    }
    void stop() {
        for (pid_t pid : clients_)
            stopProcess(pid);
        clients_.clear();
        stopServer();
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
    void adopt(pid_t pid) { clients_.push_back(pid); }

    // xdotool on this display; true when it exits 0.
    bool xdotool(const std::string& arguments) const {
        const std::string command = "DISPLAY=" + display_ + " xdotool " + arguments + " >/dev/null 2>&1";
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
