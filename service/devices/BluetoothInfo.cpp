#include "service/devices/BluetoothInfo.hpp"

#include "core/outputs/BluetoothFacts.hpp"

#include <cerrno>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tonavi {

std::shared_ptr<BluetoothInfo> BluetoothInfo::make(AudioHardware& hardware, ProfilerRead readProfiler,
                                                   std::shared_ptr<DispatchClock> clock,
                                                   DispatchQueue* readQueue) {
    return std::shared_ptr<BluetoothInfo>(
        new BluetoothInfo(hardware, std::move(readProfiler), std::move(clock),
                          readQueue ? *readQueue : DispatchQueue::global(QoS::utility)));
}

BluetoothInfo::BluetoothInfo(AudioHardware& hardware, ProfilerRead readProfiler,
                             std::shared_ptr<DispatchClock> clock, DispatchQueue& readQueue)
    : hardware_(hardware), readProfiler_(std::move(readProfiler)), clock_(std::move(clock)),
      readQueue_(readQueue) {}

double BluetoothInfo::seconds() const {
    return std::chrono::duration<double>(clock_->now().time_since_epoch()).count();
}

std::optional<BluetoothInfo::Details> BluetoothInfo::registryDetails(const std::string& mac) {
    for (const auto& entry : hardware_.bluetoothRegistry()) {
        std::optional<std::string> address;
        if (const auto* text = std::get_if<std::string>(&entry.deviceAddress)) {
            address = *text;
            for (auto& c : *address)
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        } else if (const auto* bytes = std::get_if<std::vector<std::uint8_t>>(&entry.deviceAddress)) {
            address = BluetoothFacts::macFromBytes(*bytes);
        }
        if (!address || *address != mac)
            continue;
        Details details;
        details.battery = entry.batteryPercent ? entry.batteryPercent : entry.batteryPercentCombined;
        details.codec = entry.activeCodec;
        details.quality = BluetoothFacts::quality(entry.rssi);
        return details;
    }
    return std::nullopt;
}

BluetoothInfo::Details BluetoothInfo::profilerDetails(const std::string& mac) {
    if (!readProfiler_)
        return {};
    std::optional<BluetoothReading> reading;
    bool start = false;
    {
        std::lock_guard<std::mutex> guard(cacheLock_);
        start = throttle_.beginReadIfDue(seconds());
        reading = throttle_.lookup(mac);
    }
    if (start) {
        readQueue_.async([self = shared_from_this()] {
            auto result = self->readProfiler_();
            std::lock_guard<std::mutex> guard(self->cacheLock_);
            self->throttle_.finishRead(self->seconds(), std::move(result));
        });
    }
    if (!reading)
        return {};
    return Details{reading->battery, std::nullopt, BluetoothFacts::quality(reading->rssi)};
}

BluetoothInfo::Details BluetoothInfo::details(const std::string& mac) {
    auto registry = registryDetails(mac);
    if (registry && registry->battery && registry->quality)
        return *registry;
    // A registry that knows the device but not its battery or signal (PipeWire's, which knows the
    // codec only) leaves those to the slow source.
    const Details slow = profilerDetails(mac);
    if (!registry)
        return slow;
    if (!registry->battery)
        registry->battery = slow.battery;
    if (!registry->quality)
        registry->quality = slow.quality;
    return *registry;
}

TonaviDeviceManager::BluetoothInfo BluetoothInfo::closure() {
    return [self = shared_from_this()](const std::string& mac) { return self->details(mac); };
}

std::map<std::string, BluetoothReading> BluetoothInfo::readBlueZ() {
    const auto output = runChild({"busctl", "--json=short", "--timeout=10", "call", "org.bluez", "/",
                                  "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"});
    return output ? BluetoothFacts::parseBlueZObjects(*output) : std::map<std::string, BluetoothReading>{};
}

std::optional<std::string> BluetoothInfo::runChild(const std::vector<std::string>& argv) {
    if (argv.empty())
        return std::nullopt;
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0)
        return std::nullopt;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3); // the service's sockets stay its own
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    const int spawned = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (spawned != 0) {
        ::close(out[0]);
        return std::nullopt;
    }
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(out[0], buffer, sizeof buffer);
        if (n > 0)
            text.append(buffer, static_cast<std::size_t>(n));
        else if (n == 0 || errno != EINTR)
            break;
    }
    ::close(out[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return std::nullopt;
    return text;
}

} // namespace tonavi
