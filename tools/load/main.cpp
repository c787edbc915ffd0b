// tonavi-load: load tools against a running service.
//   tonavi-load ping --clients N --seconds S [--socket PATH]
// Runs ping round trips over the real socket from N concurrent clients and prints, as its last line, one
// JSON object: {"requests_per_second":..,"p50_ms":..,"p99_ms":..,"failures":..,"requests":..,"clients":..}.

#include "core/wire/TonaviChannel.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {
int usage() {
    std::fprintf(stderr, "usage: tonavi-load ping --clients N --seconds S [--socket PATH]\n");
    return 2;
}

double percentile(std::vector<double>& sorted, double p) {
    if (sorted.empty()) return 0;
    size_t index = static_cast<size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5);
    return sorted[std::min(index, sorted.size() - 1)];
}
}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || std::string(argv[1]) != "ping") return usage();
    int clients = 1;
    double seconds = 5;
    std::string path = tonavi::TonaviChannel::socketPath();
    for (int i = 2; i + 1 < argc; i += 2) {
        std::string flag = argv[i];
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
    if (clients < 1 || !(seconds > 0)) return usage();

    using Clock = std::chrono::steady_clock;
    std::vector<std::vector<double>> latencies(static_cast<size_t>(clients));
    std::atomic<long> failures{0};
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    auto started = Clock::now();
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            auto& mine = latencies[static_cast<size_t>(c)];
            mine.reserve(200000);
            while (Clock::now() < deadline) {
                auto t0 = Clock::now();
                try {
                    auto reply = tonavi::TonaviChannel::send(path, tonavi::TonaviRequest::ping(), 10);
                    if (!reply.ok) failures.fetch_add(1);
                } catch (const std::exception&) {
                    failures.fetch_add(1);
                }
                mine.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
            }
        });
    }
    for (auto& t : threads) t.join();
    double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
    std::vector<double> all;
    for (auto& v : latencies) all.insert(all.end(), v.begin(), v.end());
    std::sort(all.begin(), all.end());
    long ok = static_cast<long>(all.size()) - failures.load();
    std::printf("{\"requests_per_second\":%.1f,\"p50_ms\":%.3f,\"p99_ms\":%.3f,\"failures\":%ld,\"requests\":%zu,"
                "\"clients\":%d}\n",
                static_cast<double>(ok) / elapsed, percentile(all, 0.50), percentile(all, 0.99), failures.load(),
                all.size(), clients);
    return failures.load() == 0 ? 0 : 1;
}
