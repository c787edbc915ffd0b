#include "service/plugins/AURunningSlot.hpp"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

namespace tonavi::AURunningSlot {

namespace {

// One marker per activity: the render thread is one thread; loads run one at a time per slot, and
// the crash handler names a load only when its own thread is the one that entered it.
struct Marker {
    std::atomic<long> thread{0};              // the kernel thread id inside plug-in code, 0 for none
    std::atomic<std::int64_t> enteredAt{0};   // steady-clock nanoseconds
    char slotID[128] = {};
    std::atomic<std::size_t> length{0};
};

Marker markers[2];
int reportFD = -1;

Marker& markerFor(Activity a) { return markers[a == Activity::render ? 0 : 1]; }

std::int64_t nowNanos() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

long currentThread() { return static_cast<long>(::syscall(SYS_gettid)); }

// Async-signal-safe: fixed buffers and write(2) only.
extern "C" void onCrash(int signal) {
    const long self = currentThread();
    // The marker this thread holds; failing that, a load in progress, whose plug-in code may run on a
    // loader thread of its own (instantiate) that holds no marker.
    Marker* culprit = nullptr;
    for (Marker& m : markers)
        if (m.thread.load() == self)
            culprit = &m;
    Marker& load = markers[1];
    if (!culprit && load.thread.load() != 0 && markers[0].thread.load() != self)
        culprit = &load;
    for (Marker& m : markers) {
        if (reportFD < 0 || &m != culprit)
            continue;
        char line[512];
        std::size_t n = 0;
        auto put = [&](const char* s, std::size_t len) {
            for (std::size_t i = 0; i < len && n < sizeof line - 2; ++i)
                line[n++] = s[i];
        };
        // A line feed first: a line another thread was writing when we crashed ends there, torn and
        // dropped by the reader, and ours arrives whole.
        constexpr char head[] = "\n{\"kind\":\"au-failure\",\"slotID\":\"";
        put(head, sizeof head - 1);
        const std::size_t length = m.length.load();
        for (std::size_t i = 0; i < length; ++i) {
            const char c = m.slotID[i];
            if (c == '"' || c == '\\')
                put("\\", 1);
            if (static_cast<unsigned char>(c) >= 0x20)
                put(&c, 1);
        }
        constexpr char tail[] = "\",\"message\":\"crashed its tap helper\"}\n";
        put(tail, sizeof tail - 1);
        ssize_t ignored = ::write(reportFD, line, n);
        (void)ignored;
        break;
    }
    ::signal(signal, SIG_DFL);
    ::raise(signal);
}

} // namespace

void enter(Activity activity, std::string_view slotID) {
    Marker& m = markerFor(activity);
    const std::size_t length = std::min(slotID.size(), sizeof m.slotID);
    std::memcpy(m.slotID, slotID.data(), length);
    m.length.store(length);
    m.enteredAt.store(nowNanos());
    // Cached: the audio thread makes no system call for it after its first render.
    thread_local const long self = currentThread();
    m.thread.store(self);
}

void leave(Activity activity) {
    Marker& m = markerFor(activity);
    m.thread.store(0);
    m.enteredAt.store(0);
}

std::optional<std::string> stalledRender(double limitSeconds) {
    Marker& m = markerFor(Activity::render);
    const std::int64_t at = m.enteredAt.load();
    if (at == 0 || m.thread.load() == 0 || static_cast<double>(nowNanos() - at) / 1e9 < limitSeconds)
        return std::nullopt;
    return std::string(m.slotID, m.length.load());
}

void installCrashReport(int fd) {
    reportFD = fd;
    struct sigaction action {};
    action.sa_handler = onCrash;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND;
    for (int s : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT})
        ::sigaction(s, &action, nullptr);
}

} // namespace tonavi::AURunningSlot
