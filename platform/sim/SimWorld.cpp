#include "platform/sim/SimWorld.hpp"

#include <algorithm>
#include <cmath>

namespace tonavi {

namespace {
constexpr const char* operationNames[] = {
    "get",
    "size",
    "set",
    "settable",
    "add-listener",
    "remove-listener",
    "create-tap",
    "destroy-tap",
    "create-aggregate",
    "destroy-aggregate",
    "create-ioproc",
    "destroy-ioproc",
    "start",
    "stop",
};

bool hasStreams(const SimDevice& d, bool input) {
    return d.channels(input) > 0;
}
} // namespace

const char* simOperationName(SimOperation operation) {
    return operationNames[static_cast<int>(operation)];
}

std::optional<SimOperation> simOperationFromName(const std::string& name) {
    for (int i = 0; i <= static_cast<int>(SimOperation::deviceStop); ++i) {
        if (name == operationNames[i])
            return static_cast<SimOperation>(i);
    }
    return std::nullopt;
}

SimWorld SimWorld::preset() {
    SimWorld w;
    const std::vector<double> builtinRates{44100.0, 48000.0, 88200.0, 96000.0};

    SimDevice speakers;
    speakers.uid = "BuiltInSpeakerDevice";
    speakers.name = "MacBook Pro Speakers";
    speakers.transport = kAudioDeviceTransportTypeBuiltIn;
    speakers.outputStreams = {2};
    speakers.volumeElements = {{1, 0.5f}, {2, 0.5f}}; // stereo pair, no main element
    speakers.hasVirtualMainVolume = true;
    speakers.hasMute = true;
    speakers.availableSampleRates = builtinRates;
    speakers.bufferFrameSizeMin = 15;
    speakers.relatedUIDs = {"BuiltInMicrophoneDevice"};

    SimDevice mic;
    mic.uid = "BuiltInMicrophoneDevice";
    mic.name = "MacBook Pro Microphone";
    mic.inputStreams = {1};
    mic.availableSampleRates = builtinRates;
    mic.bufferFrameSizeMin = 15;
    mic.relatedUIDs = {"BuiltInSpeakerDevice"};

    SimDevice usb;
    usb.uid = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
    usb.name = "USB Headphones";
    usb.transport = kAudioDeviceTransportTypeUSB;
    usb.outputStreams = {2};
    usb.volumeElements = {{0, 0.6f}};
    usb.hasVirtualMainVolume = true;
    usb.hasMute = true;
    usb.availableSampleRates = {44100.0, 48000.0, 96000.0};
    usb.bufferFrameSizeMin = 32;
    usb.bufferFrameSizeMax = 4096;

    SimDevice budsOut;
    budsOut.uid = "AC-DE-48-00-11-22:output";
    budsOut.name = "Earbuds";
    budsOut.transport = kAudioDeviceTransportTypeBluetooth;
    budsOut.outputStreams = {2};
    budsOut.volumeElements = {{0, 0.5f}};
    budsOut.hasVirtualMainVolume = true;
    budsOut.hasMute = true;
    budsOut.availableSampleRates = {48000.0};
    budsOut.bufferFrameSize = 1024;
    budsOut.bufferFrameSizeMin = 1024;
    budsOut.bufferFrameSizeMax = 1024;
    budsOut.relatedUIDs = {"AC-DE-48-00-11-22:input"};
    budsOut.bluetoothBattery = 80;
    budsOut.bluetoothCodec = "AAC";
    budsOut.bluetoothRSSI = -62;

    SimDevice budsIn;
    budsIn.uid = "AC-DE-48-00-11-22:input";
    budsIn.name = "Earbuds";
    budsIn.transport = kAudioDeviceTransportTypeBluetooth;
    budsIn.inputStreams = {1};
    budsIn.sampleRate = 24000.0;
    budsIn.availableSampleRates = {24000.0};
    budsIn.bufferFrameSize = 1024;
    budsIn.bufferFrameSizeMin = 1024;
    budsIn.bufferFrameSizeMax = 1024;
    budsIn.relatedUIDs = {"AC-DE-48-00-11-22:output"};

    SimDevice airplay;
    airplay.uid = "AirPlay:Living-Room-Speaker";
    airplay.name = "Living Room";
    airplay.transport = kAudioDeviceTransportTypeAirPlay;
    airplay.outputStreams = {2};
    airplay.volumeElements = {{0, 0.7f}};
    airplay.hasVirtualMainVolume = true;
    airplay.sampleRate = 44100.0;
    airplay.availableSampleRates = {44100.0};
    airplay.bufferFrameSize = 1024;
    airplay.bufferFrameSizeMin = 1024;
    airplay.bufferFrameSizeMax = 1024;

    for (auto* d : {&speakers, &mic, &usb, &budsOut, &budsIn, &airplay}) {
        d->id = w.allocateID();
        w.devices.push_back(*d);
    }
    w.defaultOutputUID = speakers.uid;
    w.defaultInputUID = mic.uid;
    w.systemOutputUID = speakers.uid;

    auto addApp = [&](const char* id, const char* name, pid_t pid, ActivationPolicy policy) {
        w.applications.push_back({id, name, pid, policy});
    };
    auto addProcess = [&](const char* id, pid_t pid, pid_t responsible, bool out, bool in,
                          SimProcess::Signal signal) {
        SimProcess p;
        p.id = w.allocateID();
        p.pid = pid;
        p.bundleID = id;
        p.responsiblePID = responsible;
        p.runningOutput = out;
        p.runningInput = in;
        p.signal = signal;
        w.processes.push_back(p);
    };
    addApp("com.apple.Safari", "Safari", 4101, ActivationPolicy::regular);
    addApp("com.apple.Music", "Music", 4103, ActivationPolicy::regular);
    addApp("us.zoom.xos", "zoom.us", 4104, ActivationPolicy::regular);
    addApp("com.example.SyncAgent", "Sync Agent", 4105, ActivationPolicy::prohibited);
    addProcess("com.apple.Safari", 4101, 0, false, false, {1000.0, -18.0, false});
    // The browser plays through its helper, which answers to the browser.
    addProcess("com.apple.WebKit.GPU", 4102, 4101, false, false, {1000.0, -18.0, false});
    addProcess("com.apple.Music", 4103, 0, true, false, {440.0, -12.0, false});
    addProcess("us.zoom.xos", 4104, 0, false, true, {300.0, -20.0, false});
    addProcess("com.example.SyncAgent", 4105, 0, true, false, {0.0, -120.0, true});

    // What is installed: the players, and a few apps that make no sound.
    const std::vector<std::string> audio{"Audio", "Player"};
    w.installed = {{"com.apple.Safari", "Safari", "/Applications/Safari.app", {"Network", "WebBrowser"}},
                   {"com.apple.Music", "Music", "/System/Applications/Music.app", audio},
                   {"us.zoom.xos", "zoom.us", "/Applications/zoom.us.app", {"AudioVideo", "Network"}},
                   {"com.apple.TextEdit", "TextEdit", "/System/Applications/TextEdit.app", {"Utility"}},
                   {"com.apple.calculator", "Calculator", "/System/Applications/Calculator.app", {"Utility"}}};

    // A desk controller with faders and buttons.
    w.midiSources = {"nanoKONTROL"};

    w.frontmostPID = 4101;
    w.windows = {{88, 25}, {4101, 0}, {4103, 0}, {4104, 0}}; // the menu bar first, then app windows
    return w;
}

SimDevice* SimWorld::device(AudioObjectID id) {
    for (auto& d : devices)
        if (d.id == id)
            return &d;
    return nullptr;
}
const SimDevice* SimWorld::device(AudioObjectID id) const {
    return const_cast<SimWorld*>(this)->device(id);
}
SimDevice* SimWorld::deviceByUID(const std::string& uid) {
    for (auto& d : devices)
        if (d.uid == uid)
            return &d;
    return nullptr;
}
const SimDevice* SimWorld::deviceByUID(const std::string& uid) const {
    return const_cast<SimWorld*>(this)->deviceByUID(uid);
}
SimProcess* SimWorld::process(AudioObjectID id) {
    for (auto& p : processes)
        if (p.id == id)
            return &p;
    return nullptr;
}
const SimProcess* SimWorld::process(AudioObjectID id) const {
    return const_cast<SimWorld*>(this)->process(id);
}
const SimWorld::Application* SimWorld::application(const std::string& bundleID) const {
    for (auto& a : applications)
        if (a.bundleID == bundleID)
            return &a;
    return nullptr;
}
const SimWorld::Application* SimWorld::applicationByPID(pid_t pid) const {
    for (auto& a : applications)
        if (a.pid == pid)
            return &a;
    return nullptr;
}
const SimWorld::Tap* SimWorld::tap(AudioObjectID id) const {
    for (auto& t : taps)
        if (t.id == id)
            return &t;
    return nullptr;
}
const SimWorld::Tap* SimWorld::tapByUUID(const std::string& uuid) const {
    for (auto& t : taps)
        if (t.description.uuid == uuid)
            return &t;
    return nullptr;
}

std::string SimWorld::defaultUID(SimDefaultRole role) const {
    switch (role) {
    case SimDefaultRole::output:
        return defaultOutputUID;
    case SimDefaultRole::input:
        return defaultInputUID;
    case SimDefaultRole::systemOutput:
        return systemOutputUID;
    }
    return {};
}

std::string SimWorld::effectiveDeviceUID(const SimProcess& p, bool input) const {
    const std::string& chosen = input ? p.inputDeviceUID : p.outputDeviceUID;
    if (!chosen.empty()) {
        if (auto* d = deviceByUID(chosen); d && d->alive)
            return chosen;
    }
    return input ? defaultInputUID : defaultOutputUID;
}

bool SimWorld::isMutedByTap(const SimProcess& p, const std::string& deviceUID) const {
    for (const auto& t : taps) {
        const auto& desc = t.description;
        if (desc.muteBehavior == TapMuteBehavior::unmuted)
            continue;
        if (std::find(desc.processes.begin(), desc.processes.end(), p.id) == desc.processes.end())
            continue;
        if (!desc.mixdown && desc.deviceUID != deviceUID)
            continue;
        if (desc.muteBehavior == TapMuteBehavior::muted)
            return true;
        // Muted when tapped: only while an IO proc reads an aggregate that holds the tap.
        for (const auto& d : devices) {
            if (!d.isAggregate || d.runningIOProcs == 0)
                continue;
            for (const auto& st : d.aggregate.taps)
                if (st.uid == desc.uuid)
                    return true;
        }
    }
    return false;
}

std::string SimWorld::plug(SimDevice d) {
    if (d.uid.empty())
        return "a device needs a UID";
    if (deviceByUID(d.uid))
        return "device " + d.uid + " is already plugged in";
    auto it =
        std::find_if(detached.begin(), detached.end(), [&](const SimDevice& x) { return x.uid == d.uid; });
    if (it != detached.end())
        detached.erase(it);
    if (d.name.empty())
        d.name = d.uid;
    d.id = allocateID();
    d.alive = true;
    devices.push_back(std::move(d));
    return {};
}

std::string SimWorld::replug(const std::string& uid) {
    auto it =
        std::find_if(detached.begin(), detached.end(), [&](const SimDevice& x) { return x.uid == uid; });
    if (it == detached.end()) {
        if (deviceByUID(uid))
            return "device " + uid + " is already plugged in";
        return "no unplugged device " + uid;
    }
    SimDevice d = *it;
    return plug(std::move(d));
}

std::string SimWorld::unplug(const std::string& uid) {
    auto it = std::find_if(devices.begin(), devices.end(), [&](const SimDevice& x) { return x.uid == uid; });
    if (it == devices.end())
        return "no device " + uid;
    if (it->isAggregate)
        return "device " + uid + " is an aggregate; its owner removes it";
    detached.push_back(*it);
    devices.erase(it);
    // The system moves a role held by a vanished device to the first device that can take it.
    auto replace = [&](std::string& role, bool input) {
        if (role != uid)
            return;
        role.clear();
        for (const auto& d : devices) {
            if (!d.isAggregate && hasStreams(d, input)) {
                role = d.uid;
                break;
            }
        }
    };
    replace(defaultOutputUID, false);
    replace(defaultInputUID, true);
    replace(systemOutputUID, false);
    return {};
}

std::string SimWorld::rename(const std::string& uid, const std::string& name) {
    auto* d = deviceByUID(uid);
    if (!d)
        return "no device " + uid;
    if (name.empty())
        return "a device name cannot be empty";
    d->name = name;
    return {};
}

std::string SimWorld::setDefault(SimDefaultRole role, const std::string& uid) {
    auto* d = deviceByUID(uid);
    if (!d)
        return "no device " + uid;
    const bool input = role == SimDefaultRole::input;
    if (!hasStreams(*d, input))
        return "device " + uid + (input ? " has no input" : " has no output");
    (role == SimDefaultRole::output  ? defaultOutputUID
     : role == SimDefaultRole::input ? defaultInputUID
                                     : systemOutputUID) = uid;
    if (role == SimDefaultRole::output)
        pendingDefaultOutput.reset();
    return {};
}

bool SimWorld::settlePendingDefaultOutput() {
    if (!pendingDefaultOutput)
        return false;
    if (pendingDefaultOutput->readsLeft > 1) {
        pendingDefaultOutput->readsLeft -= 1;
        return true;
    }
    const auto* d = deviceByUID(pendingDefaultOutput->uid);
    if (d && hasStreams(*d, false))
        defaultOutputUID = d->uid;
    pendingDefaultOutput.reset();
    return true;
}

std::string SimWorld::setVolume(const std::string& uid, float volume) {
    auto* d = deviceByUID(uid);
    if (!d)
        return "no device " + uid;
    if (!(volume >= 0.0f && volume <= 1.0f))
        return "a volume is between 0 and 1";
    if (d->volumeElements.empty() && !d->hasVirtualMainVolume)
        return "device " + uid + " has no volume control";
    for (auto& [element, value] : d->volumeElements)
        value = volume;
    d->virtualMainVolume = volume;
    return {};
}

SimProcess* SimWorld::findProcess(const std::string& who) {
    char* end = nullptr;
    const long pid = std::strtol(who.c_str(), &end, 10);
    const bool isPID = !who.empty() && end && *end == '\0';
    for (auto& p : processes) {
        if (isPID ? p.pid == pid : p.bundleID == who)
            return &p;
    }
    return nullptr;
}

std::string SimWorld::setPlaying(const std::string& who, bool playing,
                                 std::optional<SimProcess::Signal> signal) {
    auto* p = findProcess(who);
    if (!p)
        return "no audio process " + who;
    if (signal) {
        if (!signal->silent && !(signal->frequency > 0.0 && signal->frequency < 20000.0))
            return "a tone's frequency is between 0 and 20000 Hz";
        if (!std::isfinite(signal->levelDB) || signal->levelDB > 0.0)
            return "a tone's level is at most 0 dBFS";
        p->signal = *signal;
    }
    p->runningOutput = playing;
    return {};
}

std::string SimWorld::setCapturing(const std::string& who, bool capturing) {
    auto* p = findProcess(who);
    if (!p)
        return "no audio process " + who;
    p->runningInput = capturing;
    return {};
}

std::string SimWorld::routeProcess(const std::string& who, const std::string& deviceUID) {
    auto* p = findProcess(who);
    if (!p)
        return "no audio process " + who;
    if (!deviceUID.empty() && !deviceByUID(deviceUID))
        return "no device " + deviceUID;
    p->outputDeviceUID = deviceUID;
    return {};
}

std::string SimWorld::launch(const Application& app, bool withProcessObject) {
    if (app.bundleID.empty())
        return "an application needs a bundle ID";
    if (app.pid < 2)
        return "an application needs a pid above 1";
    if (application(app.bundleID))
        return "application " + app.bundleID + " is already running";
    if (applicationByPID(app.pid))
        return "pid " + std::to_string(app.pid) + " is taken";
    applications.push_back(app);
    if (applications.back().name.empty())
        applications.back().name = app.bundleID;
    if (withProcessObject) {
        SimProcess p;
        p.id = allocateID();
        p.pid = app.pid;
        p.bundleID = app.bundleID;
        processes.push_back(p);
    }
    if (app.policy == ActivationPolicy::regular)
        windows.push_back({app.pid, 0});
    return {};
}

std::string SimWorld::plugMIDISource(const std::string& name) {
    if (name.empty())
        return "a MIDI source needs a name";
    if (std::find(midiSources.begin(), midiSources.end(), name) == midiSources.end())
        midiSources.push_back(name);
    return {};
}

std::string SimWorld::unplugMIDISource(const std::string& name) {
    if (std::erase(midiSources, name) == 0)
        return "no MIDI source \"" + name + "\"";
    return {};
}

std::string SimWorld::sendMIDI(const std::string& source, std::vector<std::uint32_t> words,
                               std::uint64_t sentAtNanos) {
    if (std::find(midiSources.begin(), midiSources.end(), source) == midiSources.end()) {
        std::string known;
        for (const auto& s : midiSources)
            known += (known.empty() ? "" : ", ") + s;
        return "no MIDI source \"" + source + "\" (sources: " + (known.empty() ? "none" : known) + ")";
    }
    midiMessages.push_back({++midiSequence, source, std::move(words), sentAtNanos});
    if (midiMessages.size() > midiMessagesKept)
        midiMessages.erase(midiMessages.begin(), midiMessages.end() - midiMessagesKept);
    return {};
}

std::string SimWorld::install(InstalledApplication app) {
    if (app.bundleID.empty())
        return "an installed application needs a bundle ID";
    if (app.name.empty())
        app.name = app.bundleID;
    std::erase_if(installed, [&](const InstalledApplication& a) { return a.bundleID == app.bundleID; });
    installed.push_back(std::move(app));
    return {};
}

std::string SimWorld::quit(const std::string& bundleID) {
    const auto* app = application(bundleID);
    if (!app)
        return "application " + bundleID + " is not running";
    const pid_t pid = app->pid;
    std::erase_if(processes, [&](const SimProcess& p) { return p.pid == pid || p.responsiblePID == pid; });
    std::erase_if(windows, [&](const Window& w) { return w.ownerPID == pid; });
    std::erase_if(applications, [&](const Application& a) { return a.pid == pid; });
    if (frontmostPID == pid)
        frontmostPID = 0;
    return {};
}

std::string SimWorld::activate(const std::string& bundleID) {
    const auto* app = application(bundleID);
    if (!app)
        return "application " + bundleID + " is not running";
    if (app->policy != ActivationPolicy::regular)
        return "application " + bundleID + " cannot become frontmost";
    frontmostPID = app->pid;
    // Its window comes to the front, behind anything above the normal layer.
    auto it =
        std::find_if(windows.begin(), windows.end(), [&](const Window& w) { return w.ownerPID == app->pid; });
    Window window{app->pid, 0};
    if (it != windows.end()) {
        window = *it;
        windows.erase(it);
    }
    auto pos = std::find_if(windows.begin(), windows.end(), [](const Window& w) { return w.layer == 0; });
    windows.insert(pos, window);
    return {};
}

std::string SimWorld::failNext(SimOperation operation, int count, OSStatus status, std::uint32_t selector) {
    if (count < 0)
        return "a fault count is not negative";
    // A write that reports success and changes nothing is how a switch that never happens looks.
    if (status == noErr && count > 0 && operation != SimOperation::setProperty)
        return "a fault needs a non-zero status (only a write can be dropped silently)";
    std::erase_if(faults, [&](const Fault& f) { return f.operation == operation && f.selector == selector; });
    if (count > 0)
        faults.push_back({operation, selector, count, status});
    return {};
}

void SimWorld::setReadDelay(std::uint32_t milliseconds, std::uint32_t selector) {
    readDelayMilliseconds = milliseconds;
    readDelaySelector = selector;
}

std::string SimWorld::stallIO(const std::string& uid, bool stalled) {
    const bool known = deviceByUID(uid) || std::any_of(detached.begin(), detached.end(),
                                                       [&](const SimDevice& d) { return d.uid == uid; });
    if (!known)
        return "no device " + uid;
    std::erase(stalledIODeviceUIDs, uid);
    if (stalled)
        stalledIODeviceUIDs.push_back(uid);
    return {};
}

std::string SimWorld::requestRecording(const std::string& deviceUID, const std::string& path,
                                       double seconds) {
    if (!deviceByUID(deviceUID))
        return "no device " + deviceUID;
    if (path.empty() || path.front() != '/')
        return "a recording needs an absolute path";
    if (!(seconds > 0.0 && seconds <= 600.0))
        return "a recording lasts between 0 and 600 seconds";
    for (const auto& r : recordings)
        if (r.path == path)
            return "a recording to " + path + " is already asked for";
    recordings.push_back({deviceUID, path, seconds});
    return {};
}

bool SimWorld::deliversIO(const SimDevice& d) const {
    auto stalled = [&](const std::string& uid) {
        return std::find(stalledIODeviceUIDs.begin(), stalledIODeviceUIDs.end(), uid) !=
               stalledIODeviceUIDs.end();
    };
    if (stalled(d.uid) || !d.alive)
        return false;
    if (!d.isAggregate || d.aggregate.mainSubDevice.empty())
        return true;
    const auto* main = deviceByUID(d.aggregate.mainSubDevice);
    return main && main->alive && !stalled(main->uid);
}

bool SimWorld::removeOrphans(const std::function<bool(pid_t)>& isAlive) {
    const auto taps0 = taps.size();
    const auto devices0 = devices.size();
    const auto meters0 = meters.size();
    std::erase_if(taps, [&](const Tap& t) { return !isAlive(t.ownerPID); });
    // Taps and private aggregates die with their maker; public aggregates outlive it.
    std::erase_if(devices, [&](const SimDevice& d) {
        return d.isAggregate && d.aggregate.isPrivate && !isAlive(d.ownerPID);
    });
    std::erase_if(meters, [&](const Meter& m) { return !isAlive(m.ownerPID); });
    return taps.size() != taps0 || devices.size() != devices0 || meters.size() != meters0;
}

} // namespace tonavi
