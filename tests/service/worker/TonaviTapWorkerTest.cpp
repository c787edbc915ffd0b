// The real worker executable: its exit statuses and its parent watch. (A whole tap through a worker is
// the end-to-end mixing test's.)

#include "service/worker/TapWorkerEnvelope.hpp"
#include "service/worker/TapWorkerProcess.hpp"
#include "service/worker/TonaviTapWorkerMain.hpp"

#include "WorkerTestSupport.hpp"
#include "base/Log.hpp"
#include "platform/sim/SimWorldFile.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>

using namespace tonavi;
using namespace tonavi::testing;
using namespace std::chrono_literals;

namespace {

struct Outcome {
    int status = -1;
    std::string output;
};

// Runs `executable arguments`, feeds it `input`, closes its stdin, and collects its stdout and status.
Outcome runWorker(const std::string& executable, const std::vector<std::string>& arguments,
                  const std::string& input) {
    auto exited = std::make_shared<std::promise<int>>();
    std::string error;
    auto process = TapWorkerProcess::launch(
        executable, arguments, DispatchQueue::global(QoS::utility),
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
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
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
    // Workers run on a simulated machine of their own, where the absent app has nothing to tap.
    ScratchFolder folder;
    ASSERT_EQ(SimWorldFile(folder.path + "/world.json").create(SimWorld::preset(), false), "");
    ScopedEnvironment backend("TONAVI_AUDIO_BACKEND", "sim"),
        world("TONAVI_SIM_WORLD", folder.path + "/world.json"), logs("XDG_STATE_HOME", folder.path);
    const std::string worker = "--tonavi-tap-worker", player = "com.example.player";
    struct Case {
        std::vector<std::string> arguments;
        std::string input;
        int status;
        std::string output;
    };
    const Case cases[] = {
        {{worker}, "", 64, ""},
        {{worker, ""}, "", 64, ""},
        {{worker, player}, "", 65, failureLine},
        {{worker, player}, "garbage\n", 65, failureLine},
        {{worker, player}, "{\"action\":\"stop\"}\n", 65, failureLine},
        {{worker, player, ""}, stateLine("com.example.other"), 65, failureLine},
        {{worker, "com.example.absent"},
         stateLine("com.example.absent"),
         66,
         "{\"kind\":\"failure\",\"message\":\"Core Audio tap creation failed\"}\n"},
    };
    for (const auto& c : cases) {
        auto outcome = runWorker(serviceExecutable(), c.arguments, c.input);
        EXPECT_EQ(outcome.status, c.status) << c.input;
        EXPECT_EQ(outcome.output, c.output) << c.input;
    }
}

TEST(TonaviTapWorker, ExitsWith70WhenItsParentIsAlreadyGone) {
    // As the first process of a new process namespace, the worker sees no parent at all.
    auto unshare = [](std::vector<std::string> command) {
        command.insert(command.begin(), {"--pid", "--fork", "--user", "--map-root-user"});
        return command;
    };
    if (runWorker("/usr/bin/unshare", unshare({"/bin/true"}), "").status != 0)
        GTEST_SKIP() << "no unprivileged process namespaces here";
    auto outcome = runWorker("/usr/bin/unshare",
                             unshare({serviceExecutable(), "--tonavi-tap-worker", "com.example.player"}),
                             stateLine("com.example.player"));
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
    auto shell =
        TapWorkerProcess::launch("/bin/sh", {"-c", command}, DispatchQueue::global(QoS::utility), {}, error);
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
    EXPECT_TRUE(eventually([&] { return processEnded(worker); }, limit))
        << "worker " << worker << " outlived its parent";
    shell->closeInput(); // ends `cat`
    if (!processEnded(worker))
        ::kill(worker, SIGKILL);
}
