// The real worker executable's exit statuses. (A whole tap through a worker, and workers ending with a
// killed service, are the end-to-end mixing test's.)

#include "service/worker/TapWorkerEnvelope.hpp"

#include "WorkerTestSupport.hpp"
#include "platform/sim/SimWorldFile.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sys/wait.h>

using namespace tonavi;
using namespace tonavi::testing;

namespace {

struct Outcome {
    int status = -1;
    std::string output;
};

// Runs `executable arguments` through the shell with `input` on its stdin; collects stdout and status.
Outcome runWorker(const ScratchFolder& folder, const std::string& executable,
                  const std::vector<std::string>& arguments, const std::string& input) {
    std::ofstream(folder.path + "/input") << input;
    std::string command = "'" + executable + "'";
    for (const auto& argument : arguments)
        command += " '" + argument + "'";
    FILE* pipe = ::popen((command + " < '" + folder.path + "/input'").c_str(), "r");
    Outcome outcome;
    for (char buffer[256]; const std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe);)
        outcome.output.append(buffer, n);
    const int status = ::pclose(pipe);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
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
        {{worker, ""}, "", 64, ""},
        {{worker, player}, "garbage\n", 65, failureLine},
        {{worker, player}, "{\"action\":\"stop\"}\n", 65, failureLine},
        {{worker, player, ""}, stateLine("com.example.other"), 65, failureLine},
        {{worker, "com.example.absent"},
         stateLine("com.example.absent"),
         66,
         "{\"kind\":\"failure\",\"message\":\"Core Audio tap creation failed\"}\n"},
    };
    for (const auto& c : cases) {
        auto outcome = runWorker(folder, serviceExecutable(), c.arguments, c.input);
        EXPECT_EQ(outcome.status, c.status) << c.input;
        EXPECT_EQ(outcome.output, c.output) << c.input;
    }
}
