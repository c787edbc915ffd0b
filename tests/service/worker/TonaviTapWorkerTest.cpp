// The real worker executable's exit statuses. (A whole tap through a worker, and workers ending with a
// killed service, are the end-to-end mixing test's.)

#include "service/worker/TapWorkerEnvelope.hpp"
#include "service/worker/TapWorkerEventWriter.hpp"
#include "service/worker/TapWorkerRenderer.hpp"

#include "WorkerTestSupport.hpp"
#include "platform/sim/SimWorldFile.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sys/wait.h>

using namespace tonavi;
using namespace tonavi::testing;

namespace {

// Runs the service with `arguments` and `input` on its stdin, on the simulated machine in the folder's
// world.json; its status and what it wrote to stdout.
std::pair<int, std::string> runWorker(const ScratchFolder& folder, const std::vector<std::string>& arguments,
                                      const std::string& input) {
    std::ofstream(folder.path + "/input") << input;
    std::string command = "TONAVI_AUDIO_BACKEND=sim TONAVI_SIM_WORLD='" + folder.path +
                          "/world.json' XDG_STATE_HOME='" + folder.path + "' '" + serviceExecutable() + "'";
    for (const auto& argument : arguments)
        command += " '" + argument + "'";
    FILE* pipe = ::popen((command + " < '" + folder.path + "/input'").c_str(), "r");
    std::string output;
    for (char buffer[256]; const std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe);)
        output.append(buffer, n);
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
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
    const std::string worker = "--tonavi-tap-worker", player = "com.example.player";
    // Rows: arguments, stdin, exit status, stdout.
    const std::tuple<std::vector<std::string>, std::string, int, std::string> cases[] = {
        {{worker, ""}, "", 64, ""},
        {{worker, player}, "garbage\n", 65, failureLine},
        {{worker, player}, "{\"action\":\"stop\"}\n", 65, failureLine},
        {{worker, player, ""}, stateLine("com.example.other"), 65, failureLine},
        {{worker, "com.example.absent"},
         stateLine("com.example.absent"),
         66,
         "{\"kind\":\"failure\",\"message\":\"Core Audio tap creation failed\"}\n"},
    };
    for (const auto& [arguments, input, status, output] : cases)
        EXPECT_EQ(runWorker(folder, arguments, input), std::pair(status, output)) << input;
}

TEST(TonaviTapWorker, ARendererRecordsAStageModeSwitchOnlyWhenTheStateChangesIt) {
    // The service sends a state on every smart pass; one that repeats leaves the health log alone.
    TapWorkerState state;
    state.app = AppAudioState("com.apple.Music");
    TapWorkerEventWriter writer(-1);
    TapWorkerRenderer renderer(state, writer, 48000.0);
    for (const bool stage : {false, false, true, true, false, false}) {
        state.stageMode = stage;
        renderer.apply(state);
    }
    std::vector<std::string> heard;
    for (const auto& event : renderer.engine().healthLog())
        heard.push_back(event.kind + ": " + event.detail);
    EXPECT_EQ(heard, (std::vector<std::string>{"stage-mode: engaged: every app tap released to the OS direct path",
                                               "stage-mode: released"}));
}
