// tonavi-load: load tools against a running service, over the real socket.
//   tonavi-load ping --clients N --seconds S [--socket PATH]
//     N clients send ping round trips.
//   tonavi-load status --clients N --seconds S [--socket PATH]
//     Sets up 30 configured applications, then N clients poll `status` while one more client streams
//     `setAppVolume` at 100 updates a second; afterwards it waits for the configuration to go quiet and
//     counts the writes of "state.json" since the stream began (one is the target: the deferred save).
//   tonavi-load mixer --seconds S [--socket PATH]
//     Sets up 30 configured applications and opens `tonavictl mixer` in tmux: its CPU and request rate
//     while idle, and the requests 50 key presses become (see MixerMeasurement.hpp).
//   tonavi-load mix
//     Starts its own service on a simulated machine and measures per-application mixing: first sound
//     to live tap, stage mode against sequential releases, resident memory (see MixMeasurement.hpp).
// The last line printed is one JSON object: requests_per_second, p50_ms, p99_ms, failures, requests,
// clients, and for status also config_writes, volume_updates and volume_p99_ms. Exit status 0 when no
// request failed (and, for status, exactly one configuration write was seen), 1 otherwise, 2 usage.

#include "core/wire/RawSocket.hpp"
#include "core/wire/TonaviChannel.hpp"
#include "tools/load/ConfigWriteWatcher.hpp"
#include "tools/load/MixMeasurement.hpp"
#include "tools/load/MixerMeasurement.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace tonavi;
using Clock = std::chrono::steady_clock;

constexpr int configuredApps = 30;
constexpr double volumeUpdatesPerSecond = 100;
// The service saves 0.25 s after the last continuous change; a second of silence means it is done.
constexpr auto quietPeriod = std::chrono::seconds(1);
constexpr auto quietLimit = std::chrono::seconds(10);
constexpr double requestTimeoutSeconds = 10;

int usage() {
    std::fprintf(stderr, "usage: tonavi-load ping|status --clients N --seconds S [--socket PATH]\n"
                         "       tonavi-load mixer --seconds S [--socket PATH]\n"
                         "       tonavi-load mix\n");
    return 2;
}

double percentile(const std::vector<double>& sorted, double p) {
    if (sorted.empty())
        return 0;
    size_t index = static_cast<size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5);
    return sorted[std::min(index, sorted.size() - 1)];
}

double millisecondsSince(Clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

std::string appID(int index) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "com.tonavi.load.app%02d", index + 1);
    return buffer;
}

// One round trip; true when the reply says ok. The reply is not decoded: decoding a status is the
// client's own work, and on a small machine the pollers' parsing would crowd out the service under
// measurement. Keys are written in order and a quote inside a string is escaped, so the first "ok"
// key in the text is the reply's own.
bool roundTripOK(const std::string& path, const TonaviRequest& request) {
    const std::string body = encodeRequest(request);
    const Bytes reply = RawSocket::roundTrip(
        path, std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(body.data()), body.size()),
        requestTimeoutSeconds);
    const std::string_view text(reinterpret_cast<const char*>(reply.data()), reply.size());
    const auto at = text.find("\"ok\":");
    return at != std::string_view::npos && text.substr(at + 5).starts_with("true");
}

// Runs `request()` round trips on `clients` threads until the deadline; latencies in milliseconds.
template <typename MakeRequest>
std::vector<double> pollUntil(int clients, Clock::time_point deadline, const std::string& path,
                              MakeRequest makeRequest, std::atomic<long>& failures) {
    std::vector<std::vector<double>> latencies(static_cast<size_t>(clients));
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            auto& mine = latencies[static_cast<size_t>(c)];
            mine.reserve(200000);
            while (Clock::now() < deadline) {
                auto t0 = Clock::now();
                try {
                    if (!roundTripOK(path, makeRequest()))
                        failures.fetch_add(1);
                } catch (const std::exception&) {
                    failures.fetch_add(1);
                }
                mine.push_back(millisecondsSince(t0));
            }
        });
    }
    for (auto& t : threads)
        t.join();
    std::vector<double> all;
    for (auto& v : latencies)
        all.insert(all.end(), v.begin(), v.end());
    std::sort(all.begin(), all.end());
    return all;
}

int runPing(int clients, double seconds, const std::string& path) {
    std::atomic<long> failures{0};
    auto started = Clock::now();
    auto deadline = started + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    auto all = pollUntil(clients, deadline, path, [] { return TonaviRequest::ping(); }, failures);
    double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
    long ok = static_cast<long>(all.size()) - failures.load();
    std::printf("{\"requests_per_second\":%.1f,\"p50_ms\":%.3f,\"p99_ms\":%.3f,\"failures\":%ld,\"requests\":%zu,"
                "\"clients\":%d}\n",
                static_cast<double>(ok) / elapsed, percentile(all, 0.50), percentile(all, 0.99), failures.load(),
                all.size(), clients);
    return failures.load() == 0 ? 0 : 1;
}

int runStatus(int clients, double seconds, const std::string& path) {
    const std::string folder = std::filesystem::path(path).parent_path().string();
    ConfigWriteWatcher watcher(folder, "state.json");

    // Setup: one row per application, then one status so that the service places the new rows in the
    // user's order (a save of its own), then wait until the configuration stops changing.
    long setupFailures = 0;
    for (int i = 0; i < configuredApps; ++i) {
        try {
            TonaviRequest request{TonaviRequest::SetAppMuted{appID(i), false}};
            if (!TonaviChannel::send(path, request, requestTimeoutSeconds).ok)
                ++setupFailures;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "tonavi-load: setup: %s\n", e.what());
            return 1;
        }
    }
    try {
        (void)TonaviChannel::send(path, TonaviRequest{TonaviRequest::Status{}}, requestTimeoutSeconds);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tonavi-load: setup: %s\n", e.what());
        return 1;
    }
    if (!watcher.waitForQuiet(Clock::now(), quietPeriod, quietLimit))
        std::fprintf(stderr, "tonavi-load: the configuration kept changing during setup\n");
    std::fprintf(stderr, "tonavi-load: %d applications set up (%ld refused), %zu configuration writes\n",
                 configuredApps, setupFailures, watcher.writes().size());

    std::atomic<long> failures{0};
    std::atomic<long> volumeFailures{0};
    const auto started = Clock::now();
    const auto deadline =
        started + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    std::vector<double> volumeLatencies;
    std::thread streamer([&] {
        // A drag of the first application's slider: paced against absolute times, so a slow reply
        // delays one update, not the rate.
        const auto step = std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(1.0 / volumeUpdatesPerSecond));
        long k = 0;
        for (auto next = started; next < deadline; next += step, ++k) {
            std::this_thread::sleep_until(next);
            const double volume = static_cast<double>(k % 100) / 100.0;
            auto t0 = Clock::now();
            try {
                TonaviRequest request{TonaviRequest::SetAppVolume{appID(0), volume}};
                if (!TonaviChannel::send(path, request, requestTimeoutSeconds).ok)
                    volumeFailures.fetch_add(1);
            } catch (const std::exception&) {
                volumeFailures.fetch_add(1);
            }
            volumeLatencies.push_back(millisecondsSince(t0));
        }
    });
    auto all = pollUntil(clients, deadline, path, [] { return TonaviRequest{TonaviRequest::Status{}}; }, failures);
    streamer.join();
    const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
    const bool quiet = watcher.waitForQuiet(Clock::now(), quietPeriod, quietLimit);
    const std::size_t configWrites = watcher.writesSince(started);
    if (!quiet)
        std::fprintf(stderr, "tonavi-load: the configuration did not go quiet after the stream\n");

    std::sort(volumeLatencies.begin(), volumeLatencies.end());
    const long totalFailures = failures.load() + volumeFailures.load();
    const long ok = static_cast<long>(all.size()) - failures.load();
    std::printf("{\"requests_per_second\":%.1f,\"p50_ms\":%.3f,\"p99_ms\":%.3f,\"failures\":%ld,\"requests\":%zu,"
                "\"clients\":%d,\"config_writes\":%zu,\"volume_updates\":%zu,\"volume_p99_ms\":%.3f}\n",
                static_cast<double>(ok) / elapsed, percentile(all, 0.50), percentile(all, 0.99), totalFailures,
                all.size(), clients, configWrites, volumeLatencies.size(), percentile(volumeLatencies, 0.99));
    return totalFailures == 0 && configWrites == 1 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2)
        return usage();
    const std::string mode = argv[1];
    if (mode == "mix" && argc == 2)
        return MixMeasurement(std::filesystem::absolute(argv[0]).parent_path().string()).run();
    if (mode != "ping" && mode != "status" && mode != "mixer")
        return usage();
    int clients = 1;
    double seconds = 5;
    std::string path = TonaviChannel::socketPath();
    for (int i = 2; i < argc; i += 2) {
        std::string flag = argv[i];
        if (i + 1 >= argc)
            return usage();
        if (flag == "--clients") {
            clients = std::atoi(argv[i + 1]);
        } else if (flag == "--seconds") {
            seconds = std::atof(argv[i + 1]);
        } else if (flag == "--socket") {
            path = argv[i + 1];
        } else {
            return usage();
        }
    }
    if (clients < 1 || !(seconds > 0))
        return usage();
    try {
        if (mode == "mixer")
            return MixerMeasurement(std::filesystem::absolute(argv[0]).parent_path().string(), path, seconds).run();
        return mode == "ping" ? runPing(clients, seconds, path) : runStatus(clients, seconds, path);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tonavi-load: %s\n", e.what());
        return 1;
    }
}
