// JSON form of the simulated machine's world file.

#include <nlohmann/json.hpp>

#include "platform/sim/SimWorld.hpp"

namespace tonavi {

using nlohmann::json;

namespace {

std::string code(std::uint32_t c) {
    return c == 0 ? std::string() : fourCharString(c).substr(1, 4);
}
std::uint32_t codeFrom(const json& j, const char* key) {
    const std::string text = j.value(key, std::string());
    if (text.empty())
        return 0;
    const auto c = fourCharCodeFromString(text);
    if (c == 0)
        throw std::invalid_argument(std::string(key) + " must be four characters: " + text);
    return c;
}

json deviceToJSON(const SimDevice& d) {
    json j;
    j["id"] = d.id;
    j["uid"] = d.uid;
    j["name"] = d.name;
    j["transport"] = code(d.transport);
    j["inputStreams"] = d.inputStreams;
    j["outputStreams"] = d.outputStreams;
    json volumes = json::object();
    for (auto& [element, value] : d.volumeElements)
        volumes[std::to_string(element)] = value;
    j["volumeElements"] = volumes;
    j["hasVirtualMainVolume"] = d.hasVirtualMainVolume;
    j["virtualMainVolume"] = d.virtualMainVolume;
    j["hasMute"] = d.hasMute;
    j["muted"] = d.muted;
    j["sampleRate"] = d.sampleRate;
    j["availableSampleRates"] = d.availableSampleRates;
    j["bufferFrameSize"] = d.bufferFrameSize;
    j["bufferFrameSizeRange"] = {d.bufferFrameSizeMin, d.bufferFrameSizeMax};
    j["alive"] = d.alive;
    j["relatedUIDs"] = d.relatedUIDs;
    j["readOnly"] = d.readOnly;
    if (d.settleReads > 0)
        j["settleReads"] = d.settleReads;
    if (!d.clock.empty())
        j["clock"] = d.clock;
    if (d.bluetoothBattery || d.bluetoothCodec || d.bluetoothRSSI) {
        json bt = json::object();
        if (d.bluetoothBattery)
            bt["battery"] = *d.bluetoothBattery;
        if (d.bluetoothCodec)
            bt["codec"] = *d.bluetoothCodec;
        if (d.bluetoothRSSI)
            bt["rssi"] = *d.bluetoothRSSI;
        j["bluetooth"] = bt;
    }
    if (d.isAggregate) {
        const auto& a = d.aggregate;
        json agg;
        agg["uid"] = a.uid;
        agg["name"] = a.name;
        agg["private"] = a.isPrivate;
        agg["stacked"] = a.isStacked;
        agg["master"] = a.mainSubDevice;
        agg["subdevices"] = json::array();
        for (auto& s : a.subDevices)
            agg["subdevices"].push_back({{"uid", s.uid}, {"drift", s.driftCompensation}});
        agg["taps"] = json::array();
        for (auto& t : a.taps)
            agg["taps"].push_back({{"uid", t.uid}, {"drift", t.driftCompensation}});
        j["aggregate"] = agg;
        j["ownerPID"] = d.ownerPID;
        j["runningIOProcs"] = d.runningIOProcs;
    }
    return j;
}

SimDevice deviceFromJSON(const json& j) {
    SimDevice d;
    d.id = j.at("id").get<AudioObjectID>();
    d.uid = j.at("uid").get<std::string>();
    d.name = j.value("name", d.uid);
    d.transport = codeFrom(j, "transport");
    d.inputStreams = j.value("inputStreams", std::vector<std::uint32_t>{});
    d.outputStreams = j.value("outputStreams", std::vector<std::uint32_t>{});
    const json volumes = j.value("volumeElements", json::object());
    for (auto& [key, value] : volumes.items()) {
        d.volumeElements[static_cast<std::uint32_t>(std::stoul(key))] = value.get<float>();
    }
    d.hasVirtualMainVolume = j.value("hasVirtualMainVolume", false);
    d.virtualMainVolume = j.value("virtualMainVolume", 1.0f);
    d.hasMute = j.value("hasMute", false);
    d.muted = j.value("muted", false);
    d.sampleRate = j.value("sampleRate", 48000.0);
    d.availableSampleRates = j.value("availableSampleRates", std::vector<double>{});
    d.bufferFrameSize = j.value("bufferFrameSize", 512u);
    const auto range = j.value("bufferFrameSizeRange", std::vector<std::uint32_t>{32, 4096});
    if (range.size() != 2)
        throw std::invalid_argument("bufferFrameSizeRange needs two numbers");
    d.bufferFrameSizeMin = range[0];
    d.bufferFrameSizeMax = range[1];
    d.alive = j.value("alive", true);
    d.relatedUIDs = j.value("relatedUIDs", std::vector<std::string>{});
    d.readOnly = j.value("readOnly", std::vector<std::string>{});
    d.settleReads = j.value("settleReads", 0u);
    d.clock = j.value("clock", std::string());
    if (j.contains("bluetooth")) {
        const json& bt = j.at("bluetooth");
        if (bt.contains("battery"))
            d.bluetoothBattery = bt.at("battery").get<std::int64_t>();
        if (bt.contains("codec"))
            d.bluetoothCodec = bt.at("codec").get<std::string>();
        if (bt.contains("rssi"))
            d.bluetoothRSSI = bt.at("rssi").get<std::int64_t>();
    }
    if (j.contains("aggregate")) {
        const auto& agg = j.at("aggregate");
        d.isAggregate = true;
        auto& a = d.aggregate;
        a.uid = agg.value("uid", d.uid);
        a.name = agg.value("name", d.name);
        a.isPrivate = agg.value("private", false);
        a.isStacked = agg.value("stacked", false);
        a.mainSubDevice = agg.value("master", std::string());
        for (auto& s : agg.value("subdevices", json::array()))
            a.subDevices.push_back({s.at("uid").get<std::string>(), s.value("drift", false)});
        for (auto& t : agg.value("taps", json::array()))
            a.taps.push_back({t.at("uid").get<std::string>(), t.value("drift", false)});
        d.ownerPID = j.value("ownerPID", 0);
        d.runningIOProcs = j.value("runningIOProcs", 0u);
    }
    return d;
}

json processToJSON(const SimProcess& p) {
    return {
        {"id", p.id},
        {"pid", p.pid},
        {"bundleID", p.bundleID},
        {"responsiblePID", p.responsiblePID},
        {"runningOutput", p.runningOutput},
        {"runningInput", p.runningInput},
        {"outputDeviceUID", p.outputDeviceUID},
        {"inputDeviceUID", p.inputDeviceUID},
        {"signal",
         {{"frequency", p.signal.frequency}, {"levelDB", p.signal.levelDB}, {"silent", p.signal.silent}}}};
}

SimProcess processFromJSON(const json& j) {
    SimProcess p;
    p.id = j.at("id").get<AudioObjectID>();
    p.pid = j.at("pid").get<pid_t>();
    p.bundleID = j.value("bundleID", std::string());
    p.responsiblePID = j.value("responsiblePID", 0);
    p.runningOutput = j.value("runningOutput", false);
    p.runningInput = j.value("runningInput", false);
    p.outputDeviceUID = j.value("outputDeviceUID", std::string());
    p.inputDeviceUID = j.value("inputDeviceUID", std::string());
    if (j.contains("signal")) {
        const auto& s = j.at("signal");
        p.signal.frequency = s.value("frequency", 440.0);
        p.signal.levelDB = s.value("levelDB", -12.0);
        p.signal.silent = s.value("silent", false);
    }
    return p;
}

json tapToJSON(const SimWorld::Tap& t) {
    const auto& d = t.description;
    return {{"id", t.id},
            {"ownerPID", t.ownerPID},
            {"processes", d.processes},
            {"mixdown", d.mixdown},
            {"deviceUID", d.deviceUID},
            {"stream", d.stream},
            {"name", d.name},
            {"private", d.isPrivate},
            {"muteBehavior", static_cast<std::uint32_t>(d.muteBehavior)},
            {"uuid", d.uuid}};
}

SimWorld::Tap tapFromJSON(const json& j) {
    SimWorld::Tap t;
    t.id = j.at("id").get<AudioObjectID>();
    t.ownerPID = j.value("ownerPID", 0);
    auto& d = t.description;
    d.processes = j.value("processes", std::vector<AudioObjectID>{});
    d.mixdown = j.value("mixdown", false);
    d.deviceUID = j.value("deviceUID", std::string());
    d.stream = j.value("stream", 0u);
    d.name = j.value("name", std::string());
    d.isPrivate = j.value("private", false);
    const auto mute = j.value("muteBehavior", 0u);
    if (mute > 2)
        throw std::invalid_argument("muteBehavior is 0, 1 or 2");
    d.muteBehavior = static_cast<TapMuteBehavior>(mute);
    d.uuid = j.value("uuid", std::string());
    return t;
}

} // namespace

json simWorldToJSON(const SimWorld& w) {
    json j;
    j["generation"] = w.generation;
    j["nextObjectID"] = w.nextObjectID;
    j["devices"] = json::array();
    for (auto& d : w.devices)
        j["devices"].push_back(deviceToJSON(d));
    j["detached"] = json::array();
    for (auto& d : w.detached)
        j["detached"].push_back(deviceToJSON(d));
    j["processes"] = json::array();
    for (auto& p : w.processes)
        j["processes"].push_back(processToJSON(p));
    j["applications"] = json::array();
    for (auto& a : w.applications)
        j["applications"].push_back({{"bundleID", a.bundleID},
                                     {"name", a.name},
                                     {"pid", a.pid},
                                     {"policy", activationPolicyName(a.policy)}});
    j["installed"] = json::array();
    for (auto& a : w.installed)
        j["installed"].push_back(
            {{"bundleID", a.bundleID}, {"name", a.name}, {"path", a.path}, {"categories", a.categories}});
    j["taps"] = json::array();
    for (auto& t : w.taps)
        j["taps"].push_back(tapToJSON(t));
    j["defaults"] = {
        {"output", w.defaultOutputUID}, {"input", w.defaultInputUID}, {"system", w.systemOutputUID}};
    if (w.pendingDefaultOutput)
        j["pendingDefaultOutput"] = {{"uid", w.pendingDefaultOutput->uid},
                                     {"readsLeft", w.pendingDefaultOutput->readsLeft}};
    j["frontmostPID"] = w.frontmostPID;
    j["windows"] = json::array();
    for (auto& win : w.windows)
        j["windows"].push_back({{"ownerPID", win.ownerPID}, {"layer", win.layer}});
    j["windowListAvailable"] = w.windowListAvailable;
    j["asleep"] = w.asleep;
    j["faults"] = json::array();
    for (auto& f : w.faults)
        j["faults"].push_back({{"operation", simOperationName(f.operation)},
                               {"selector", code(f.selector)},
                               {"remaining", f.remaining},
                               {"status", f.status}});
    j["readDelay"] = {{"milliseconds", w.readDelayMilliseconds}, {"selector", code(w.readDelaySelector)}};
    j["stalledIO"] = w.stalledIODeviceUIDs;
    j["recordings"] = json::array();
    for (auto& r : w.recordings)
        j["recordings"].push_back({{"deviceUID", r.deviceUID}, {"path", r.path}, {"seconds", r.seconds}});
    j["midiSources"] = w.midiSources;
    j["midiSequence"] = w.midiSequence;
    j["midiMessages"] = json::array();
    for (auto& m : w.midiMessages)
        j["midiMessages"].push_back(
            {{"sequence", m.sequence}, {"source", m.source}, {"words", m.words}, {"sentAtNanos", m.sentAtNanos}});
    j["meters"] = json::array();
    for (auto& m : w.meters)
        j["meters"].push_back({{"aggregateUID", m.aggregateUID},
                               {"deviceUID", m.deviceUID},
                               {"ownerPID", m.ownerPID},
                               {"peakDB", m.peakDB},
                               {"rmsDB", m.rmsDB},
                               {"frequency", m.frequency},
                               {"cycles", m.cycles}});
    return j;
}

std::optional<SimWorld> simWorldFromJSON(const json& j, std::string& error) {
    try {
        if (!j.is_object())
            throw std::invalid_argument("the world is not a JSON object");
        SimWorld w;
        w.generation = j.value("generation", std::uint64_t{0});
        w.nextObjectID = j.value("nextObjectID", AudioObjectID{100});
        for (auto& d : j.value("devices", json::array()))
            w.devices.push_back(deviceFromJSON(d));
        for (auto& d : j.value("detached", json::array()))
            w.detached.push_back(deviceFromJSON(d));
        for (auto& p : j.value("processes", json::array()))
            w.processes.push_back(processFromJSON(p));
        for (auto& a : j.value("applications", json::array())) {
            SimWorld::Application app;
            app.bundleID = a.at("bundleID").get<std::string>();
            app.name = a.value("name", app.bundleID);
            app.pid = a.at("pid").get<pid_t>();
            if (!activationPolicyFromName(a.value("policy", std::string("regular")), app.policy))
                throw std::invalid_argument("unknown activation policy for " + app.bundleID);
            w.applications.push_back(app);
        }
        for (auto& a : j.value("installed", json::array())) {
            SimWorld::InstalledApplication app;
            app.bundleID = a.at("bundleID").get<std::string>();
            app.name = a.value("name", app.bundleID);
            app.path = a.value("path", std::string());
            app.categories = a.value("categories", std::vector<std::string>{});
            w.installed.push_back(std::move(app));
        }
        for (auto& t : j.value("taps", json::array()))
            w.taps.push_back(tapFromJSON(t));
        const auto defaults = j.value("defaults", json::object());
        w.defaultOutputUID = defaults.value("output", std::string());
        w.defaultInputUID = defaults.value("input", std::string());
        w.systemOutputUID = defaults.value("system", std::string());
        if (j.contains("pendingDefaultOutput")) {
            const auto& p = j.at("pendingDefaultOutput");
            w.pendingDefaultOutput =
                SimWorld::PendingDefault{p.at("uid").get<std::string>(), p.value("readsLeft", 1u)};
        }
        w.frontmostPID = j.value("frontmostPID", 0);
        for (auto& win : j.value("windows", json::array()))
            w.windows.push_back({win.at("ownerPID").get<pid_t>(), win.value("layer", 0)});
        w.windowListAvailable = j.value("windowListAvailable", true);
        w.asleep = j.value("asleep", false);
        for (auto& f : j.value("faults", json::array())) {
            auto op = simOperationFromName(f.at("operation").get<std::string>());
            if (!op)
                throw std::invalid_argument("unknown fault operation " +
                                            f.at("operation").get<std::string>());
            w.faults.push_back({*op, codeFrom(f, "selector"), f.value("remaining", 1), f.value("status", 0)});
        }
        const auto delay = j.value("readDelay", json::object());
        w.readDelayMilliseconds = delay.value("milliseconds", 0u);
        w.readDelaySelector = codeFrom(delay, "selector");
        w.stalledIODeviceUIDs = j.value("stalledIO", std::vector<std::string>{});
        for (auto& r : j.value("recordings", json::array()))
            w.recordings.push_back({r.at("deviceUID").get<std::string>(), r.at("path").get<std::string>(),
                                    r.value("seconds", 1.0)});
        w.midiSources = j.value("midiSources", std::vector<std::string>{});
        w.midiSequence = j.value("midiSequence", std::uint64_t{0});
        for (auto& m : j.value("midiMessages", json::array()))
            w.midiMessages.push_back({m.at("sequence").get<std::uint64_t>(), m.at("source").get<std::string>(),
                                      m.at("words").get<std::vector<std::uint32_t>>(),
                                      m.value("sentAtNanos", std::uint64_t{0})});
        for (auto& m : j.value("meters", json::array())) {
            w.meters.push_back({m.value("aggregateUID", std::string()), m.value("deviceUID", std::string()),
                                m.value("ownerPID", 0), m.value("peakDB", -120.0), m.value("rmsDB", -120.0),
                                m.value("frequency", 0.0), m.value("cycles", std::uint64_t{0})});
        }
        // Object IDs must be unique and below the next one handed out.
        std::vector<AudioObjectID> ids;
        for (auto& d : w.devices)
            ids.push_back(d.id);
        for (auto& p : w.processes)
            ids.push_back(p.id);
        for (auto& t : w.taps)
            ids.push_back(t.id);
        std::sort(ids.begin(), ids.end());
        for (std::size_t i = 0; i < ids.size(); ++i) {
            if (ids[i] <= kAudioObjectSystemObject || ids[i] >= w.nextObjectID)
                throw std::invalid_argument("object ID " + std::to_string(ids[i]) + " is out of range");
            if (i > 0 && ids[i] == ids[i - 1])
                throw std::invalid_argument("object ID " + std::to_string(ids[i]) + " is used twice");
        }
        return w;
    } catch (const std::exception& e) {
        error = e.what();
        return std::nullopt;
    }
}

} // namespace tonavi
