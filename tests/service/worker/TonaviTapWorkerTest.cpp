// The real worker executable's exit statuses. (A whole tap through a worker, and workers ending with a
// killed service, are the end-to-end mixing test's.)

#include "service/worker/TapWorkerEnvelope.hpp"
#include "service/worker/TapWorkerProcess.hpp"
#include "service/worker/TonaviTapWorkerMain.hpp"

#include "WorkerTestSupport.hpp"
#include "base/Log.hpp"
#include "platform/sim/SimWorldFile.hpp"

#include <gtest/gtest.h>

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
