// The desktop around the Linux backend, with real parts: the application in front from a private
// Xvfb display run by openbox, with windows of our own processes activated from outside by xdotool,
// and sleep and wake from a private bus standing in for the system bus, on which the test plays
// logind. The X cases skip, saying why, only where Xvfb cannot start.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <utility>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>

#include "base/Dispatch.hpp"
#include "platform/linux/LogindSleepSource.hpp"
#include "platform/linux/SwayFocusSource.hpp"
#include "platform/linux/X11FocusSource.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"
#include "platform/pipewire/PipeWireWorkspace.hpp"
#include "support/Eventually.hpp"
#include "support/XSession.hpp"

using namespace tonavi;
using tonavi::test::eventually;

namespace {

class XDesktop : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string why;
        if (!x.startServer(why))
            GTEST_SKIP() << "no X display for the desktop tests: " << why;
        ASSERT_TRUE(x.startWindowManager(why)) << why;
    }
    // Two windows of two processes, the second activated last.
    void openTwo() {
        pidA = x.openWindow(TONAVI_WINDOW_CLIENT, "Tonavi A", windowA);
        pidB = x.openWindow(TONAVI_WINDOW_CLIENT, "Tonavi B", windowB);
        ASSERT_GT(pidA, 0);
        ASSERT_GT(pidB, 0);
    }
    static std::vector<pid_t> owners(const std::optional<std::vector<WindowInfo>>& windows) {
        std::vector<pid_t> out;
        for (const auto& w : windows.value_or(std::vector<WindowInfo>{}))
            if (w.ownerPID && w.layer == 0)
                out.push_back(*w.ownerPID);
        return out;
    }
    test::XSession x;
    pid_t pidA = -1, pidB = -1;
    std::string windowA, windowB;
};

// What a source announced, in order, from its thread.
struct Announcements {
    std::mutex mutex;
    std::vector<std::optional<pid_t>> seen;
    void add(std::optional<pid_t> pid) {
        std::lock_guard guard(mutex);
        seen.push_back(pid);
    }
    std::optional<pid_t> last() {
        std::lock_guard guard(mutex);
        return seen.empty() ? std::nullopt : seen.back();
    }
    std::size_t count() {
        std::lock_guard guard(mutex);
        return seen.size();
    }
};

} // namespace

// The source, and the workspace above its own source: the application owning the window in front, and
// its activation events on the observer's queue. No audio server is needed: a silent window's
// application is named from its program.
TEST_F(XDesktop, TheSourceAndTheWorkspaceFollowActivationsFromOutside) {
    openTwo();
    Announcements announced;
    X11FocusSource source(x.display(), [&](std::optional<pid_t> pid) { announced.add(pid); });
    ::setenv("DISPLAY", x.display().c_str(), 1);
    PipeWireWorkspace workspace(std::make_shared<PipeWireConnection>());
    DispatchQueue queue("tonavi.test.activations");
    std::mutex mutex;
    std::vector<RunningApplication> activated;
    bool onQueue = true;
    const auto token = workspace.addActivationObserver(queue, [&](const RunningApplication& app) {
        std::lock_guard guard(mutex);
        onQueue = onQueue && queue.isCurrent();
        activated.push_back(app);
    });
    const auto inFront = [&](pid_t pid) {
        std::lock_guard guard(mutex);
        return announced.last() == pid && !activated.empty() && activated.back().processIdentifier == pid;
    };
    ASSERT_TRUE(eventually([&] { return source.connected(); }));
    ASSERT_TRUE(eventually([&] { return owners(source.windows()).size() == 2; }));

    ASSERT_TRUE(x.xdotool("windowactivate --sync " + windowA));
    ASSERT_TRUE(eventually([&] { return inFront(pidA); }));
    EXPECT_EQ(source.activePID(), pidA);
    ASSERT_TRUE(eventually([&] { return owners(source.windows()) == std::vector<pid_t>{pidA, pidB}; }))
        << "front to back, the active window first";

    const auto before = announced.count();
    ASSERT_TRUE(x.xdotool("windowactivate --sync " + windowB));
    ASSERT_TRUE(eventually([&] { return inFront(pidB); }));
    {
        // The window manager may clear the active window between two focus changes; apart from that,
        // one announcement per change of the process in front.
        std::scoped_lock guard(announced.mutex, mutex);
        std::vector<std::optional<pid_t>> since(announced.seen.begin() + static_cast<long>(before), announced.seen.end());
        std::erase(since, std::nullopt);
        EXPECT_EQ(since, (std::vector<std::optional<pid_t>>{pidB}));
        EXPECT_TRUE(onQueue);
        EXPECT_EQ(activated.back().bundleIdentifier, "platform_window_client");
    }
    ASSERT_TRUE(eventually([&] { return owners(source.windows()) == std::vector<pid_t>{pidB, pidA}; }));
    const auto front = workspace.frontmostApplication();
    EXPECT_EQ(front ? front->processIdentifier : 0, pidB);
    EXPECT_EQ(owners(workspace.onScreenWindows()).size(), 2u);

    // A window minimised in place leaves the list without any change of the root's stacking order.
    ASSERT_TRUE(x.xdotool("windowminimize --sync " + windowB));
    ASSERT_TRUE(eventually([&] { return owners(source.windows()) == std::vector<pid_t>{pidA}; }));
    // A process that has gone owns nothing: no application, and no activation for it.
    test::stopProcess(pidB, SIGKILL);
    EXPECT_EQ(workspace.applicationOwning(pidB), std::nullopt);
    // The window going away activates the other one: no delivery may outlive what it writes to.
    workspace.removeObserver(token);
    queue.sync([] {});
    ::unsetenv("DISPLAY");
}

TEST_F(XDesktop, ADisplayThatGoesAwayEmptiesTheAnswersAndIsFollowedAgainWhenItReturns) {
    openTwo();
    Announcements announced;
    X11FocusSource source(x.display(), [&](std::optional<pid_t> pid) { announced.add(pid); });
    ASSERT_TRUE(x.xdotool("windowactivate --sync " + windowA));
    ASSERT_TRUE(eventually([&] { return announced.last() == pidA; }));

    const std::string display = x.display();
    x.stop();
    ASSERT_TRUE(eventually([&] { return !source.connected(); }));
    EXPECT_EQ(source.activePID(), std::nullopt);
    EXPECT_EQ(source.windows(), std::nullopt) << "no list at all, not an empty one, without a display";
    EXPECT_EQ(announced.last(), std::nullopt);

    std::string why;
    ASSERT_TRUE(x.startServer(why, display)) << why;
    ASSERT_TRUE(x.startWindowManager(why)) << why;
    std::string window;
    const pid_t pid = x.openWindow(TONAVI_WINDOW_CLIENT, "Tonavi again", window);
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(x.xdotool("windowactivate --sync " + window));
    ASSERT_TRUE(eventually([&] { return source.connected() && announced.last() == pid; }, std::chrono::seconds(15)))
        << "the source reconnects with its backoff of at most 5 s";
    EXPECT_EQ(owners(source.windows()), std::vector<pid_t>{pid});
}

// Sleep and wake from a private bus in the place of the system bus. The signal counts only from the
// owner of "org.freedesktop.login1", so the test takes that name on its own connection.
TEST(LogindSleepSource, PrepareForSleepFromLogindDrivesSleepAndWakeAndForgeriesDoNot) {
    if (!test::programExists("dbus-daemon"))
        GTEST_SKIP() << "dbus-daemon is not installed";
    int out = -1;
    struct Daemon { // stopped on every path, a failed assertion's too
        pid_t pid;
        ~Daemon() { test::stopProcess(pid); }
    } daemon{test::spawnProcess({"dbus-daemon", "--session", "--nofork", "--print-address=1"}, &out)};
    const std::string address = test::readLine(out);
    ::close(out);
    ASSERT_FALSE(address.empty());
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);

    std::mutex mutex;
    std::vector<bool> events;
    LogindSleepSource source([&](bool sleeping) {
        std::lock_guard guard(mutex);
        events.push_back(sleeping);
    });
    ASSERT_TRUE(eventually([&] { return source.listening(); }));

    auto emit = [&](sd_bus* bus, bool sleeping) {
        ASSERT_GE(sd_bus_emit_signal(bus, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                     "PrepareForSleep", "b", sleeping ? 1 : 0),
                  0);
        sd_bus_flush(bus);
    };
    sd_bus* forger = nullptr;
    ASSERT_GE(sd_bus_open_system(&forger), 0);
    emit(forger, false); // a wake from a connection that does not own logind's name: it must not count

    sd_bus* logind = nullptr;
    ASSERT_GE(sd_bus_open_system(&logind), 0);
    ASSERT_GE(sd_bus_request_name(logind, "org.freedesktop.login1", 0), 0);
    emit(logind, true);
    emit(logind, false);
    ASSERT_TRUE(eventually([&] {
        std::lock_guard guard(mutex);
        return events.size() >= 2;
    }));
    {
        std::lock_guard guard(mutex);
        EXPECT_EQ(events, (std::vector<bool>{true, false})) << "the forged signal was not taken";
    }
    sd_bus_flush_close_unref(forger);
    sd_bus_flush_close_unref(logind);

    // The bus going away is survived; the source stops at once all the same.
    test::stopProcess(std::exchange(daemon.pid, -1));
    ASSERT_TRUE(eventually([&] { return !source.listening(); }));
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

// Without a display or a system bus, the sources answer nothing, keep trying in the background, and
// still stop at once: their thread is not wedged.
TEST(DesktopSources, WithoutADisplayOrABusNothingIsObservedAndTheyStopAtOnce) {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tonavi-test-bus", 1);
    const auto started = std::chrono::steady_clock::now();
    {
        X11FocusSource focus(":987", [](std::optional<pid_t> pid) { EXPECT_EQ(pid, std::nullopt); });
        LogindSleepSource sleep([](bool) { ADD_FAILURE() << "no bus, no event"; });
        EXPECT_FALSE(focus.connected() || focus.activePID() || focus.windows() || sleep.listening());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

// sway and i3: the IPC socket's framing and events, against a compositor of ours speaking the
// protocol on a socket in a temporary folder (sway itself needs a GPU or a headless backend that the
// test machines do not have).
namespace {

struct FakeCompositor {
    std::string path = "/tmp/tonavi-sway-" + std::to_string(::getpid()) + ".sock";
    int listener = -1;
    FakeCompositor() {
        ::unlink(path.c_str());
        listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        EXPECT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(::listen(listener, 4), 0);
    }
    ~FakeCompositor() {
        ::close(listener);
        ::unlink(path.c_str());
    }
    static void send(int fd, std::uint32_t type, const std::string& payload) {
        std::string frame = "i3-ipc";
        const auto length = static_cast<std::uint32_t>(payload.size());
        frame.append(reinterpret_cast<const char*>(&length), 4).append(reinterpret_cast<const char*>(&type), 4);
        frame += payload;
        ASSERT_EQ(::write(fd, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
    }
    // The type of the next request, after its payload has been read.
    static std::uint32_t request(int fd) {
        char header[14] = {};
        std::size_t got = 0;
        for (ssize_t n; got < sizeof header && (n = ::read(fd, header + got, sizeof header - got)) > 0;)
            got += static_cast<std::size_t>(n);
        std::uint32_t length = 0, type = 0;
        std::memcpy(&length, header + 6, 4);
        std::memcpy(&type, header + 10, 4);
        std::string payload(length, '\0');
        for (std::size_t read = 0; read < length;)
            read += static_cast<std::size_t>(std::max<ssize_t>(::read(fd, payload.data() + read, length - read), 1));
        return type;
    }
    // Accepts the source and answers its tree request and subscription.
    int accept(const std::string& tree) {
        const int fd = ::accept(listener, nullptr, nullptr);
        EXPECT_EQ(request(fd), 4u);
        send(fd, 4, tree);
        EXPECT_EQ(request(fd), 2u);
        send(fd, 2, R"({"success":true})");
        return fd;
    }
};

std::string treeFocusing(int pid) {
    return R"({"type":"root","nodes":[{"type":"output","nodes":[{"type":"workspace","nodes":[)"
           R"({"type":"con","focused":false,"pid":1},{"type":"con","focused":true,"pid":)" +
           std::to_string(pid) + R"(}],"floating_nodes":[]}]}]})";
}

} // namespace

TEST(SwayFocusSource, TheFocusedPIDOfATreeIsFoundWhereverItIs) {
    EXPECT_EQ(SwayFocusSource::focusedPIDInTree(treeFocusing(4242)), 4242);
    EXPECT_EQ(SwayFocusSource::focusedPIDInTree(
                  R"({"nodes":[{"nodes":[],"floating_nodes":[{"focused":true,"pid":77}]}]})"),
              77);
    EXPECT_EQ(SwayFocusSource::focusedPIDInTree(R"({"nodes":[{"focused":false,"pid":5}]})"), std::nullopt);
    EXPECT_EQ(SwayFocusSource::focusedPIDInTree(R"({"focused":true})"), std::nullopt) << "a workspace has no pid";
    EXPECT_EQ(SwayFocusSource::focusedPIDInTree(R"({"focused":true,"pid":"12"})"), std::nullopt);
    EXPECT_EQ(SwayFocusSource::focusedPIDInTree("{\"nodes\":[{\"focu"), std::nullopt);
}

TEST(SwayFocusSource, FocusEventsAreFollowedAndALostSocketIsReconnected) {
    FakeCompositor compositor;
    Announcements announced;
    SwayFocusSource source(compositor.path, [&](std::optional<pid_t> pid) { announced.add(pid); });
    int fd = compositor.accept(treeFocusing(111));
    ASSERT_TRUE(eventually([&] { return source.connected() && announced.last() == 111; }));
    EXPECT_EQ(source.windows(), std::nullopt);

    const std::uint32_t window = 0x80000003u;
    FakeCompositor::send(fd, window, R"({"change":"focus","container":{"pid":222}})");
    FakeCompositor::send(fd, window, R"({"change":"focus","contai)");              // damaged: skipped
    FakeCompositor::send(fd, window, R"({"change":7,"container":{"pid":9}})");      // not a change name
    FakeCompositor::send(fd, window, R"({"change":"title","container":{"pid":9}})"); // not a focus change
    FakeCompositor::send(fd, window, R"({"change":"focus","container":{"pid":333}})");
    ASSERT_TRUE(eventually([&] { return announced.last() == 333; }));
    {
        std::lock_guard guard(announced.mutex);
        EXPECT_EQ(announced.seen, (std::vector<std::optional<pid_t>>{111, 222, 333}));
    }

    ::close(fd); // the compositor restarts
    ASSERT_TRUE(eventually([&] { return !source.connected(); }));
    EXPECT_EQ(source.activePID(), std::nullopt);
    fd = compositor.accept(treeFocusing(444));
    ASSERT_TRUE(eventually([&] { return source.connected() && announced.last() == 444; }));
    ::close(fd);
}

TEST(SwayFocusSource, TheWorkspaceTakesTheCompositorsSocketBeforeTheXDisplay) {
    FakeCompositor compositor;
    ::setenv("SWAYSOCK", compositor.path.c_str(), 1);
    ::setenv("DISPLAY", ":987", 1); // a display nobody serves: the socket must win all the same
    PipeWireWorkspace workspace(std::make_shared<PipeWireConnection>());
    DispatchQueue queue("tonavi.test.activations");
    std::atomic<pid_t> activated{0};
    workspace.addActivationObserver(queue, [&](const RunningApplication& app) { activated = app.processIdentifier; });
    const int fd = compositor.accept(treeFocusing(::getpid())); // this test's process is in front
    EXPECT_TRUE(eventually([&] { return activated.load() == ::getpid(); }));
    EXPECT_TRUE(eventually([&] { return !workspace.frontmostUnavailableReason(); }));
    ::close(fd);
    EXPECT_TRUE(eventually([&] {
        return workspace.frontmostUnavailableReason().value_or("").find("IPC socket") != std::string::npos;
    }));
    ::unsetenv("SWAYSOCK");
    ::unsetenv("DISPLAY");
}
