#include "PrivatePipeWireServer.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Eventually.hpp"
#include "Spawn.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"

namespace tonavi::test {

namespace {
std::unique_ptr<PrivatePipeWireServer> instance;
bool tried = false;
std::string failure;

// Two null sinks and a null source, the speakers the session manager's first choice.
constexpr const char* nodes = R"(context.objects = [
  { factory = adapter args = { factory.name = support.null-audio-sink node.name = "speakers" node.description = "Speakers" media.class = "Audio/Sink" audio.position = [ FL FR ] object.linger = true monitor.channel-volumes = true priority.session = 2000 } }
  { factory = adapter args = { factory.name = support.null-audio-sink node.name = "headphones" node.description = "Headphones" media.class = "Audio/Sink" audio.position = [ FL FR ] object.linger = true monitor.channel-volumes = true priority.session = 1000 } }
  { factory = adapter args = { factory.name = support.null-audio-sink node.name = "microphone" node.description = "Microphone" media.class = "Audio/Source/Virtual" audio.position = [ MONO ] object.linger = true priority.session = 3000 } }
]
)";
} // namespace

PrivatePipeWireServer* PrivatePipeWireServer::shared(std::string* why) {
    if (!tried) {
        tried = true;
        auto server = std::unique_ptr<PrivatePipeWireServer>(new PrivatePipeWireServer());
        if (server->start(failure))
            instance = std::move(server);
        std::atexit([] { instance.reset(); });
    }
    if (!instance && why)
        *why = failure;
    return instance.get();
}

pid_t PrivatePipeWireServer::spawn(const std::vector<std::string>& argv, const std::string& logName) {
    return spawnProcess(argv, nullptr, {}, folder_ + "/" + logName + ".log");
}

void PrivatePipeWireServer::terminate(pid_t pid, int signal) { stopProcess(pid, signal); }

bool PrivatePipeWireServer::start(std::string& why) {
    for (const std::string program : {"dbus-daemon", "pipewire", "wireplumber", "pipewire-pulse"})
        if (!programExists(program))
            return why = program + " is not installed (scripts/setup.sh installs it)", missing_ = true, false;
    std::string pattern = (std::filesystem::temp_directory_path() / "tonavi-pipewire-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
        return why = "no temporary folder", false;
    folder_ = pattern;
    for (const char* dir : {"/run", "/config/pipewire/pipewire.conf.d", "/state", "/data"})
        std::filesystem::create_directories(folder_ + dir);
    std::filesystem::permissions(folder_ + "/run", std::filesystem::perms::owner_all);
    std::ofstream(folder_ + "/config/pipewire/pipewire.conf.d/tonavi-sinks.conf") << nodes;

    for (const char* variable : {"XDG_RUNTIME_DIR", "PIPEWIRE_RUNTIME_DIR"})
        ::setenv(variable, (folder_ + "/run").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (folder_ + "/config").c_str(), 1);
    ::setenv("XDG_STATE_HOME", (folder_ + "/state").c_str(), 1);
    ::unsetenv("PIPEWIRE_REMOTE");
    ::unsetenv("PULSE_SERVER");
    const std::string bus = "unix:path=" + folder_ + "/run/bus";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", bus.c_str(), 1);
    bus_ = spawn({"dbus-daemon", "--session", "--nofork", "--address=" + bus}, "dbus");
    if (bus_ < 0 || !eventually([&] { return std::filesystem::exists(folder_ + "/run/bus"); },
                                std::chrono::milliseconds(5000)))
        return why = "the session bus did not start", false;
    return startAudio(why);
}

bool PrivatePipeWireServer::startAudio(std::string& why) {
    audio_.push_back(spawn({"pipewire"}, "pipewire"));
    if (!eventually([&] { return PipeWireConnection::serverAnswers(); }, std::chrono::milliseconds(5000)))
        return why = "pipewire did not start (see " + folder_ + "/pipewire.log)", false;
    audio_.push_back(spawn({"wireplumber"}, "wireplumber"));
    audio_.push_back(spawn({"pipewire-pulse"}, "pipewire-pulse"));
    // Ready when the nodes exist, the session manager has picked a default and pulse answers.
    PipeWireConnection connection;
    if (!connection.start(why))
        return false;
    const bool ready = connection.waitUntil(
        [](const PipeWireGraph& g) {
            return g.nodeByName("speakers") && g.nodeByName("headphones") && g.nodeByName("microphone") &&
                   !g.defaultNodeName("default.audio.sink").empty();
        },
        std::chrono::milliseconds(10000));
    if (!ready || !eventually([&] { return std::filesystem::exists(folder_ + "/run/pulse/native"); },
                              std::chrono::milliseconds(5000)))
        return why = "the session manager or pipewire-pulse did not come up (logs in " + folder_ + ")", false;
    return true;
}

void PrivatePipeWireServer::stopAudio() {
    for (auto it = audio_.rbegin(); it != audio_.rend(); ++it)
        terminate(*it);
    audio_.clear();
}

PrivatePipeWireServer::~PrivatePipeWireServer() {
    stopAudio();
    terminate(bus_);
    std::error_code ignored;
    if (!std::getenv("TONAVI_KEEP_SERVER_LOGS"))
        std::filesystem::remove_all(folder_, ignored);
}

} // namespace tonavi::test
