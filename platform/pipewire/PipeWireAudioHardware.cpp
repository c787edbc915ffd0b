#include "platform/pipewire/PipeWireAudioHardware.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

#include "base/Log.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"
#include "platform/pipewire/PipeWireIOProc.hpp"
#include "platform/pipewire/PipeWireTap.hpp"

namespace tonavi {

namespace {
using Node = PipeWireGraph::Node;
constexpr auto writeTimeout = std::chrono::milliseconds(2000);

constexpr std::string_view tapNodePrefix = "tonavi.tap.";
bool isOurs(const Node& n) {
    // A node is first announced with a few of its properties; "tonavi.tap" comes with its info a round
    // trip later. The name says it at once: a new tap sink seen only that far would pass for a device,
    // and the tap it replaces would take the application's stream back from it.
    return n.prop("tonavi.tap") == "true" || n.prop("node.name").starts_with(tapNodePrefix);
}
bool isSink(const Node& n) {
    return n.mediaClass() == "Audio/Sink";
}
bool isSource(const Node& n) {
    return n.mediaClass() == "Audio/Source" || n.mediaClass() == "Audio/Source/Virtual";
}
bool isDevice(const Node& n) {
    return (isSink(n) || isSource(n)) && !isOurs(n);
}

const Node* deviceNode(const PipeWireGraph& g, AudioObjectID id) {
    const Node* n = g.nodeByObject(id);
    return n && isDevice(*n) ? n : nullptr;
}

pid_t pidOfNode(const PipeWireGraph&, const Node& n) {
    return n.pid;
}

// PipeWire's volume control law: a scalar slider position s is the cube root of the linear gain.
float scalarOfLinear(float linear) {
    return std::cbrt(std::max(linear, 0.0f));
}
float linearOfScalar(float scalar) {
    return scalar * scalar * scalar;
}

std::vector<std::uint32_t> allowedRates(const PipeWireGraph& g) {
    std::vector<std::uint32_t> rates;
    auto it = g.settings.find("clock.allowed-rates");
    if (it != g.settings.end()) {
        std::uint32_t value = 0;
        bool inNumber = false;
        for (char c : it->second + " ") {
            if (std::isdigit(static_cast<unsigned char>(c))) {
                value = value * 10 + static_cast<std::uint32_t>(c - '0');
                inNumber = true;
            } else if (inNumber) {
                rates.push_back(value);
                value = 0;
                inNumber = false;
            }
        }
    }
    if (rates.empty())
        rates.push_back(g.setting("clock.rate", 48000));
    return rates;
}

double rateOf(const PipeWireGraph& g) {
    const auto forced = g.setting("clock.force-rate", 0);
    return forced ? forced : g.setting("clock.rate", 48000);
}
std::uint32_t quantumOf(const PipeWireGraph& g) {
    const auto forced = g.setting("clock.force-quantum", 0);
    return forced ? forced : g.setting("clock.quantum", 1024);
}
AudioValueRange quantumRange(const PipeWireGraph& g) {
    return {static_cast<double>(g.setting("clock.min-quantum", 32)),
            static_cast<double>(g.setting("clock.max-quantum", 2048))};
}

// Rate and quantum are the graph's, the same for every device and aggregate: true when `selector` is one.
bool readGraphClock(AudioObjectPropertySelector selector, const PipeWireGraph& g, AudioPropertyValue& v) {
    switch (selector) {
    case kAudioDevicePropertyNominalSampleRate:
        v = rateOf(g);
        return true;
    case kAudioDevicePropertyBufferFrameSize:
        v = quantumOf(g);
        return true;
    case kAudioDevicePropertyBufferFrameSizeRange:
        v = quantumRange(g);
        return true;
    default:
        return false;
    }
}


std::uint64_t serialNumber(const std::string& serial) {
    return std::strtoull(serial.c_str(), nullptr, 10);
}
constexpr auto pendingTimeout = std::chrono::milliseconds(500);

std::string tapNodeNameOf(const TapDescription& d) {
    return std::string(tapNodePrefix) + d.uuid;
}
} // namespace

std::shared_ptr<PipeWireAudioHardware> PipeWireAudioHardware::connect(std::string& error) {
    auto connection = std::make_shared<PipeWireConnection>();
    if (!connection->start(error))
        return nullptr;
    return std::make_shared<PipeWireAudioHardware>(std::move(connection));
}

PipeWireAudioHardware::PipeWireAudioHardware(std::shared_ptr<PipeWireConnection> connection)
    : connection_(std::move(connection)) {
    connection_->setChangeHandler([this] { scheduleDiff(); });
}

PipeWireAudioHardware::~PipeWireAudioHardware() {
    connection_->setChangeHandler(nullptr);
    listenerQueue_.sync([] {});
    std::lock_guard<std::mutex> guard(stateMutex_);
    procs_.clear();
    for (auto& [id, tap] : taps_)
        unrouteLocked(tap);
    taps_.clear();
}

// ---- reads ----

OSStatus PipeWireAudioHardware::readAggregateLocked(const PipeWireGraph& g, const Aggregate& agg,
                                                    const AudioObjectPropertyAddress& a,
                                                    AudioPropertyValue& v) const {
    if (a.mElement != kAudioObjectPropertyElementMain)
        return kAudioHardwareUnknownPropertyError;
    const Node* main = g.nodeByName(agg.description.mainSubDevice);
    if (readGraphClock(a.mSelector, g, v))
        return noErr;
    switch (a.mSelector) {
    case kAudioDevicePropertyDeviceUID:
        v = agg.description.uid;
        return noErr;
    case kAudioObjectPropertyName:
        v = agg.description.name;
        return noErr;
    case kAudioDevicePropertyTransportType:
        v = kAudioDeviceTransportTypeAggregate;
        return noErr;
    case kAudioDevicePropertyStreamConfiguration: {
        AudioStreamConfiguration config;
        if (a.mScope == kAudioObjectPropertyScopeInput) {
            for (const auto& sub : agg.description.taps)
                for (const auto& [id, tap] : taps_)
                    if (tap.description.uuid == sub.uid)
                        config.channelsPerBuffer.push_back(tap.sink->channels());
        } else if (a.mScope == kAudioObjectPropertyScopeOutput) {
            if (main && isSink(*main))
                config.channelsPerBuffer.push_back(main->channelCount());
        } else {
            return kAudioHardwareUnknownPropertyError;
        }
        v = config;
        return noErr;
    }
    case kAudioDevicePropertyDeviceIsAlive:
        v = static_cast<std::uint32_t>(main ? 1 : 0);
        return noErr;
    default:
        return kAudioHardwareUnknownPropertyError;
    }
}

OSStatus PipeWireAudioHardware::readLocked(const PipeWireGraph& g, AudioObjectID object,
                                           const AudioObjectPropertyAddress& a, AudioPropertyValue& v) const {
    if (object == kAudioObjectSystemObject) {
        if (a.mElement != kAudioObjectPropertyElementMain)
            return kAudioHardwareUnknownPropertyError;
        switch (a.mSelector) {
        case kAudioHardwarePropertyDevices: {
            std::vector<AudioObjectID> ids;
            for (const auto& [global, n] : g.nodes)
                if (isDevice(n))
                    ids.push_back(n.objectID);
            for (const auto& [id, agg] : aggregates_)
                ids.push_back(id);
            std::sort(ids.begin(), ids.end());
            v = ids;
            return noErr;
        }
        case kAudioHardwarePropertyDefaultOutputDevice:
        case kAudioHardwarePropertyDefaultInputDevice: {
            const bool input = a.mSelector == kAudioHardwarePropertyDefaultInputDevice;
            const Node* n =
                g.nodeByName(g.defaultNodeName(input ? "default.audio.source" : "default.audio.sink"));
            v = static_cast<AudioObjectID>(n && (input ? isSource(*n) : isSink(*n)) ? n->objectID
                                                                                    : kAudioObjectUnknown);
            return noErr;
        }
        case kAudioHardwarePropertyProcessObjectList: {
            std::vector<AudioObjectID> ids;
            for (const auto& [pid, id] : g.processIDs)
                ids.push_back(id);
            std::sort(ids.begin(), ids.end());
            v = ids;
            return noErr;
        }
        default:
            // The system output (alerts) has no counterpart in PipeWire.
            return kAudioHardwareUnknownPropertyError;
        }
    }
    if (auto it = aggregates_.find(object); it != aggregates_.end())
        return readAggregateLocked(g, it->second, a, v);
    if (auto it = taps_.find(object); it != taps_.end()) {
        if (a.mElement != kAudioObjectPropertyElementMain)
            return kAudioHardwareUnknownPropertyError;
        if (a.mSelector == kAudioTapPropertyUID) {
            v = it->second.description.uuid;
            return noErr;
        }
        if (a.mSelector == kAudioObjectPropertyName) {
            v = it->second.description.name;
            return noErr;
        }
        return kAudioHardwareUnknownPropertyError;
    }
    if (auto pid = g.pidOfProcessObject(object)) {
        if (a.mElement != kAudioObjectPropertyElementMain)
            return kAudioHardwareUnknownPropertyError;
        auto streams = [&](const char* mediaClass) {
            std::vector<const Node*> out;
            for (const auto& [global, n] : g.nodes)
                if (n.mediaClass() == mediaClass && pidOfNode(g, n) == *pid)
                    out.push_back(&n);
            return out;
        };
        switch (a.mSelector) {
        case kAudioProcessPropertyPID:
            v = static_cast<std::int32_t>(*pid);
            return noErr;
        case kAudioProcessPropertyBundleID:
            v = g.bundleIdentifierOf(*pid);
            return noErr;
        case kAudioProcessPropertyIsRunningOutput:
        case kAudioProcessPropertyIsRunningInput: {
            bool running = false;
            for (const Node* n :
                 streams(a.mSelector == kAudioProcessPropertyIsRunningOutput ? "Stream/Output/Audio"
                                                                             : "Stream/Input/Audio"))
                running = running || n->running;
            v = static_cast<std::uint32_t>(running ? 1 : 0);
            return noErr;
        }
        case kAudioProcessPropertyDevices: {
            std::vector<AudioObjectID> ids;
            auto add = [&](bool input) {
                for (const Node* s : streams(input ? "Stream/Input/Audio" : "Stream/Output/Audio")) {
                    if (!s->running)
                        continue;
                    for (const auto& [lid, link] : g.links) {
                        const std::uint32_t other =
                            input ? (link.inputNode == s->globalID ? link.outputNode : 0)
                                  : (link.outputNode == s->globalID ? link.inputNode : 0);
                        auto dn = g.nodes.find(other);
                        if (other && dn != g.nodes.end() && isDevice(dn->second) &&
                            std::find(ids.begin(), ids.end(), dn->second.objectID) == ids.end())
                            ids.push_back(dn->second.objectID);
                    }
                }
            };
            if (a.mScope != kAudioObjectPropertyScopeInput)
                add(false);
            if (a.mScope != kAudioObjectPropertyScopeOutput)
                add(true);
            v = ids;
            return noErr;
        }
        default:
            return kAudioHardwareUnknownPropertyError;
        }
    }
    const Node* n = deviceNode(g, object);
    if (!n)
        return kAudioHardwareBadObjectError;
    const bool output = a.mScope == kAudioObjectPropertyScopeOutput;
    const bool input = a.mScope == kAudioObjectPropertyScopeInput;
    // Volume and mute live on the direction the device plays or records.
    const bool ownScope = isSink(*n) ? output : input;
    if (a.mSelector == kAudioDevicePropertyVolumeScalar) {
        if (!ownScope || a.mElement == kAudioObjectPropertyElementMain ||
            a.mElement > n->channelVolumes.size())
            return kAudioHardwareUnknownPropertyError;
        v = scalarOfLinear(n->channelVolumes[a.mElement - 1]);
        return noErr;
    }
    if (a.mElement != kAudioObjectPropertyElementMain)
        return kAudioHardwareUnknownPropertyError;
    if (readGraphClock(a.mSelector, g, v))
        return noErr;
    switch (a.mSelector) {
    case kAudioDevicePropertyDeviceUID:
        v = n->prop("node.name");
        return noErr;
    case kAudioObjectPropertyName: {
        std::string name = n->prop("node.description");
        v = name.empty() ? n->prop("node.name") : name;
        return noErr;
    }
    case kAudioDevicePropertyTransportType:
        v = g.transportOf(*n);
        return noErr;
    case kAudioDevicePropertyStreamConfiguration:
        if (!output && !input)
            return kAudioHardwareUnknownPropertyError;
        v = AudioStreamConfiguration{ownScope ? std::vector<std::uint32_t>{n->channelCount()}
                                              : std::vector<std::uint32_t>{}};
        return noErr;
    case kAudioDevicePropertyDeviceIsAlive:
        v = static_cast<std::uint32_t>(n->failed ? 0 : 1);
        return noErr;
    case kAudioDevicePropertyRelatedDevices: {
        std::vector<AudioObjectID> ids{n->objectID};
        const std::string device = n->prop("device.id");
        if (!device.empty())
            for (const auto& [global, other] : g.nodes)
                if (&other != n && isDevice(other) && other.prop("device.id") == device)
                    ids.push_back(other.objectID);
        v = ids;
        return noErr;
    }
    case kAudioHardwareServiceDeviceProperty_VirtualMainVolume: {
        if (!ownScope || n->channelVolumes.empty())
            return kAudioHardwareUnknownPropertyError;
        double sum = 0;
        for (float linear : n->channelVolumes)
            sum += scalarOfLinear(linear);
        v = static_cast<float>(sum / static_cast<double>(n->channelVolumes.size()));
        return noErr;
    }
    case kAudioDevicePropertyMute:
        if (!ownScope || !n->mute)
            return kAudioHardwareUnknownPropertyError;
        v = static_cast<std::uint32_t>(*n->mute ? 1 : 0);
        return noErr;
    default:
        return kAudioHardwareUnknownPropertyError;
    }
}

OSStatus PipeWireAudioHardware::read(AudioObjectID object, const AudioObjectPropertyAddress& a,
                                     AudioPropertyValue& v) {
    std::lock_guard<std::mutex> guard(stateMutex_);
    return connection_->read([&](const PipeWireGraph& g) { return readLocked(g, object, a, v); });
}

OSStatus PipeWireAudioHardware::getPropertyData(AudioObjectID object,
                                                const AudioObjectPropertyAddress& address,
                                                AudioPropertyValue& value) {
    if (address.mSelector == kAudioDevicePropertyIOProcStreamUsage) {
        std::lock_guard<std::mutex> guard(stateMutex_);
        return streamUsageLocked(object, address, &value, nullptr);
    }
    AudioPropertyValue out;
    const OSStatus status = read(object, address, out);
    if (status == noErr)
        value = std::move(out);
    return status;
}

OSStatus PipeWireAudioHardware::getPropertyDataSize(AudioObjectID object,
                                                    const AudioObjectPropertyAddress& address,
                                                    std::uint32_t& size) {
    AudioPropertyValue value;
    OSStatus status;
    if (address.mSelector == kAudioDevicePropertyIOProcStreamUsage) {
        // Sized by the streams of the scope; no proc is needed for that.
        std::lock_guard<std::mutex> guard(stateMutex_);
        auto agg = aggregates_.find(object);
        status = agg == aggregates_.end() ? read(object, address, value)
                 : address.mScope == kAudioObjectPropertyScopeInput ||
                         address.mScope == kAudioObjectPropertyScopeOutput
                     ? noErr
                     : kAudioHardwareUnknownPropertyError;
        if (status == noErr)
            value = AudioHardwareIOProcStreamUsage{
                0, std::vector<std::uint32_t>(address.mScope == kAudioObjectPropertyScopeInput
                                                  ? inputStreamCountLocked(agg->second)
                                                  : 1,
                                              0)};
    } else {
        status = read(object, address, value);
    }
    if (status == noErr)
        size = propertyDataSize(value);
    return status;
}

bool PipeWireAudioHardware::hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) {
    if (address.mSelector == kAudioDevicePropertyIOProcStreamUsage) {
        std::lock_guard<std::mutex> guard(stateMutex_);
        return aggregates_.count(object) && (address.mScope == kAudioObjectPropertyScopeInput ||
                                             address.mScope == kAudioObjectPropertyScopeOutput);
    }
    AudioPropertyValue value;
    return read(object, address, value) == noErr;
}

OSStatus PipeWireAudioHardware::isPropertySettable(AudioObjectID object, const AudioObjectPropertyAddress& a,
                                                   bool& settable) {
    if (a.mSelector == kAudioDevicePropertyIOProcStreamUsage) {
        std::unique_lock<std::mutex> guard(stateMutex_);
        if (aggregates_.count(object)) {
            settable = true;
            return noErr;
        }
    }
    AudioPropertyValue value;
    if (const OSStatus status = read(object, a, value); status != noErr)
        return status;
    std::lock_guard<std::mutex> guard(stateMutex_);
    settable = connection_->read([&](const PipeWireGraph& g) {
        if (object == kAudioObjectSystemObject)
            return a.mSelector == kAudioHardwarePropertyDefaultOutputDevice ||
                   a.mSelector == kAudioHardwarePropertyDefaultInputDevice;
        if (!deviceNode(g, object))
            return false;
        switch (a.mSelector) {
        case kAudioDevicePropertyNominalSampleRate:
            return allowedRates(g).size() > 1;
        case kAudioDevicePropertyBufferFrameSize: {
            const auto range = quantumRange(g);
            return range.mMinimum < range.mMaximum;
        }
        case kAudioDevicePropertyVolumeScalar:
        case kAudioHardwareServiceDeviceProperty_VirtualMainVolume:
        case kAudioDevicePropertyMute:
            return true;
        default:
            return false;
        }
    });
    return noErr;
}

// ---- writes ----

OSStatus PipeWireAudioHardware::writeVolume(const PipeWireGraph::Node& node,
                                            const AudioObjectPropertyAddress& a, float scalar) {
    std::vector<float> volumes = node.channelVolumes;
    const float linear = linearOfScalar(std::clamp(scalar, 0.0f, 1.0f));
    if (a.mSelector == kAudioDevicePropertyVolumeScalar)
        volumes[a.mElement - 1] = linear;
    else
        std::fill(volumes.begin(), volumes.end(), linear);
    const std::uint32_t global = node.globalID;
    if (!connection_->setNodeProps(global, &volumes, nullptr))
        return kAudioHardwareBadObjectError;
    const bool shown = connection_->waitUntil(
        [&](const PipeWireGraph& g) {
            auto it = g.nodes.find(global);
            if (it == g.nodes.end() || it->second.channelVolumes.size() != volumes.size())
                return false;
            for (std::size_t i = 0; i < volumes.size(); ++i)
                if (std::fabs(it->second.channelVolumes[i] - volumes[i]) > 1e-4f)
                    return false;
            return true;
        },
        writeTimeout);
    return shown ? noErr : kAudioHardwareUnspecifiedError;
}

OSStatus PipeWireAudioHardware::setPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& a,
                                                const AudioPropertyValue& value) {
    if (a.mSelector == kAudioDevicePropertyIOProcStreamUsage) {
        std::unique_lock<std::mutex> guard(stateMutex_);
        if (aggregates_.count(object))
            return streamUsageLocked(object, a, nullptr, &value);
    }
    bool canSet = false;
    if (const OSStatus status = isPropertySettable(object, a, canSet); status != noErr)
        return status;
    if (!canSet)
        return kAudioHardwareIllegalOperationError;

    if (object == kAudioObjectSystemObject) {
        const auto* id = std::get_if<std::uint32_t>(&value);
        if (!id)
            return kAudioHardwareBadPropertySizeError;
        const bool input = a.mSelector == kAudioHardwarePropertyDefaultInputDevice;
        const std::string name = connection_->read([&](const PipeWireGraph& g) {
            const Node* n = deviceNode(g, *id);
            return n && (input ? isSource(*n) : isSink(*n)) ? n->prop("node.name") : std::string();
        });
        if (name.empty())
            return kAudioHardwareBadDeviceError;
        const std::string json = "{\"name\":\"" + name + "\"}";
        if (!connection_->setMetadata(
                "default", 0, input ? "default.configured.audio.source" : "default.configured.audio.sink",
                "Spa:String:JSON", json.c_str()))
            return kAudioHardwareNotRunningError;
        // The session manager follows the configured default; the write is done when it has.
        const char* key = input ? "default.audio.source" : "default.audio.sink";
        return connection_->waitUntil([&](const PipeWireGraph& g) { return g.defaultNodeName(key) == name; },
                                      writeTimeout)
                   ? noErr
                   : kAudioHardwareUnspecifiedError;
    }

    auto node = connection_->read([&](const PipeWireGraph& g) -> std::optional<Node> {
        if (const Node* n = deviceNode(g, object))
            return *n;
        return std::nullopt;
    });
    if (!node)
        return kAudioHardwareBadObjectError;
    switch (a.mSelector) {
    case kAudioDevicePropertyVolumeScalar:
    case kAudioHardwareServiceDeviceProperty_VirtualMainVolume: {
        const auto* volume = std::get_if<float>(&value);
        if (!volume)
            return kAudioHardwareBadPropertySizeError;
        if (!std::isfinite(*volume))
            return kAudio_ParamError;
        return writeVolume(*node, a, *volume);
    }
    case kAudioDevicePropertyMute: {
        const auto* muted = std::get_if<std::uint32_t>(&value);
        if (!muted)
            return kAudioHardwareBadPropertySizeError;
        const bool mute = *muted != 0;
        if (!connection_->setNodeProps(node->globalID, nullptr, &mute))
            return kAudioHardwareBadObjectError;
        const std::uint32_t global = node->globalID;
        return connection_->waitUntil(
                   [&](const PipeWireGraph& g) {
                       auto it = g.nodes.find(global);
                       return it != g.nodes.end() && it->second.mute == mute;
                   },
                   writeTimeout)
                   ? noErr
                   : kAudioHardwareUnspecifiedError;
    }
    case kAudioDevicePropertyNominalSampleRate:
    case kAudioDevicePropertyBufferFrameSize: {
        // The graph has one clock: rate and quantum are forced for all devices at once.
        std::uint32_t wanted = 0;
        const bool rate = a.mSelector == kAudioDevicePropertyNominalSampleRate;
        if (rate) {
            const auto* r = std::get_if<double>(&value);
            if (!r)
                return kAudioHardwareBadPropertySizeError;
            const auto rates = connection_->read([](const PipeWireGraph& g) { return allowedRates(g); });
            if (!std::isfinite(*r) ||
                std::find(rates.begin(), rates.end(), static_cast<std::uint32_t>(*r)) == rates.end() ||
                std::floor(*r) != *r)
                return kAudioDeviceUnsupportedFormatError;
            wanted = static_cast<std::uint32_t>(*r);
        } else {
            const auto* f = std::get_if<std::uint32_t>(&value);
            if (!f)
                return kAudioHardwareBadPropertySizeError;
            const auto range = connection_->read([](const PipeWireGraph& g) { return quantumRange(g); });
            if (*f < range.mMinimum || *f > range.mMaximum)
                return kAudioHardwareIllegalOperationError;
            wanted = *f;
        }
        const char* key = rate ? "clock.force-rate" : "clock.force-quantum";
        const std::string text = std::to_string(wanted);
        if (!connection_->setMetadata("settings", 0, key, "", text.c_str()))
            return kAudioHardwareNotRunningError;
        return connection_->waitUntil([&](const PipeWireGraph& g) { return g.setting(key, 0) == wanted; },
                                      writeTimeout)
                   ? noErr
                   : kAudioHardwareUnspecifiedError;
    }
    default:
        return kAudioHardwareIllegalOperationError;
    }
}

// ---- listeners ----

OSStatus PipeWireAudioHardware::addPropertyListener(AudioObjectID object,
                                                    const AudioObjectPropertyAddress& address,
                                                    DispatchQueue& queue,
                                                    const AudioObjectPropertyListenerBlock& block) {
    if (!block || !*block)
        return kAudio_ParamError;
    std::lock_guard<std::mutex> guard(stateMutex_);
    Listener l{object, address, &queue, block, noErr, {}, std::make_shared<std::atomic<bool>>(true)};
    const bool known = connection_->read([&](const PipeWireGraph& g) {
        l.lastStatus = readLocked(g, object, address, l.lastValue);
        return object == kAudioObjectSystemObject || l.lastStatus != kAudioHardwareBadObjectError;
    });
    if (!known)
        return kAudioHardwareBadObjectError;
    listeners_.push_back(std::move(l));
    return noErr;
}

OSStatus PipeWireAudioHardware::removePropertyListener(AudioObjectID object,
                                                       const AudioObjectPropertyAddress& address,
                                                       DispatchQueue& queue,
                                                       const AudioObjectPropertyListenerBlock& block) {
    std::lock_guard<std::mutex> guard(stateMutex_);
    auto it = std::find_if(listeners_.begin(), listeners_.end(), [&](const Listener& l) {
        return l.object == object && l.address == address && l.queue == &queue && l.block == block;
    });
    if (it == listeners_.end())
        return kAudio_ParamError;
    // A delivery already posted checks this flag, so nothing reaches the block after removal.
    it->live->store(false);
    listeners_.erase(it);
    return noErr;
}

void PipeWireAudioHardware::scheduleDiff() {
    // Bursts of registry events collapse into one pass.
    if (diffPending_.exchange(true))
        return;
    listenerQueue_.async([this] {
        diffPending_.store(false);
        diffAndRoute();
    });
}

void PipeWireAudioHardware::diffAndRoute() {
    std::lock_guard<std::mutex> guard(stateMutex_);
    connection_->read([&](const PipeWireGraph& g) {
        for (auto& l : listeners_) {
            AudioPropertyValue value;
            const OSStatus status = readLocked(g, l.object, l.address, value);
            if (status == l.lastStatus && (status != noErr || value == l.lastValue))
                continue;
            l.lastStatus = status;
            l.lastValue = std::move(value);
            l.queue->async([block = l.block, live = l.live, address = l.address] {
                if (live->load())
                    (*block)(std::span<const AudioObjectPropertyAddress>(&address, 1));
            });
        }
        return 0;
    });
    routeLocked();
}

std::size_t PipeWireAudioHardware::inputStreamCountLocked(const Aggregate& agg) const {
    std::size_t count = 0;
    for (const auto& sub : agg.description.taps)
        count += static_cast<std::size_t>(std::count_if(
            taps_.begin(), taps_.end(), [&](const auto& t) { return t.second.description.uuid == sub.uid; }));
    return count;
}

OSStatus PipeWireAudioHardware::streamUsageLocked(AudioObjectID object, const AudioObjectPropertyAddress& a,
                                                  AudioPropertyValue* read, const AudioPropertyValue* write) {
    auto agg = aggregates_.find(object);
    if (agg == aggregates_.end()) {
        // Plain devices run no IO procs here: the property does not exist on them.
        AudioPropertyValue ignored;
        const OSStatus status = this->read(object, globalAddress(kAudioDevicePropertyDeviceUID), ignored);
        return status == noErr ? kAudioHardwareUnknownPropertyError : status;
    }
    const bool input = a.mScope == kAudioObjectPropertyScopeInput;
    if (!input && a.mScope != kAudioObjectPropertyScopeOutput)
        return kAudioHardwareUnknownPropertyError;
    const auto* usage = std::get_if<AudioHardwareIOProcStreamUsage>(read ? read : write);
    if (!usage)
        return kAudioHardwareBadPropertySizeError;
    auto proc = procs_.find(usage->mIOProc);
    if (proc == procs_.end() || proc->second.device != object)
        return kAudioHardwareIllegalOperationError;
    // Inputs are the taps' streams, the output the main device's one stream; only inputs can be
    // switched off (the output is what the proc plays).
    const std::size_t streams = input ? inputStreamCountLocked(agg->second) : 1;
    if (read) {
        std::vector<std::uint32_t> flags(streams, 1);
        if (input)
            for (std::size_t i = 0; i < streams && i < proc->second.inputUsage.size(); ++i)
                flags[i] = proc->second.inputUsage[i] != 0 ? 1 : 0;
        *read = AudioHardwareIOProcStreamUsage{usage->mIOProc, std::move(flags)};
        return noErr;
    }
    if (usage->mStreamIsOn.size() != streams)
        return kAudioHardwareBadPropertySizeError;
    if (input)
        proc->second.inputUsage = usage->mStreamIsOn;
    else if (usage->mStreamIsOn[0] == 0)
        return kAudioHardwareIllegalOperationError;
    return noErr;
}

// ---- taps ----

void PipeWireAudioHardware::routeLocked() {
    struct Move {
        AudioObjectID tap;
        std::uint32_t node;
        std::string target;
    };
    std::vector<Move> moves;
    std::vector<std::uint32_t> stale;
    connection_->read([&](const PipeWireGraph& g) {
        std::set<std::string> present;
        for (const auto& [global, n] : g.nodes)
            if (isOurs(n) && isSink(n) && !n.prop("object.serial").empty())
                present.insert(n.prop("object.serial"));
        tapSinkSerials_.insert(present.begin(), present.end());
        for (const auto& [subject, entries] : g.nodeMetadata) {
            auto target = entries.find("target.object");
            if (target != entries.end() && tapSinkSerials_.count(target->second) &&
                !present.count(target->second))
                stale.push_back(subject);
        }
        std::erase_if(tapSinkSerials_, [&](const std::string& serial) { return !present.count(serial); });
        for (auto& [id, tap] : taps_) {
            if (!tap.routing)
                continue;
            const Node* sink = g.nodeByName(tap.sink->nodeName());
            if (!sink)
                continue;
            const std::string serial = sink->prop("object.serial");
            for (const auto& [global, n] : g.nodes) {
                if (n.mediaClass() != "Stream/Output/Audio" || isOurs(n))
                    continue;
                const pid_t pid = pidOfNode(g, n);
                if (std::find(tap.pids.begin(), tap.pids.end(), pid) == tap.pids.end())
                    continue;
                const std::string current = g.targetOf(global);
                // A stream goes to one sink only: when two taps hold the same process (a tap being
                // replaced, in this process or another), the newest sink keeps it. Taking it back
                // would make both makers rewrite the entry in turn, and the session manager relink
                // the stream on every write, for as long as both live.
                if (current == serial || (present.count(current) && serialNumber(current) > serialNumber(serial)))
                    continue;
                if (auto pending = pendingTargets_.find(global);
                    pending != pendingTargets_.end() && pending->second.serial == serial &&
                    std::chrono::steady_clock::now() - pending->second.at < pendingTimeout)
                    continue; // written, and the entry has not come back yet
                moves.push_back({id, global, serial});
            }
        }
        // A write is done when the entry shows it; one that never shows is retried after a while.
        std::erase_if(pendingTargets_, [&](const auto& p) {
            return !g.nodes.count(p.first) || g.targetOf(p.first) == p.second.serial;
        });
        return 0;
    });
    for (std::uint32_t node : stale)
        connection_->setMetadata("default", node, "target.object", nullptr, nullptr);
    for (const auto& m : moves) {
        if (connection_->setMetadata("default", m.node, "target.object", "Spa:Id", m.target.c_str())) {
            taps_[m.tap].movedNodes.insert(m.node);
            pendingTargets_[m.node] = {m.target, std::chrono::steady_clock::now()};
        }
    }
}

void PipeWireAudioHardware::unrouteLocked(Tap& tap) {
    // Only entries that still point at this tap's sink: the node may have been moved since.
    const std::string serial = connection_->read([&](const PipeWireGraph& g) {
        const Node* sink = tap.sink ? g.nodeByName(tap.sink->nodeName()) : nullptr;
        return sink ? sink->prop("object.serial") : std::string();
    });
    for (std::uint32_t node : tap.movedNodes) {
        const bool ours = !serial.empty() &&
                          connection_->read([&](const PipeWireGraph& g) { return g.targetOf(node) == serial; });
        if (ours)
            connection_->setMetadata("default", node, "target.object", nullptr, nullptr);
        pendingTargets_.erase(node);
    }
    tap.movedNodes.clear();
    tap.routing = false;
}

OSStatus PipeWireAudioHardware::createProcessTap(const TapDescription& description, AudioObjectID& tapID) {
    if (description.uuid.empty() || description.processes.empty())
        return kAudio_ParamError;
    // An unmuted tap would need the applications' own path copied as well; this backend moves them.
    if (description.muteBehavior == TapMuteBehavior::unmuted)
        return kAudioHardwareUnsupportedOperationError;
    Tap tap;
    tap.description = description;
    std::uint32_t channels = 2;
    std::uint32_t rate = 48000;
    const OSStatus status = connection_->read([&](const PipeWireGraph& g) -> OSStatus {
        for (AudioObjectID process : description.processes) {
            auto pid = g.pidOfProcessObject(process);
            if (!pid)
                return kAudioHardwareBadObjectError;
            tap.pids.push_back(*pid);
        }
        if (!description.mixdown) {
            const Node* device = g.nodeByName(description.deviceUID);
            if (!device || !isDevice(*device))
                return kAudioHardwareBadDeviceError;
            channels = device->channelCount();
        }
        rate = static_cast<std::uint32_t>(rateOf(g));
        return noErr;
    });
    if (status != noErr)
        return status;
    const std::string name = tapNodeNameOf(description);
    tap.sink = std::make_unique<PipeWireTap>(
        *connection_, name, description.name.empty() ? std::string("Tonavi tap") : description.name, name,
        channels, rate);
    std::string why;
    if (!tap.sink->start(why)) {
        Log::info("pipewire: tap not made: " + why);
        return kAudioHardwareUnspecifiedError;
    }
    if (!connection_->waitUntil([&](const PipeWireGraph& g) { return g.nodeByName(name) != nullptr; },
                                writeTimeout))
        return kAudioHardwareUnspecifiedError;
    tap.routing = description.muteBehavior == TapMuteBehavior::muted;
    std::lock_guard<std::mutex> guard(stateMutex_);
    tapID = connection_->allocateID();
    taps_.emplace(tapID, std::move(tap));
    routeLocked();
    return noErr;
}

OSStatus PipeWireAudioHardware::destroyProcessTap(AudioObjectID tapID) {
    std::unique_lock<std::mutex> guard(stateMutex_);
    auto it = taps_.find(tapID);
    if (it == taps_.end())
        return kAudioHardwareBadObjectError;
    // An IO proc reading the tap stops first: it holds the tap's stream.
    for (auto& [id, proc] : procs_) {
        auto agg = aggregates_.find(proc.device);
        if (agg == aggregates_.end())
            continue;
        for (const auto& sub : agg->second.description.taps)
            if (sub.uid == it->second.description.uuid)
                proc.io->stop();
    }
    unrouteLocked(it->second);
    taps_.erase(it);
    guard.unlock();
    // Done when the server has handled it: a process that ends right after leaves nothing behind.
    connection_->roundTrip();
    scheduleDiff();
    return noErr;
}

OSStatus PipeWireAudioHardware::createAggregateDevice(const AggregateDeviceDescription& description,
                                                      AudioObjectID& device) {
    if (description.uid.empty())
        return kAudio_ParamError;
    if (description.taps.empty())
        return createCombinedSink(description, device);
    std::unique_lock<std::mutex> guard(stateMutex_);
    for (const auto& [id, agg] : aggregates_)
        if (agg.description.uid == description.uid)
            return kAudioHardwareIllegalOperationError;
    for (const auto& sub : description.taps)
        if (std::none_of(taps_.begin(), taps_.end(),
                         [&](const auto& t) { return t.second.description.uuid == sub.uid; }))
            return kAudioHardwareBadObjectError;
    const bool mainKnown = connection_->read([&](const PipeWireGraph& g) {
        const Node* n = g.nodeByName(description.mainSubDevice);
        return n && isSink(*n) && !isOurs(*n);
    });
    if (!mainKnown)
        return kAudioHardwareBadDeviceError;
    device = connection_->allocateID();
    aggregates_.emplace(device, Aggregate{description});
    guard.unlock();
    scheduleDiff();
    return noErr;
}

namespace {
// A string of SPA JSON, quoted.
std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + "\"";
}
} // namespace

OSStatus PipeWireAudioHardware::createCombinedSink(const AggregateDeviceDescription& description,
                                                   AudioObjectID& device) {
    if (description.subDevices.empty())
        return kAudio_ParamError;
    // The combined sink mirrors one set of channels on every member; channels that add up across
    // members have no counterpart.
    if (description.isStacked)
        return kAudioHardwareUnsupportedOperationError;
    std::lock_guard<std::mutex> guard(stateMutex_);
    std::uint32_t channels = 2;
    const OSStatus status = connection_->read([&](const PipeWireGraph& g) -> OSStatus {
        if (g.nodeByName(description.uid))
            return kAudioHardwareIllegalOperationError; // one device per UID
        for (const auto& sub : description.subDevices) {
            const Node* n = g.nodeByName(sub.uid);
            if (!n || !isSink(*n) || isOurs(*n))
                return kAudioHardwareBadDeviceError;
        }
        const std::string& main =
            description.mainSubDevice.empty() ? description.subDevices.front().uid : description.mainSubDevice;
        if (const Node* n = g.nodeByName(main))
            channels = n->channelCount();
        return noErr;
    });
    if (status != noErr)
        return status;
    // Every member plays the same channels (a mirror, never stacked), as stereo unless the main
    // member is mono; the streams to the members are plumbing and carry the tap mark, so no tap
    // ever moves them.
    std::string matches;
    for (const auto& sub : description.subDevices)
        matches += "{ media.class = \"Audio/Sink\" node.name = " + quoted(sub.uid) + " } ";
    const std::string position = channels == 1 ? "[ MONO ]" : "[ FL FR ]";
    const std::string arguments =
        "{ combine.mode = sink node.name = " + quoted(description.uid) +
        " node.description = " + quoted(description.name.empty() ? description.uid : description.name) +
        " combine.props = { audio.position = " + position + " tonavi.group = true }" +
        " stream.props = { tonavi.tap = true node.dont-reconnect = true }" +
        " stream.rules = [ { matches = [ " + matches + "] actions = { create-stream = { } } } ] }";
    std::string why;
    const std::uint64_t module = connection_->loadModule("libpipewire-module-combine-stream", arguments, why);
    if (!module) {
        Log::info("pipewire: output group not made: " + why);
        return kAudioHardwareUnspecifiedError;
    }
    const std::size_t members = description.subDevices.size();
    const std::string& name = description.uid;
    // Ready when the sink is there and linked to every member.
    const bool ready = connection_->waitUntil(
        [&](const PipeWireGraph& g) {
            const Node* sink = g.nodeByName(name);
            // Its own properties (from the node's info) and a link to every member.
            if (!sink || sink->prop("tonavi.group") != "true" || sink->prop("node.group").empty())
                return false;
            std::set<std::uint32_t> linked;
            for (const auto& [id, link] : g.links) {
                auto from = g.nodes.find(link.outputNode);
                auto to = g.nodes.find(link.inputNode);
                if (from != g.nodes.end() && to != g.nodes.end() && from->second.pid == ::getpid() &&
                    from->second.prop("node.group") == sink->prop("node.group") && isSink(to->second))
                    linked.insert(to->second.globalID);
            }
            device = sink->objectID;
            return linked.size() >= members;
        },
        writeTimeout);
    if (!ready) {
        connection_->unloadModule(module);
        return kAudioHardwareUnspecifiedError;
    }
    combinedSinks_[name] = module;
    scheduleDiff();
    return noErr;
}

OSStatus PipeWireAudioHardware::destroyAggregateDevice(AudioObjectID device) {
    std::unique_lock<std::mutex> guard(stateMutex_);
    if (!aggregates_.count(device)) {
        const std::string name = connection_->read([&](const PipeWireGraph& g) {
            const Node* n = deviceNode(g, device);
            return n ? n->prop("node.name") : std::string();
        });
        auto group = combinedSinks_.find(name);
        if (group == combinedSinks_.end())
            return name.empty() ? kAudioHardwareBadObjectError : kAudioHardwareIllegalOperationError;
        connection_->unloadModule(group->second);
        combinedSinks_.erase(group);
        guard.unlock();
        // Done when the sink has left the graph.
        return connection_->waitUntil([&](const PipeWireGraph& g) { return !g.nodeByName(name); }, writeTimeout)
                   ? noErr
                   : kAudioHardwareUnspecifiedError;
    }
    aggregates_.erase(device);
    for (auto it = procs_.begin(); it != procs_.end();)
        it = it->second.device == device ? procs_.erase(it) : std::next(it);
    guard.unlock();
    scheduleDiff();
    return noErr;
}

OSStatus PipeWireAudioHardware::createIOProcIDWithBlock(AudioObjectID device, DispatchQueue*,
                                                        AudioDeviceIOBlock block,
                                                        AudioDeviceIOProcID& procID) {
    if (!block)
        return kAudio_ParamError;
    std::lock_guard<std::mutex> guard(stateMutex_);
    if (!aggregates_.count(device))
        return connection_->read([&](const PipeWireGraph& g) { return deviceNode(g, device) != nullptr; })
                   ? kAudioHardwareUnsupportedOperationError // IO on a plain device is not needed by taps
                   : kAudioHardwareBadObjectError;
    procID = nextProcID_++;
    procs_.emplace(procID,
                   IOProc{device, std::make_unique<PipeWireIOProc>(*connection_, std::move(block)), {}});
    return noErr;
}

OSStatus PipeWireAudioHardware::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) {
    std::lock_guard<std::mutex> guard(stateMutex_);
    auto it = procs_.find(procID);
    if (it == procs_.end() || it->second.device != device)
        return kAudioHardwareBadObjectError;
    procs_.erase(it);
    return noErr;
}

OSStatus PipeWireAudioHardware::deviceStart(AudioObjectID device, AudioDeviceIOProcID procID) {
    std::lock_guard<std::mutex> guard(stateMutex_);
    auto it = procs_.find(procID);
    auto agg = aggregates_.find(device);
    if (it == procs_.end() || it->second.device != device || agg == aggregates_.end())
        return kAudioHardwareBadObjectError;
    if (it->second.io->isRunning())
        return noErr;
    std::vector<PipeWireTap*> sinks;
    for (const auto& sub : agg->second.description.taps)
        for (auto& [id, tap] : taps_)
            if (tap.description.uuid == sub.uid) {
                sinks.push_back(tap.sink.get());
                tap.routing = true;
            }
    if (sinks.empty())
        return kAudioHardwareBadObjectError;
    PipeWireIOProc::Target target;
    const bool known = connection_->read([&](const PipeWireGraph& g) {
        const Node* main = g.nodeByName(agg->second.description.mainSubDevice);
        if (!main)
            return false;
        target.nodeName = main->prop("node.name");
        target.channels = main->channelCount();
        target.rate = static_cast<std::uint32_t>(rateOf(g));
        target.frames = quantumOf(g);
        return true;
    });
    if (!known)
        return kAudioHardwareBadDeviceError;
    // The IO stream is scheduled with the first tap's sink, so both run in the same cycle.
    target.group = sinks.front()->group();
    std::string why;
    if (!it->second.io->start(target, sinks, it->second.inputUsage, why)) {
        Log::info("pipewire: IO not started: " + why);
        return kAudioHardwareUnspecifiedError;
    }
    routeLocked();
    return noErr;
}

OSStatus PipeWireAudioHardware::deviceStop(AudioObjectID device, AudioDeviceIOProcID procID) {
    std::lock_guard<std::mutex> guard(stateMutex_);
    auto it = procs_.find(procID);
    if (it == procs_.end() || it->second.device != device)
        return kAudioHardwareBadObjectError;
    it->second.io->stop();
    // A tap muted only while tapped lets its applications go back to their own path.
    if (auto agg = aggregates_.find(device); agg != aggregates_.end())
        for (const auto& sub : agg->second.description.taps)
            for (auto& [id, tap] : taps_)
                if (tap.description.uuid == sub.uid &&
                    tap.description.muteBehavior == TapMuteBehavior::mutedWhenTapped)
                    unrouteLocked(tap);
    return noErr;
}

std::string PipeWireAudioHardware::tapNodeName(AudioObjectID tap) {
    std::lock_guard<std::mutex> guard(stateMutex_);
    auto it = taps_.find(tap);
    return it == taps_.end() ? std::string() : it->second.sink->nodeName();
}

std::string PipeWireAudioHardware::ioNodeName(AudioObjectID device, AudioDeviceIOProcID procID) {
    std::lock_guard<std::mutex> guard(stateMutex_);
    auto it = procs_.find(procID);
    return it == procs_.end() || it->second.device != device ? std::string() : it->second.io->nodeName();
}

std::optional<PipeWireAudioHardware::IOStatistics>
PipeWireAudioHardware::ioStatistics(AudioObjectID device, AudioDeviceIOProcID procID) {
    std::lock_guard<std::mutex> guard(stateMutex_);
    auto it = procs_.find(procID);
    if (it == procs_.end() || it->second.device != device)
        return std::nullopt;
    auto& io = *it->second.io;
    return IOStatistics{io.cycles(), io.lateInputs(), io.reportedLatencyFrames()};
}

std::uint64_t PipeWireAudioHardware::currentHostTime() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000'000ULL + static_cast<std::uint64_t>(ts.tv_nsec);
}

std::uint64_t PipeWireAudioHardware::convertHostTimeToNanos(std::uint64_t hostTime) {
    return hostTime;
}

} // namespace tonavi
