#include "tools/load/MixMeasurement.hpp"

#include "core/wire/TonaviChannel.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace tonavi {

namespace {

using Clock = std::chrono::steady_clock;
constexpr int appCount = 8;

double millisecondsSince(Clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

pid_t spawn(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], nullptr, nullptr, args.data(), environ) != 0)
        return -1;
    return pid;
}

bool runQuietly(const std::vector<std::string>& argv) {
    const pid_t pid = spawn(argv);
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::optional<TonaviStatus> status() {
    try {
        return TonaviChannel::send(TonaviRequest{TonaviRequest::Status{}}, 5).status;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

bool send(TonaviRequest::Value value) {
    try {
        return TonaviChannel::send(TonaviRequest{std::move(value)}, 10).ok;
    } catch (const std::exception&) {
        return false;
    }
}

std::int64_t engagedCount() {
    auto s = status();
    return s ? s->engagedCount : -1;
}

bool engaged(const std::string& id) {
    auto s = status();
    if (!s)
        return false;
    for (const auto& app : s->apps)
        if (app.id == id)
            return app.engaged;
    return false;
}

// Resident memory in kilobytes, from the kernel's view of the process.
long residentKB(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::atol(line.c_str() + 6);
    return 0;
}

std::vector<pid_t> children(pid_t parent) {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::ifstream in(entry.path() / "stat");
        std::string stat(std::istreambuf_iterator<char>(in), {});
        const auto close = stat.rfind(')');
        if (close == std::string::npos)
            continue;
        std::istringstream rest(stat.substr(close + 2));
        char state = 0;
        pid_t ppid = 0;
        rest >> state >> ppid;
        if (ppid == parent && state != 'Z')
            found.push_back(std::stoi(name));
    }
    return found;
}

// The tap worker of one app among the service's children, from its command line.
pid_t workerOf(pid_t service, const std::string& id) {
    for (pid_t child : children(service)) {
        std::ifstream in("/proc/" + std::to_string(child) + "/cmdline", std::ios::binary);
        const std::string cmdline(std::istreambuf_iterator<char>(in), {});
        if (cmdline.find(std::string(1, '\0') + id + '\0') != std::string::npos)
            return child;
    }
    return -1;
}

// The 99th percentile of ping round trips, in milliseconds, from a client pinging while `work` runs.
double pingP99During(const std::function<bool()>& work, bool& ok) {
    std::atomic<bool> done{false}, failed{false};
    std::vector<double> latencies;
    std::thread pinger([&] {
        while (!done.load()) {
            const auto t0 = Clock::now();
            if (!send(TonaviRequest::Ping{}))
                failed = true;
            latencies.push_back(millisecondsSince(t0));
        }
    });
    const bool worked = work();
    done = true;
    pinger.join();
    ok = ok && worked && !failed;
    std::sort(latencies.begin(), latencies.end());
    return latencies.empty() ? 0.0 : latencies[static_cast<std::size_t>(0.99 * double(latencies.size() - 1))];
}

std::string appID(int i) {
    return i < 0 ? "com.tonavi.mix.warmup" : "com.tonavi.mix.app" + std::to_string(i + 1);
}

} // namespace

int MixMeasurement::run() {
    char folder[] = "/tmp/tonavi-mix-measure-XXXXXX";
    if (!mkdtemp(folder))
        return 1;
    const std::string home = folder;
    setenv("HOME", home.c_str(), 1);
    setenv("TONAVI_SIM_WORLD", (home + "/world.json").c_str(), 1);
    unsetenv("XDG_DATA_HOME");
    unsetenv("XDG_STATE_HOME");
    unsetenv("TONAVI_AUDIO_BACKEND");
    const std::string ctl = bin_ + "/tonavictl";
    if (!runQuietly({ctl, "sim", "init"}))
        return 1;
    const pid_t service = spawn({bin_ + "/tonavi-service"});
    if (service <= 0)
        return 1;
    bool ok = waitFor([] { return status().has_value(); }, std::chrono::seconds(20));

    // First sound to live tap: the row asks for control before the app exists; then it starts and plays.
    // The first app (index -1) only waits out the service's warm-up, which takes no tap before the
    // hardware answers quickly; it is not counted and goes again.
    std::vector<double> firstSound;
    for (int i = -1; ok && i < appCount; ++i) {
        const std::string id = appID(i);
        ok = send(TonaviRequest::SetAppVolume{id, 0.5});
        const auto t0 = Clock::now();
        ok =
            ok && runQuietly({ctl, "sim", "launch", id, "--pid", std::to_string(6000 + i)}) &&
            runQuietly({ctl, "sim", "play", id, "--freq", std::to_string(300 + 100 * i), "--level", "-18"}) &&
            waitFor([&] { return engaged(id); }, std::chrono::seconds(15));
        if (i < 0) {
            ok = ok && send(TonaviRequest::ResetApp{id}) &&
                 waitFor([&] { return !engaged(id); }, std::chrono::seconds(20));
            continue;
        }
        firstSound.push_back(millisecondsSince(t0));
    }
    std::vector<double> sorted = firstSound;
    std::sort(sorted.begin(), sorted.end());

    // Memory with every tap live.
    long workerKB = 0, serviceKB = 0;
    std::size_t workers = 0;
    if (ok) {
        const auto live = children(service);
        workers = live.size();
        for (pid_t w : live)
            workerKB = std::max(workerKB, residentKB(w));
        serviceKB = residentKB(service);
    }

    // Stage mode lets every tap go at once ...
    double stageMS = 0;
    if (ok) {
        const auto t0 = Clock::now();
        ok = send(TonaviRequest::StageMode{true}) &&
             waitFor([] { return engagedCount() == 0; }, std::chrono::seconds(20));
        stageMS = millisecondsSince(t0);
        ok = ok && send(TonaviRequest::StageMode{false}) &&
             waitFor([] { return engagedCount() == appCount; }, std::chrono::seconds(60));
    }
    // A worker that stops reading: ping while a thousand states are pushed its way, against the same
    // with every worker reading; then stage mode with that worker still stopped.
    double pingCleanP99 = 0, pingStalledP99 = 0, stageStalledMS = 0;
    if (ok) {
        const std::string id = appID(0);
        const auto pushStates = [&] {
            for (int i = 0; i < 1000; ++i)
                if (!send(TonaviRequest::SetAppVolume{id, 0.3 + (i % 10) / 100.0}))
                    return false;
            return true;
        };
        pingCleanP99 = pingP99During(pushStates, ok);
        const pid_t worker = workerOf(service, id);
        ok = ok && worker > 0 && kill(worker, SIGSTOP) == 0;
        pingStalledP99 = ok ? pingP99During(pushStates, ok) : 0.0;
        const auto t0 = Clock::now();
        ok = ok && send(TonaviRequest::StageMode{true}) &&
             waitFor([] { return engagedCount() == 0; }, std::chrono::seconds(20));
        stageStalledMS = millisecondsSince(t0);
        if (worker > 0)
            kill(worker, SIGCONT);
        ok = ok && send(TonaviRequest::StageMode{false}) &&
             waitFor([] { return engagedCount() == appCount; }, std::chrono::seconds(60));
    }

    // ... against one release after another.
    double sequentialMS = 0;
    if (ok) {
        const auto t0 = Clock::now();
        for (int i = 0; ok && i < appCount; ++i) {
            const std::string id = appID(i);
            ok = send(TonaviRequest::ResetApp{id}) &&
                 waitFor([&] { return !engaged(id); }, std::chrono::seconds(20));
        }
        sequentialMS = millisecondsSince(t0);
    }

    kill(service, SIGTERM);
    int status = 0;
    waitpid(service, &status, 0);
    std::error_code ec;
    std::filesystem::remove_all(home, ec);

    std::printf("{\"ok\":%s,\"first_sound_to_tap_p50_ms\":%.1f,\"first_sound_to_tap_max_ms\":%.1f,"
                "\"stage_release_8_ms\":%.1f,\"sequential_release_8_ms\":%.1f,\"worker_rss_kb\":%ld,"
                "\"service_rss_kb_with_workers\":%ld,\"workers\":%zu,\"ping_p99_ms_1000_states\":%.2f,"
                "\"ping_p99_ms_1000_states_one_stopped\":%.2f,\"stage_release_8_one_stopped_ms\":%.1f}\n",
                ok ? "true" : "false", sorted.empty() ? 0.0 : sorted[sorted.size() / 2],
                sorted.empty() ? 0.0 : sorted.back(), stageMS, sequentialMS, workerKB, serviceKB, workers, pingCleanP99, pingStalledP99,
                stageStalledMS);
    return ok ? 0 : 1;
}

} // namespace tonavi
