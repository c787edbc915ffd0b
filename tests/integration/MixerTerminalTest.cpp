// `tonavictl mixer` in a real terminal: tmux runs it in a pane of fixed size on the simulated laptop's
// service, keys arrive through send-keys, and the screen is read back with capture-pane. The mixer talks
// to the service through a counting proxy, so the test sees how many requests a burst of keys became.

#include "tests/integration/ChildProcess.hpp"
#include "tools/load/RequestCountingProxy.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>

using namespace tonavi;
using namespace tonavi::testing;
using namespace std::chrono_literals;

namespace {

const std::string music = "com.apple.Music";

std::string tmuxPath() {
    const char* path = std::getenv("PATH");
    std::stringstream folders(path ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (!folder.empty() && ::access((folder + "/tmux").c_str(), X_OK) == 0)
            return folder + "/tmux";
    return {};
}

// A tmux server of its own (its socket in the home), one 100x30 pane running a plain shell.
class Terminal {
  public:
    Terminal(std::string tmux, std::string socket, const Env& env)
        : tmux_(std::move(tmux)), socket_(std::move(socket)) {
        std::vector<std::string> start = {"new-session", "-d", "-x", "100", "-y", "30", "-s", "mixer"};
        for (const auto& [k, v] : env)
            start.insert(start.end(), {"-e", k + "=" + v});
        start.push_back("/bin/sh");
        // The server this starts outlives the command and would inherit (and hold open for ever) the pipe
        // that ChildProcess reads to its end: it starts through the shell instead, with nothing attached.
        std::string line = "exec '" + tmux_ + "' -S '" + socket_ + "'";
        for (const auto& word : start)
            line += " '" + word + "'";
        started_ = std::system((line + " >/dev/null 2>&1 </dev/null").c_str()) == 0;
    }
    ~Terminal() { command({"kill-server"}); }

    bool started() const { return started_; }
    std::pair<int, std::string> command(std::vector<std::string> args) const {
        args.insert(args.begin(), {tmux_, "-S", socket_});
        return run(args, {});
    }
    void keys(std::vector<std::string> keys) const {
        keys.insert(keys.begin(), {"send-keys", "-t", "mixer"});
        command(keys);
    }
    std::string screen() const { return command({"capture-pane", "-p", "-t", "mixer"}).second; }
    std::string format(const std::string& f) const {
        return command({"display-message", "-p", "-t", "mixer", f}).second;
    }
    bool waitForScreen(const std::function<bool(const std::string&)>& condition) const {
        return waitUntil([&] { return condition(screen()); }, 15s);
    }

  private:
    std::string tmux_;
    std::string socket_;
    bool started_ = false;
};

// Waits until Music's row of the saved configuration satisfies `wanted`.
bool musicSaved(const PrivateHome& home, const std::function<bool(const nlohmann::json&)>& wanted) {
    return waitUntil(
        [&] {
            const auto state = nlohmann::json::parse(readFile(home.supportDir() + "/state.json"), nullptr, false);
            return state.is_object() && std::ranges::any_of(state.value("apps", nlohmann::json::array()),
                                                            [&](const auto& app) {
                                                                return app.value("id", "") == music && wanted(app);
                                                            });
        },
        15s);
}

// Whether a line of the screen starts with `start` and holds `part`.
bool hasLine(const std::string& screen, const std::string& start, const std::string& part = "") {
    std::stringstream lines(screen);
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(start) && line.find(part) != std::string::npos)
            return true;
    return false;
}

TEST(MixerTerminalTest, KeysSelectCoalesceMuteAndQuitCleanly) {
    const std::string tmux = tmuxPath();
    if (tmux.empty())
        GTEST_SKIP() << "tmux is not installed (scripts/setup.sh installs it)";

    PrivateHome home("mixer");
    Env env = home.env();
    env["TONAVI_SIM_WORLD"] = home.home + "/world.json";
    ASSERT_EQ(ctl(env, {"sim", "init"}).first, 0);
    ChildProcess service = startService(home, env);
    struct StopAtEnd {
        ChildProcess& service;
        ~StopAtEnd() { service.stop(); }
    } stopAtEnd{service};
    // Players are known once the service has looked at the machine, a status or two after it starts.
    ASSERT_TRUE(waitUntil([&] { return ctl(env, {"volume", "Music", "0.2"}).first == 0; }, 15s));
    ASSERT_EQ(ctl(env, {"config", "save", "Quiet"}).first, 0);
    // Music's place in the list, as the mixer will draw it.
    const auto status = nlohmann::json::parse(ctl(env, {"status", "--json"}).second);
    std::size_t row = 0;
    for (const auto& app : status["status"]["apps"]) {
        if (app["id"] == music)
            break;
        ++row;
    }
    ASSERT_LT(row, status["status"]["apps"].size());

    RequestCountingProxy proxy(home.home + "/proxy/Tonavi/control.sock", home.socketPath());
    Env mixerEnv = env;
    mixerEnv["XDG_DATA_HOME"] = home.home + "/proxy";
    Terminal terminal(tmux, home.home + "/tmux.sock", mixerEnv);
    ASSERT_TRUE(terminal.started());
    // The shell's prompt first, then the mixer started from it as a user would.
    ASSERT_TRUE(terminal.waitForScreen(
        [](const auto& s) { return s.find_first_not_of(" \n") != std::string::npos; }));
    terminal.keys(
        {std::filesystem::absolute(binPath("tonavictl")).string() + " mixer; echo mixer-exit=$?", "Enter"});
    ASSERT_TRUE(terminal.waitForScreen([](const auto& s) {
        return s.find("Tonavi mixer") != std::string::npos && s.find("Music") != std::string::npos;
    })) << terminal.screen();
    EXPECT_EQ(terminal.format("#{alternate_on}"), "1\n");

    for (std::size_t i = 0; i < row; ++i)
        terminal.keys({"Down"});
    ASSERT_TRUE(terminal.waitForScreen([](const auto& s) { return hasLine(s, "> Music"); }))
        << terminal.screen();

    // 50 presses of right in one burst, from 20 %: the volume ends at 100 %, in a handful of requests.
    std::vector<std::string> rights(50, "Right");
    terminal.keys(rights);
    ASSERT_TRUE(musicSaved(home, [](const auto& m) { return m.value("volume", -1.0) == 1.0; }));
    ASSERT_TRUE(terminal.waitForScreen([](const auto& s) {
        return hasLine(s, "> Music ", "[##########] 100%");
    })) << terminal.screen();
    const std::size_t upRequests = proxy.count("setAppVolume");
    EXPECT_GE(upRequests, 1u);
    EXPECT_LE(upRequests, 10u);

    // 50 presses of the 1 % key down: exactly 50 %, again in a handful.
    terminal.keys(std::vector<std::string>(50, ","));
    ASSERT_TRUE(musicSaved(home, [](const auto& m) { return m.value("volume", -1.0) == 0.5; }))
        << readFile(home.supportDir() + "/state.json");
    ASSERT_TRUE(terminal.waitForScreen([](const auto& s) {
        return hasLine(s, "> Music ", "[#####-----]  50%");
    })) << terminal.screen();
    EXPECT_LE(proxy.count("setAppVolume") - upRequests, 10u);

    terminal.keys({"m"});
    EXPECT_TRUE(musicSaved(home, [](const auto& m) { return m.value("muted", false); }));
    EXPECT_GT(proxy.count("status"), 0u);

    // c lists the saved scenes; Enter loads one: Music is back at 20 % and unmuted.
    terminal.keys({"c"});
    ASSERT_TRUE(terminal.waitForScreen([](const auto& s) { return s.find("Load a scene") != std::string::npos; }))
        << terminal.screen();
    terminal.keys({"Enter"});
    EXPECT_TRUE(musicSaved(home, [](const auto& m) { return m.value("volume", -1.0) == 0.2 && !m.value("muted", false); }))
        << readFile(home.supportDir() + "/state.json");

    // q gives the terminal back: the normal screen again, with the command line and what followed it.
    terminal.keys({"q"});
    ASSERT_TRUE(terminal.waitForScreen([](const auto& s) {
        return s.find("Tonavi mixer") == std::string::npos && s.find("\nmixer-exit=0\n") != std::string::npos;
    })) << terminal.screen();
    EXPECT_EQ(terminal.format("#{alternate_on}"), "0\n");
    std::printf("setAppVolume requests: %zu for 50 presses up, %zu for 50 down\n", upRequests,
                proxy.count("setAppVolume") - upRequests);
}

} // namespace
