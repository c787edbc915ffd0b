#include "tools/load/MixerMeasurement.hpp"

#include "core/wire/TonaviChannel.hpp"
#include "tools/load/RequestCountingProxy.hpp"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <unistd.h>
#include <vector>

namespace tonavi {

namespace {

using Clock = std::chrono::steady_clock;
constexpr int applications = 30;
constexpr double requestTimeoutSeconds = 10;

std::string appID(int index) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "com.tonavi.load.app%02d", index + 1);
    return buffer;
}

// Runs a command line through the shell and returns what it printed.
std::string output(const std::string& command) {
    std::string out;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[4096];
        while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe))
            out.append(buffer, n);
        ::pclose(pipe);
    }
    return out;
}

std::string quoted(const std::string& text) {
    std::string out = "'";
    for (char c : text)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// User plus system time of a process, in clock ticks; -1 when it cannot be read.
long cpuTicks(int pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    const auto close = text.rfind(')');
    if (close == std::string::npos)
        return -1;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14)
            utime = std::atol(field.c_str());
        if (i == 15)
            stime = std::atol(field.c_str());
    }
    return utime + stime;
}

double volumeOf(const std::string& path, const std::string& id) {
    auto reply = TonaviChannel::send(path, TonaviRequest{TonaviRequest::Status{}}, requestTimeoutSeconds);
    if (reply.status)
        for (const auto& app : reply.status->apps)
            if (app.id == id)
                return app.volume;
    return -1;
}

} // namespace

int MixerMeasurement::run() {
    for (int i = 0; i < applications; ++i)
        TonaviChannel::send(servicePath_, TonaviRequest{TonaviRequest::SetAppVolume{appID(i), 1.0}},
                            requestTimeoutSeconds);
    const auto status =
        TonaviChannel::send(servicePath_, TonaviRequest{TonaviRequest::Status{}}, requestTimeoutSeconds);
    if (!status.status) {
        std::fprintf(stderr, "tonavi-load: the service gave no status\n");
        return 1;
    }
    const std::string firstApp = status.status->apps.empty() ? "" : status.status->apps.front().id;
    std::fprintf(stderr, "tonavi-load: %zu applications in the status\n", status.status->apps.size());

    char folderTemplate[] = "/tmp/tonavi-mixer-load-XXXXXX";
    const std::string folder = ::mkdtemp(folderTemplate);
    RequestCountingProxy proxy(folder + "/data/Tonavi/control.sock", servicePath_);
    const std::string tmux = "tmux -S " + quoted(folder + "/tmux.sock") + " ";
    output(tmux + "new-session -d -x 120 -y 40 -s mixer -e XDG_DATA_HOME=" + quoted(folder + "/data") + " " +
           quoted("exec " + bin_ + "/tonavictl mixer"));
    const int pid = std::atoi(output(tmux + "display-message -p -t mixer '#{pane_pid}'").c_str());
    int exitStatus = 1;
    if (pid > 0) {
        // Settled: the first status and the first read of the configuration are behind it.
        std::this_thread::sleep_for(std::chrono::seconds(2));
        const auto before = proxy.counts();
        const long ticks0 = cpuTicks(pid);
        const auto t0 = Clock::now();
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds_));
        const long ticks1 = cpuTicks(pid);
        const double elapsed = std::chrono::duration<double>(Clock::now() - t0).count();
        auto after = proxy.counts();
        const double cpuPercent = 100.0 * static_cast<double>(ticks1 - ticks0) /
                                  static_cast<double>(::sysconf(_SC_CLK_TCK)) / elapsed;
        auto perSecond = [&](const std::string& name) {
            const std::size_t start = before.count(name) ? before.at(name) : 0;
            return static_cast<double>(after[name] - start) / elapsed;
        };

        // The first row is selected; from 100 %, 50 presses of the 1 % key down in one burst.
        TonaviChannel::send(servicePath_, TonaviRequest{TonaviRequest::SetAppVolume{firstApp, 1.0}},
                            requestTimeoutSeconds);
        std::this_thread::sleep_for(std::chrono::seconds(2)); // the mixer has seen it and let its own go
        const std::size_t volumeBefore = proxy.count("setAppVolume");
        std::string keys;
        for (int i = 0; i < 50; ++i)
            keys += " ,";
        output(tmux + "send-keys -t mixer" + keys);
        double volume = -1;
        for (int i = 0; i < 100 && std::abs(volume - 0.5) > 1e-9; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            volume = volumeOf(servicePath_, firstApp);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const std::size_t volumeRequests = proxy.count("setAppVolume") - volumeBefore;
        output(tmux + "send-keys -t mixer q");
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        std::printf("{\"applications\":%zu,\"idle_seconds\":%.1f,\"mixer_cpu_percent\":%.2f,"
                    "\"status_per_second\":%.2f,\"diagnostics_per_second\":%.2f,\"key_presses\":50,"
                    "\"set_app_volume_requests\":%zu,\"final_volume\":%.4f,\"expected_volume\":0.5}\n",
                    status.status->apps.size(), elapsed, cpuPercent, perSecond("status"),
                    perSecond("diagnostics"), volumeRequests, volume);
        exitStatus = std::abs(volume - 0.5) < 1e-9 ? 0 : 1;
    } else {
        std::fprintf(stderr, "tonavi-load: the mixer did not start in tmux\n");
    }
    output(tmux + "kill-server 2>/dev/null");
    std::filesystem::remove_all(folder);
    return exitStatus;
}

} // namespace tonavi
