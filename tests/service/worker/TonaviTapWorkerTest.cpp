// The real worker executable: its exit statuses, its parent watch, and a whole tap on the simulated
// machine driven by the service's provider.

#include "service/worker/IsolatedTonaviTapProvider.hpp"
#include "service/worker/TapWorkerEnvelope.hpp"
#include "service/worker/TapWorkerProcess.hpp"
#include "service/worker/TonaviTapWorkerMain.hpp"

#include "WorkerTestSupport.hpp"
#include "base/Log.hpp"
#include "platform/sim/SimMachine.hpp"
#include "platform/sim/SimWorkspace.hpp"
#include "platform/sim/SimWorldFile.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <list>

using namespace tonavi;
using namespace tonavi::testing;
using namespace std::chrono_literals;

namespace {

struct Outcome {
    int status = -1;
    std::string output;
};

// Runs `executable arguments`, feeds it `input`, closes its stdin, and collects its stdout and status.
Outcome runWorker(const std::string& executable, const std::vector<std::string>& arguments, const std::string& input) {
    auto exited = std::make_shared<std::promise<int>>();
    std::string error;
    auto process = TapWorkerProcess::launch(executable, arguments, DispatchQueue::global(QoS::utility),
                                            [exited](int status) { exited->set_value(status); }, error);
    EXPECT_TRUE(process) << error;
    if (!process)
        return {};
    auto output = std::make_shared<std::string>();
    auto ended = std::make_shared<std::promise<void>>();
    process->startReading([output, ended](std::string_view bytes) {
        if (bytes.empty())
            ended->set_value();
        else
            output->append(bytes);
    });
    process->write(input);
    process->closeInput();
    auto status = exited->get_future();
    if (status.wait_for(10s) != std::future_status::ready) {
        process->kill();
        ADD_FAILURE() << "the worker did not end";
        return {};
    }
    EXPECT_EQ(ended->get_future().wait_for(5s), std::future_status::ready);
    return {status.get(), *output};
}

std::string stateLine(const std::string& bundleID) {
    TapWorkerState state;
    state.app = AppAudioState(bundleID);
    return TapWorkerEnvelope::makeState(state).line();
}

bool hasThreadNamed(int pid, const std::string& name) {
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
        std::ifstream comm(task.path() / "comm");
        std::string line;
        if (std::getline(comm, line) && line == name)
            return true;
    }
    return false;
}

const std::string failureLine = "{\"kind\":\"failure\",\"message\":\"missing initial render state\"}\n";

} // namespace

TEST(TonaviTapWorker, RefusesBadStartsWithItsExitStatuses) {
    const std::string worker = serviceExecutable();
    struct Case {
        std::vector<std::string> arguments;
        std::string input;
        int status;
        std::string output;
    };
    const Case cases[] = {
        {{"--tonavi-tap-worker"}, "", 64, ""},
        {{"--tonavi-tap-worker", ""}, "", 64, ""},
        {{"--tonavi-tap-worker", "com.example.player"}, "", 65, failureLine},
        {{"--tonavi-tap-worker", "com.example.player"}, "garbage\n", 65, failureLine},
        {{"--tonavi-tap-worker", "com.example.player"}, "{\"action\":\"stop\"}\n", 65, failureLine},
        {{"--tonavi-tap-worker", "com.example.player", ""}, stateLine("com.example.other"), 65, failureLine},
    };
    for (const auto& c : cases) {
        auto outcome = runWorker(worker, c.arguments, c.input);
        EXPECT_EQ(outcome.status, c.status) << c.input;
        EXPECT_EQ(outcome.output, c.output) << c.input;
    }
}

TEST(TonaviTapWorker, ExitsWith70WhenItsParentIsAlreadyGone) {
    // As the first process of a new process namespace, the worker sees no parent at all.
    const std::vector<std::string> unshare = {"--pid", "--fork", "--user", "--map-root-user"};
    auto probe = runWorker("/usr/bin/unshare", [&] {
        auto args = unshare;
        args.push_back("/bin/true");
        return args;
    }(), "");
    if (probe.status != 0)
        GTEST_SKIP() << "no unprivileged process namespaces here";
    auto args = unshare;
    args.insert(args.end(), {serviceExecutable(), "--tonavi-tap-worker", "com.example.player"});
    auto outcome = runWorker("/usr/bin/unshare", args, stateLine("com.example.player"));
    EXPECT_EQ(outcome.status, 70);
    EXPECT_EQ(outcome.output, "");
}

TEST(TonaviTapWorker, DiesWithItsParentEvenWhenTheParentIsKilledOutright) {
    // The shell starts the worker behind `cat`, which keeps the worker's stdin open, so only the
    // parent watch can end it when the shell is killed.
    // (A background command's stdin would be /dev/null without the explicit descriptor.)
    const std::string command = "exec 3<&0; cat <&3 | '" + serviceExecutable() +
                                "' --tonavi-tap-worker com.example.player & echo $!; wait";
    std::string error;
    auto shell = TapWorkerProcess::launch("/bin/sh", {"-c", command}, DispatchQueue::global(QoS::utility), {}, error);
    ASSERT_TRUE(shell) << error;
    auto pid = std::make_shared<std::promise<int>>();
    auto text = std::make_shared<std::string>();
    shell->startReading([pid, text](std::string_view bytes) {
        if (text->find('\n') != std::string::npos)
            return;
        text->append(bytes);
        if (text->find('\n') != std::string::npos)
            pid->set_value(std::stoi(*text));
    });
    auto future = pid->get_future();
    ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
    const int worker = future.get();
    // Waiting for its first state, with its parent watch in place.
    ASSERT_TRUE(eventually([&] { return hasThreadNamed(worker, "tonavi.pidwatch"); }, 5s));

    shell->kill();
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    const auto limit = 5s; // an instrumented exit writes its reports first
#else
    const auto limit = 1s;
#endif
    EXPECT_TRUE(eventually([&] { return processEnded(worker); }, limit)) << "worker " << worker << " outlived its parent";
    shell->closeInput(); // ends `cat`
    if (!processEnded(worker))
        ::kill(worker, SIGKILL);
}

class WorkerOnSimulatedMachine : public ::testing::Test {
  protected:
    void SetUp() override {
        Log::setFilePathForTesting(folder.path + "/service.log");
        const std::string world = folder.path + "/world.json";
        ASSERT_EQ(SimWorldFile(world).create(SimWorld::preset(), false), "");
        std::string error;
        machine = SimMachine::open(world, error);
        ASSERT_TRUE(machine) << error;
        workspace = std::make_shared<SimWorkspace>(machine);
        // The workers inherit these and so share this machine; their log stays in the scratch folder.
        environmentOverrides.emplace_back("TONAVI_AUDIO_BACKEND", "sim");
        environmentOverrides.emplace_back("TONAVI_SIM_WORLD", world);
        environmentOverrides.emplace_back("XDG_STATE_HOME", folder.path);
        auto environment = IsolatedTonaviTapProvider::platformEnvironment(*machine, *workspace);
        environment.executable = serviceExecutable();
        provider = std::make_shared<IsolatedTonaviTapProvider>(environment);
        provider->workerStateFor = [this](const std::string& id) -> std::optional<TapWorkerState> {
            TapWorkerState state;
            state.app = AppAudioState(id);
            std::lock_guard guard(mutex);
            state.app.volume = volume;
            return state;
        };
        provider->onAudioActivity = [this](const std::string& id) {
            std::lock_guard guard(mutex);
            active.insert(id);
        };
    }
    bool audible(const std::string& id) {
        auto ids = machine->directlyAudible(TonaviTapProvider::defaultOutputUID(*machine));
        return std::find(ids.begin(), ids.end(), id) != ids.end();
    }
    // The level the worker's IO proc plays, as the machine meters it; nothing before a window.
    std::optional<double> playedRMS(int workerPID) {
        const auto world = machine->world(); // held: the range below must not outlive it
        for (const auto& meter : world->meters)
            if (meter.ownerPID == workerPID && meter.cycles > 0)
                return meter.rmsDB;
        return std::nullopt;
    }
    bool heardActivity(const std::string& id) {
        std::lock_guard guard(mutex);
        return active.contains(id);
    }

    ScratchFolder folder;
    std::list<ScopedEnvironment> environmentOverrides;
    std::shared_ptr<SimMachine> machine;
    std::shared_ptr<SimWorkspace> workspace;
    std::shared_ptr<IsolatedTonaviTapProvider> provider;
    std::mutex mutex;
    double volume = 1.0;
    std::set<std::string> active;
};

TEST_F(WorkerOnSimulatedMachine, AWorkerTapsAPlayingAppReportsItsSoundAndGivesItBackOnStop) {
    ASSERT_TRUE(audible("com.apple.Music"));
    auto handle = std::dynamic_pointer_cast<IsolatedTapHandle>(provider->createTap("com.apple.Music"));
    ASSERT_TRUE(handle) << folder.read("service.log");
    EXPECT_GT(provider->sampleRate("com.apple.Music"), 0.0);
    EXPECT_EQ(provider->targetDevice("com.apple.Music"), TonaviTapProvider::defaultOutputUID(*machine));
    EXPECT_FALSE(audible("com.apple.Music")) << "muted on its direct path while the worker taps it";
    EXPECT_TRUE(eventually([&] { return heardActivity("com.apple.Music"); }, 3s)) << "metrics carry the tone";
    EXPECT_FALSE(provider->ioStale("com.apple.Music", 6.0));

    // A new state reaches the running worker: volume 0.5 is a gain of 0.25, 12 dB down.
    std::optional<double> unity;
    ASSERT_TRUE(eventually([&] { return (unity = playedRMS(handle->pid())) && *unity > -60; }, 3s));
    {
        std::lock_guard guard(mutex);
        volume = 0.5;
    }
    provider->syncStates();
    std::optional<double> lowered;
    EXPECT_TRUE(eventually([&] { return (lowered = playedRMS(handle->pid())) && *lowered < *unity - 11; }, 3s));
    EXPECT_GT(lowered.value_or(-120), *unity - 13) << "unity " << *unity;

    provider->destroyTap(handle);
    EXPECT_TRUE(eventually([&] { return handle->process->terminationStatus() == 0; }, 3s));
    EXPECT_TRUE(eventually([&] { return audible("com.apple.Music"); }, 3s));
}

TEST_F(WorkerOnSimulatedMachine, AWorkerWithoutATapSaysSoAndExits66) {
    auto outcome = runWorker(serviceExecutable(), {"--tonavi-tap-worker", "com.example.absent"},
                             stateLine("com.example.absent"));
    EXPECT_EQ(outcome.status, 66);
    EXPECT_EQ(outcome.output, "{\"kind\":\"failure\",\"message\":\"Core Audio tap creation failed\"}\n");
}
