// Follow-me and the trail of onsets with real processes: the service, its tap workers and tonavictl
// on a private simulated laptop. What a tap renders is read from the meters the machine publishes.

#include "core/wire/TonaviChannel.hpp"
#include "platform/sim/SimWorld.hpp"
#include "tests/integration/ChildProcess.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <cmath>
#include <csignal>
#include <fstream>

using namespace tonavi;
using namespace tonavi::testing;
using namespace std::chrono_literals;

namespace {

const std::string safari = "com.apple.Safari";
const std::string music = "com.apple.Music";

class SmartMachine {
  public:
    SmartMachine() {
        env_ = home_.env();
        env_["TONAVI_SIM_WORLD"] = home_.home + "/world.json";
        ok({"sim", "init"});
        service_ = ChildProcess::spawn({binPath("tonavi-service")}, env_);
        EXPECT_TRUE(waitUntil(
            [&] {
                try {
                    return TonaviChannel::send(home_.socketPath(), TonaviRequest::ping(), 2).ok;
                } catch (const std::exception&) {
                    return false;
                }
            },
            20s));
    }
    ~SmartMachine() {
        service_.signal(SIGTERM);
        if (!service_.wait(20s)) {
            service_.signal(SIGKILL);
            service_.wait(5s);
        }
    }
    std::pair<int, std::string> ctl(std::vector<std::string> args) {
        args.insert(args.begin(), binPath("tonavictl"));
        return run(args, env_);
    }
    std::string ok(const std::vector<std::string>& args) {
        auto [status, out] = ctl(args);
        EXPECT_EQ(status, 0) << out;
        return out;
    }
    // The newest meter of the app's tap, in dB RMS; nothing while it has no tap playing.
    std::optional<double> tapRMS(const std::string& bundleID) const {
        std::ifstream in(home_.home + "/world.json");
        std::string error;
        auto world = simWorldFromJSON(nlohmann::json::parse(in, nullptr, false), error);
        if (!world)
            return std::nullopt;
        for (const auto& m : world->meters)
            if (m.aggregateUID.starts_with("com.brelmoor.tonavi.agg." + bundleID + ".") && m.cycles > 0)
                return m.rmsDB;
        return std::nullopt;
    }
    bool anyApp(const std::string& id) {
        auto [status, out] = ctl({"status", "--json"});
        return status == 0 && out.find(id) != std::string::npos;
    }

  private:
    PrivateHome home_{"smart"};
    std::map<std::string, std::string> env_;
    ChildProcess service_;
};

TEST(SmartEndToEnd, FollowMeLowersTheBackgroundBrowserAndRecentShowsItStarting) {
    SmartMachine m;
    // The first snapshot, with Music already playing, is the baseline of the trail.
    ASSERT_TRUE(waitUntil([&] { return m.anyApp(music); }, 10s));
    m.ok({"sim", "play", "com.apple.WebKit.GPU", "--freq", "1000", "--level", "-12"});

    // Music in front before the automation starts, so it never needs a tap.
    m.ok({"sim", "activate", music});
    SmartSettings half;
    half.followMeBackgroundPercent = 50;
    m.ok({"send", encodeRequest(TonaviRequest{TonaviRequest::SetSmartSettings{half}})});
    EXPECT_EQ(m.ok({"smart", "follow-me", "on"}), "follow-me on\n");

    // Both play -12 dBFS sines, -15 dB RMS; the app in front keeps it, the browser loses 6 dB.
    const double full = -12.0 - 3.0103;
    const auto plays = [&](const std::string& id, double rms) {
        return waitUntil(
            [&] {
                auto measured = m.tapRMS(id);
                return measured && std::abs(*measured - rms) < 0.5;
            },
            15s);
    };
    EXPECT_TRUE(plays(safari, full - 6.0206));
    EXPECT_TRUE(plays(music, full));
    EXPECT_NE(m.ok({"smart"}).find("hero Music; others at 50%"), std::string::npos);

    const std::string recent = m.ok({"recent"});
    EXPECT_NE(recent.find("Safari started playing "), std::string::npos) << recent;
    EXPECT_EQ(recent.find("Music started playing"), std::string::npos) << recent;
}

} // namespace
