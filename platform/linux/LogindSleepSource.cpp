#include "platform/linux/LogindSleepSource.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "base/Log.hpp"

namespace tonavi {

namespace {

struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};

int onPrepareForSleep(sd_bus_message* message, void* userdata, sd_bus_error*) {
    int sleeping = 0;
    if (sd_bus_message_read(message, "b", &sleeping) < 0) {
        Log::info("tonavi: PrepareForSleep without a boolean ignored");
        return 0;
    }
    (*static_cast<LogindSleepSource::SleepChanged*>(userdata))(sleeping != 0);
    return 0;
}

} // namespace

LogindSleepSource::LogindSleepSource(SleepChanged onSleep) : onSleep_(std::move(onSleep)) {
    if (const std::string why = worker_.start("tonavi.logind", [this] { run(); }); !why.empty())
        Log::info("tonavi: sleep and wake not observed: " + why);
}

LogindSleepSource::~LogindSleepSource() {
    worker_.requestStop();
    worker_.join();
}

bool LogindSleepSource::listening() const {
    return listening_.load();
}

void LogindSleepSource::run() {
    int backoff = 1000;
    bool loggedFailure = false;
    auto failed = [&](const std::string& what, int r) {
        if (!loggedFailure)
            Log::info("tonavi: no system bus for sleep and wake (" + what + ": " + std::strerror(-r) +
                      "); the wake work will not run until one answers");
        loggedFailure = true;
    };
    while (!worker_.stopping()) {
        sd_bus* raw = nullptr;
        int r = sd_bus_open_system(&raw);
        std::unique_ptr<sd_bus, BusCloser> bus(raw);
        sd_bus_slot* slot = nullptr;
        if (r >= 0)
            r = sd_bus_match_signal(bus.get(), &slot, "org.freedesktop.login1", "/org/freedesktop/login1",
                                    "org.freedesktop.login1.Manager", "PrepareForSleep", onPrepareForSleep,
                                    const_cast<SleepChanged*>(&onSleep_));
        if (r < 0) {
            failed(bus ? "match" : "connect", r);
            bus.reset();
            if (!worker_.waitUnlessStopped(backoff))
                break;
            backoff = std::min(backoff * 2, 30000);
            continue;
        }
        // The match is only in place once the bus has answered the AddMatch call.
        while (r >= 0 && !worker_.stopping()) {
            r = sd_bus_process(bus.get(), nullptr);
            if (r > 0)
                continue;
            if (r < 0)
                break;
            if (!listening_.exchange(true)) {
                Log::info("tonavi: observing sleep and wake through logind");
                loggedFailure = false;
                backoff = 1000;
            }
            const int events = sd_bus_get_events(bus.get());
            std::uint64_t usec = UINT64_MAX;
            sd_bus_get_timeout(bus.get(), &usec);
            int timeout = -1;
            if (usec != UINT64_MAX) {
                timespec now{};
                ::clock_gettime(CLOCK_MONOTONIC, &now);
                const std::uint64_t nowUsec = static_cast<std::uint64_t>(now.tv_sec) * 1000000u +
                                              static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
                timeout = usec <= nowUsec ? 0 : static_cast<int>(std::min<std::uint64_t>((usec - nowUsec) / 1000 + 1, 60000));
            }
            pollfd fds[2] = {{sd_bus_get_fd(bus.get()), static_cast<short>(events < 0 ? POLLIN : events), 0},
                             {worker_.wakeFD(), POLLIN, 0}};
            if (::poll(fds, 2, timeout) < 0 && errno != EINTR)
                r = -errno;
        }
        listening_.store(false);
        sd_bus_slot_unref(slot);
        bus.reset();
        if (worker_.stopping())
            break;
        failed("connection lost", r < 0 ? r : -ECONNRESET);
        if (!worker_.waitUnlessStopped(backoff))
            break;
        backoff = std::min(backoff * 2, 30000);
    }
}

} // namespace tonavi
