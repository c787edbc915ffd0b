#include "tools/tonavictl/SimCommand.hpp"

#include "platform/MIDISystem.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/PlatformBackend.hpp"
#include "platform/sim/SimProperties.hpp"
#include "platform/sim/SimWorldFile.hpp"

namespace tonavi {

namespace {

constexpr int exitUsage = 64;

const char* usageText =
    "usage: tonavictl sim <command> [arguments]\n"
    "  init [--force]                         create the world from the preset laptop\n"
    "  show [--json]                          print the world (--json: the raw file)\n"
    "  plug <uid> [--name N] [--transport T] [--outputs N] [--inputs N] [--rate HZ]\n"
    "                                         plug a device in (an unplugged one comes back as it was)\n"
    "  unplug <uid>                           unplug a device\n"
    "  rename <uid> <name>                    rename a device\n"
    "  volume <uid> <0...1>                   set a device's output volume\n"
    "  settle <uid> <reads>                   a switch of the default output to the device shows only\n"
    "                                         after <reads> reads (a slow Bluetooth route; 0: at once)\n"
    "  bluetooth <uid> [--battery N] [--codec NAME] [--rssi DBM]\n"
    "                                         what the Bluetooth registry says of a device\n"
    "  set-default output|input|system <uid>  change a system default\n"
    "  play <app> [--freq HZ] [--level DB] [--silent]\n"
    "                                         start an app playing (<app>: bundle ID or pid)\n"
    "  stop <app>                             stop it playing\n"
    "  capture <app> on|off                   start or stop an app recording\n"
    "  route <app> <uid>|default              play an app on one device, or follow the default\n"
    "  launch <bundle-id> --pid N [--name N] [--policy regular|accessory|prohibited] [--no-audio]\n"
    "  quit <bundle-id>                       quit an app, with its helpers\n"
    "  install <bundle-id> [--name N] [--categories Audio;Player] [--path P]  install an app\n"
    "  activate <bundle-id>                   bring an app to the front\n"
    "  midi <source> cc <channel> <controller> <value>\n"
    "                                         a MIDI source sends a Control Change (channel 1...16)\n"
    "  midi-source add|remove <name>          plug a MIDI source in, or take it away\n"
    "  sleep | wake                           the machine goes to sleep or wakes\n"
    "  windows on|off                         make the window list available or not\n"
    "  record <uid> <absolute-path> <seconds> record what tapped audio plays on a device to a WAV file\n"
    "  stall-io <uid> on|off                  IO on the device (and aggregates it clocks) stops delivering\n"
    "  fail <operation> <count> <status> [--selector CODE]\n"
    "                                         the next <count> calls fail with <status> ('nope' or -50)\n"
    "  slow <milliseconds> [--selector CODE]  stall property reads\n"
    "transports: builtin usb bluetooth bluetooth-le airplay virtual other\n"
    "operations: get size set settable add-listener remove-listener create-tap destroy-tap\n"
    "            create-aggregate destroy-aggregate create-ioproc destroy-ioproc start stop\n";

struct Arguments {
    std::vector<std::string> positional;
    std::map<std::string, std::string> options; // "--name" -> value; flags map to ""
    std::string error;
};

Arguments parse(int argc, char** argv, int from, const std::vector<std::string>& flags) {
    Arguments a;
    for (int i = from; i < argc; ++i) {
        std::string word = argv[i];
        if (word.rfind("--", 0) != 0) {
            a.positional.push_back(word);
            continue;
        }
        if (std::find(flags.begin(), flags.end(), word) != flags.end()) {
            a.options[word] = "";
        } else if (i + 1 < argc) {
            a.options[word] = argv[++i];
        } else {
            a.error = "option " + word + " needs a value";
        }
    }
    return a;
}

bool parseNumber(const std::string& text, double& out) {
    if (text.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    out = std::strtod(text.c_str(), &end);
    return errno == 0 && end && *end == '\0' && std::isfinite(out);
}

bool parseInteger(const std::string& text, long& out) {
    if (text.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    out = std::strtol(text.c_str(), &end, 10);
    return errno == 0 && end && *end == '\0';
}

bool parseStatus(const std::string& text, OSStatus& status) {
    std::string code = text;
    if (code.size() == 6 && code.front() == '\'' && code.back() == '\'')
        code = code.substr(1, 4);
    if (code.size() == 4 && !std::isdigit(static_cast<unsigned char>(code[0])) && code[0] != '-') {
        status = static_cast<OSStatus>(fourCharCodeFromString(code));
        return true;
    }
    long n = 0;
    if (!parseInteger(text, n) || n < INT32_MIN || n > INT32_MAX)
        return false;
    status = static_cast<OSStatus>(n);
    return true;
}

bool parseSelector(const Arguments& a, std::uint32_t& selector) {
    selector = 0;
    auto it = a.options.find("--selector");
    if (it == a.options.end())
        return true;
    selector = fourCharCodeFromString(it->second);
    return selector != 0;
}

bool transportFromName(const std::string& name, std::uint32_t& transport) {
    static const std::map<std::string, std::uint32_t> names{
        {"builtin", kAudioDeviceTransportTypeBuiltIn},
        {"usb", kAudioDeviceTransportTypeUSB},
        {"bluetooth", kAudioDeviceTransportTypeBluetooth},
        {"bluetooth-le", kAudioDeviceTransportTypeBluetoothLE},
        {"airplay", kAudioDeviceTransportTypeAirPlay},
        {"virtual", kAudioDeviceTransportTypeVirtual},
        {"other", kAudioDeviceTransportTypeUnknown}};
    auto it = names.find(name);
    if (it == names.end())
        return false;
    transport = it->second;
    return true;
}

std::string transportName(std::uint32_t t) {
    switch (t) {
    case kAudioDeviceTransportTypeBuiltIn:
        return "builtin";
    case kAudioDeviceTransportTypeUSB:
        return "usb";
    case kAudioDeviceTransportTypeBluetooth:
    case kAudioDeviceTransportTypeBluetoothLE:
        return "bluetooth";
    case kAudioDeviceTransportTypeAirPlay:
        return "airplay";
    case kAudioDeviceTransportTypeAggregate:
    case kAudioDeviceTransportTypeAutoAggregate:
        return "aggregate";
    case kAudioDeviceTransportTypeVirtual:
        return "virtual";
    default:
        return "other";
    }
}

bool alive(pid_t pid) {
    return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM);
}

std::string fixed(double v, int digits) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.*f", digits, v);
    return buffer;
}

void show(const SimWorld& w, const std::string& path, std::ostream& out) {
    out << "World " << path << " (generation " << w.generation << ")" << (w.asleep ? ", asleep" : "") << "\n";
    out << "Devices:\n";
    for (const auto& d : w.devices) {
        out << "  [" << d.id << "] " << d.name << "  uid=" << d.uid << "  "
            << transportName(d.isAggregate ? kAudioDeviceTransportTypeAggregate : d.transport);
        const auto outs = SimProperties::streams(w, d, false);
        const auto ins = SimProperties::streams(w, d, true);
        std::uint32_t o = 0, i = 0;
        for (auto c : outs)
            o += c;
        for (auto c : ins)
            i += c;
        out << "  out " << o << " in " << i << "  " << fixed(d.sampleRate, 0) << " Hz  " << d.bufferFrameSize
            << " frames";
        if (!d.volumeElements.empty())
            out << "  volume " << fixed(d.volumeElements.begin()->second, 2);
        if (d.hasMute && d.muted)
            out << "  muted";
        if (!d.alive)
            out << "  dead";
        if (d.uid == w.defaultOutputUID)
            out << "  [default output]";
        if (d.uid == w.defaultInputUID)
            out << "  [default input]";
        if (d.uid == w.systemOutputUID)
            out << "  [alert sounds]";
        if (d.isAggregate) {
            out << "  aggregate of";
            for (const auto& s : d.aggregate.subDevices)
                out << " " << s.uid;
            if (!d.aggregate.taps.empty())
                out << " + " << d.aggregate.taps.size() << " tap(s)";
            out << (d.aggregate.isPrivate ? ", private to pid " : ", made by pid ") << d.ownerPID;
            if (d.runningIOProcs)
                out << ", IO running";
        }
        out << "\n";
    }
    for (const auto& d : w.detached)
        out << "  (unplugged) " << d.name << "  uid=" << d.uid << "\n";
    out << "Audio processes:\n";
    for (const auto& p : w.processes) {
        out << "  [" << p.id << "] pid " << p.pid << " " << p.bundleID;
        if (p.responsiblePID > 0)
            out << " (helper of pid " << p.responsiblePID << ")";
        if (p.runningOutput) {
            out << "  playing ";
            if (p.signal.silent)
                out << "silence";
            else
                out << fixed(p.signal.frequency, 0) << " Hz at " << fixed(p.signal.levelDB, 1) << " dBFS";
            const auto device = w.effectiveDeviceUID(p, false);
            out << " on " << device << (w.isMutedByTap(p, device) ? " (tapped: silent on its own path)" : "");
        }
        if (p.runningInput)
            out << "  capturing from " << w.effectiveDeviceUID(p, true);
        out << "\n";
    }
    out << "Applications:\n";
    for (const auto& a : w.applications) {
        out << "  pid " << a.pid << " " << a.bundleID << " \"" << a.name << "\" "
            << activationPolicyName(a.policy) << (a.pid == w.frontmostPID ? "  [frontmost]" : "") << "\n";
    }
    if (!w.midiSources.empty()) {
        out << "MIDI sources:";
        for (const auto& name : w.midiSources)
            out << " " << name;
        out << "  (" << w.midiSequence << " messages sent)\n";
    }
    if (!w.taps.empty()) {
        out << "Taps:\n";
        for (const auto& t : w.taps) {
            const auto& d = t.description;
            out << "  [" << t.id << "] " << (d.name.empty() ? d.uuid : d.name) << "  "
                << (d.mixdown ? std::string("stereo mixdown")
                              : "stream " + std::to_string(d.stream) + " of " + d.deviceUID)
                << "  of " << d.processes.size() << " process(es), made by pid " << t.ownerPID
                << (alive(t.ownerPID) ? "" : " (gone)") << "\n";
        }
    }
    if (!w.meters.empty()) {
        out << "Meters (what tapped audio plays):\n";
        for (const auto& m : w.meters) {
            out << "  " << m.deviceUID << " via " << m.aggregateUID << ": peak " << fixed(m.peakDB, 1)
                << " dBFS, rms " << fixed(m.rmsDB, 1) << " dBFS, ~" << fixed(m.frequency, 0) << " Hz\n";
        }
    }
    for (const auto& r : w.recordings)
        out << "Recording " << r.seconds << " s of " << r.deviceUID << " to " << r.path << " (pending)\n";
    if (!w.faults.empty() || w.readDelayMilliseconds > 0) {
        out << "Injected:\n";
        for (const auto& f : w.faults) {
            out << "  next " << f.remaining << " " << simOperationName(f.operation)
                << (f.selector ? " of " + fourCharString(f.selector) : std::string()) << " fail with "
                << fourCharString(static_cast<std::uint32_t>(f.status)) << "\n";
        }
        if (w.readDelayMilliseconds > 0) {
            out << "  reads"
                << (w.readDelaySelector ? " of " + fourCharString(w.readDelaySelector) : std::string())
                << " stall " << w.readDelayMilliseconds << " ms\n";
        }
    }
}

int fail(const std::string& message) {
    std::cerr << "tonavictl sim: " << message << "\n";
    return 1;
}
int usage(const std::string& message) {
    std::cerr << "tonavictl sim: " << message << "\n" << usageText;
    return exitUsage;
}

} // namespace

int runSimCommand(int argc, char** argv) {
    if (argc < 2)
        return usage("a command is needed");
    const std::string command = argv[1];
    if (command == "help" || command == "--help") {
        std::cout << usageText;
        return 0;
    }
    const std::string path = PlatformBackend::simWorldPath();
    SimWorldFile file(path);
    Arguments a = parse(argc, argv, 2, {"--force", "--json", "--silent", "--no-audio"});
    if (!a.error.empty())
        return usage(a.error);
    const auto& p = a.positional;
    auto need = [&](std::size_t n) { return p.size() == n; };

    if (command == "init") {
        if (!need(0))
            return usage("init takes no arguments");
        if (auto why = file.create(SimWorld::preset(), a.options.count("--force") > 0); !why.empty())
            return fail(why + (why.rfind("a world already", 0) == 0 ? " (use --force to replace it)" : ""));
        std::cout << "created " << path << "\n";
        return 0;
    }
    if (command == "show") {
        if (!need(0))
            return usage("show takes no arguments");
        std::string error;
        auto world = file.read(error);
        if (!world)
            return fail(error);
        if (a.options.count("--json")) {
            std::ifstream in(path);
            std::cout << in.rdbuf();
        } else {
            show(*world, path, std::cout);
        }
        return 0;
    }

    // Everything else is one edit of the world, under its lock.
    std::function<std::string(SimWorld&)> edit;
    if (command == "plug" && need(1)) {
        const std::string uid = p[0];
        const bool describes = a.options.size() > 0;
        SimDevice d;
        d.uid = uid;
        d.name = a.options.count("--name") ? a.options["--name"] : uid;
        if (a.options.count("--transport") && !transportFromName(a.options["--transport"], d.transport))
            return usage("unknown transport " + a.options["--transport"]);
        long outputs = 2, inputs = 0;
        double rate = 48000.0;
        if (a.options.count("--outputs") &&
            !(parseInteger(a.options["--outputs"], outputs) && outputs >= 0 && outputs <= 64))
            return usage("--outputs is a channel count from 0 to 64");
        if (a.options.count("--inputs") &&
            !(parseInteger(a.options["--inputs"], inputs) && inputs >= 0 && inputs <= 64))
            return usage("--inputs is a channel count from 0 to 64");
        if (a.options.count("--rate") &&
            !(parseNumber(a.options["--rate"], rate) && rate >= 8000 && rate <= 384000))
            return usage("--rate is a sample rate from 8000 to 384000");
        if (outputs == 0 && inputs == 0)
            return usage("a device needs outputs or inputs");
        if (outputs > 0) {
            d.outputStreams = {static_cast<std::uint32_t>(outputs)};
            d.volumeElements = {{0, 1.0f}};
            d.hasVirtualMainVolume = true;
            d.hasMute = true;
        }
        if (inputs > 0)
            d.inputStreams = {static_cast<std::uint32_t>(inputs)};
        d.sampleRate = rate;
        edit = [=](SimWorld& w) {
            const bool known = std::any_of(w.detached.begin(), w.detached.end(),
                                           [&](const SimDevice& x) { return x.uid == uid; });
            return known && !describes ? w.replug(uid) : w.plug(d);
        };
    } else if (command == "unplug" && need(1)) {
        edit = [uid = p[0]](SimWorld& w) { return w.unplug(uid); };
    } else if (command == "rename" && need(2)) {
        edit = [uid = p[0], name = p[1]](SimWorld& w) { return w.rename(uid, name); };
    } else if (command == "volume" && need(2)) {
        double v = 0;
        if (!parseNumber(p[1], v))
            return usage("a volume is a number from 0 to 1");
        edit = [uid = p[0], v](SimWorld& w) { return w.setVolume(uid, static_cast<float>(v)); };
    } else if (command == "settle" && need(2)) {
        long reads = 0;
        if (!parseInteger(p[1], reads) || reads < 0 || reads > 10'000)
            return usage("settle takes a number of reads from 0 to 10000");
        edit = [uid = p[0], reads](SimWorld& w) {
            auto* d = w.deviceByUID(uid);
            if (!d)
                return "no device " + uid;
            d->settleReads = static_cast<std::uint32_t>(reads);
            return std::string();
        };
    } else if (command == "bluetooth" && need(1)) {
        long battery = 0, rssi = 0;
        if (a.options.count("--battery") &&
            !(parseInteger(a.options["--battery"], battery) && battery >= 0 && battery <= 100))
            return usage("--battery is a percentage from 0 to 100");
        if (a.options.count("--rssi") &&
            !(parseInteger(a.options["--rssi"], rssi) && rssi >= -128 && rssi <= 20))
            return usage("--rssi is a signal in dBm from -128 to 20");
        edit = [uid = p[0], options = a.options, battery, rssi](SimWorld& w) {
            auto* d = w.deviceByUID(uid);
            if (!d)
                return "no device " + uid;
            if (d->transport != kAudioDeviceTransportTypeBluetooth &&
                d->transport != kAudioDeviceTransportTypeBluetoothLE)
                return uid + " is not a Bluetooth device";
            if (options.count("--battery"))
                d->bluetoothBattery = battery;
            if (options.count("--codec"))
                d->bluetoothCodec = options.at("--codec");
            if (options.count("--rssi"))
                d->bluetoothRSSI = rssi;
            return std::string();
        };
    } else if (command == "set-default" && need(2)) {
        SimDefaultRole role;
        if (p[0] == "output")
            role = SimDefaultRole::output;
        else if (p[0] == "input")
            role = SimDefaultRole::input;
        else if (p[0] == "system")
            role = SimDefaultRole::systemOutput;
        else
            return usage("set-default takes output, input or system");
        edit = [role, uid = p[1]](SimWorld& w) { return w.setDefault(role, uid); };
    } else if (command == "play" && need(1)) {
        std::optional<SimProcess::Signal> signal;
        if (a.options.count("--freq") || a.options.count("--level") || a.options.count("--silent")) {
            SimProcess::Signal s;
            s.silent = a.options.count("--silent") > 0;
            if (a.options.count("--freq") && !parseNumber(a.options["--freq"], s.frequency))
                return usage("--freq is a frequency in Hz");
            if (a.options.count("--level") && !parseNumber(a.options["--level"], s.levelDB))
                return usage("--level is a level in dBFS");
            signal = s;
        }
        edit = [who = p[0], signal](SimWorld& w) {
            // Without options the app keeps the tone it had.
            return w.setPlaying(who, true, signal);
        };
    } else if (command == "stop" && need(1)) {
        edit = [who = p[0]](SimWorld& w) { return w.setPlaying(who, false, std::nullopt); };
    } else if (command == "capture" && need(2)) {
        if (p[1] != "on" && p[1] != "off")
            return usage("capture takes on or off");
        edit = [who = p[0], on = p[1] == "on"](SimWorld& w) { return w.setCapturing(who, on); };
    } else if (command == "route" && need(2)) {
        edit = [who = p[0], uid = p[1] == "default" ? std::string() : p[1]](SimWorld& w) {
            return w.routeProcess(who, uid);
        };
    } else if (command == "launch" && need(1)) {
        SimWorld::Application app;
        app.bundleID = p[0];
        long pid = 0;
        if (!a.options.count("--pid") || !parseInteger(a.options["--pid"], pid))
            return usage("launch needs --pid N");
        app.pid = static_cast<pid_t>(pid);
        app.name = a.options.count("--name") ? a.options["--name"] : std::string();
        if (a.options.count("--policy") && !activationPolicyFromName(a.options["--policy"], app.policy))
            return usage("unknown activation policy " + a.options["--policy"]);
        edit = [app, audio = a.options.count("--no-audio") == 0](SimWorld& w) {
            return w.launch(app, audio);
        };
    } else if (command == "install" && need(1)) {
        SimWorld::InstalledApplication app;
        app.bundleID = p[0];
        app.name = a.options.count("--name") ? a.options["--name"] : std::string();
        app.path = a.options.count("--path") ? a.options["--path"] : "/Applications/" + p[0] + ".app";
        std::stringstream categories(a.options.count("--categories") ? a.options["--categories"] : std::string());
        for (std::string c; std::getline(categories, c, ';');)
            if (!c.empty())
                app.categories.push_back(c);
        edit = [app](SimWorld& w) { return w.install(app); };
    } else if (command == "midi" && need(5) && p[1] == "cc") {
        long channel = 0, controller = 0, value = 0;
        if (!parseInteger(p[2], channel) || channel < 1 || channel > 16)
            return usage("a MIDI channel is 1 to 16");
        if (!parseInteger(p[3], controller) || controller < 0 || controller > 127)
            return usage("a controller number is 0 to 127");
        if (!parseInteger(p[4], value) || value < 0 || value > 127)
            return usage("a controller value is 0 to 127");
        // Host time as every process of the machine reads it, so a receiver can tell the delay.
        const auto sentAt = static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
                .count());
        const std::uint32_t word = umpControlChange(static_cast<unsigned>(channel - 1), static_cast<unsigned>(controller),
                                                    static_cast<unsigned>(value));
        edit = [source = p[0], word, sentAt](SimWorld& w) { return w.sendMIDI(source, {word}, sentAt); };
    } else if (command == "midi-source" && need(2) && (p[0] == "add" || p[0] == "remove")) {
        edit = [add = p[0] == "add", name = p[1]](SimWorld& w) {
            return add ? w.plugMIDISource(name) : w.unplugMIDISource(name);
        };
    } else if (command == "quit" && need(1)) {
        edit = [id = p[0]](SimWorld& w) { return w.quit(id); };
    } else if (command == "activate" && need(1)) {
        edit = [id = p[0]](SimWorld& w) { return w.activate(id); };
    } else if ((command == "sleep" || command == "wake") && need(0)) {
        edit = [asleep = command == "sleep"](SimWorld& w) {
            if (w.asleep == asleep)
                return std::string(asleep ? "the machine is already asleep" : "the machine is awake");
            w.asleep = asleep;
            return std::string();
        };
    } else if (command == "record" && need(3)) {
        double seconds = 0;
        if (!parseNumber(p[2], seconds))
            return usage("a recording lasts a number of seconds");
        edit = [uid = p[0], path = p[1], seconds](SimWorld& w) {
            return w.requestRecording(uid, path, seconds);
        };
    } else if (command == "stall-io" && need(2)) {
        if (p[1] != "on" && p[1] != "off")
            return usage("stall-io takes on or off");
        edit = [uid = p[0], on = p[1] == "on"](SimWorld& w) { return w.stallIO(uid, on); };
    } else if (command == "windows" && need(1)) {
        if (p[0] != "on" && p[0] != "off")
            return usage("windows takes on or off");
        edit = [on = p[0] == "on"](SimWorld& w) {
            w.windowListAvailable = on;
            return std::string();
        };
    } else if (command == "fail" && need(3)) {
        const auto operation = simOperationFromName(p[0]);
        long count = 0;
        OSStatus status = 0;
        std::uint32_t selector = 0;
        if (!operation)
            return usage("unknown operation " + p[0]);
        if (!parseInteger(p[1], count) || count < 0 || count > 1'000'000)
            return usage("a count is a number of calls");
        if (!parseStatus(p[2], status))
            return usage("a status is four characters or a number");
        if (!parseSelector(a, selector))
            return usage("a selector is four characters");
        edit = [=](SimWorld& w) { return w.failNext(*operation, static_cast<int>(count), status, selector); };
    } else if (command == "slow" && need(1)) {
        long ms = 0;
        std::uint32_t selector = 0;
        if (!parseInteger(p[0], ms) || ms < 0 || ms > 60'000)
            return usage("a delay is 0 to 60000 milliseconds");
        if (!parseSelector(a, selector))
            return usage("a selector is four characters");
        edit = [=](SimWorld& w) {
            w.setReadDelay(static_cast<std::uint32_t>(ms), selector);
            return std::string();
        };
    } else {
        return usage("unknown command or wrong arguments: " + command);
    }

    if (auto why = file.update(edit); !why.empty())
        return fail(why);
    return 0;
}

} // namespace tonavi
