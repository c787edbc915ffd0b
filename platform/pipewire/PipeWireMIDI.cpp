#include "platform/pipewire/PipeWireMIDI.hpp"

#include "base/Log.hpp"
#include "base/Paths.hpp"

#include <pipewire/filter.h>
#include <pipewire/pipewire.h>
#include <spa/control/control.h>
#include <spa/pod/iter.h>
#include <spa/utils/result.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

namespace tonavi {

namespace {

constexpr const char* midiFormat = "8 bit raw midi";

void initOnce() {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

std::uint64_t monotonicNanos() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::uint64_t(ts.tv_sec) * 1'000'000'000ull + std::uint64_t(ts.tv_nsec);
}

std::uint32_t idProperty(const spa_dict* props, const char* key) {
    const char* value = props ? spa_dict_lookup(props, key) : nullptr;
    return value ? static_cast<std::uint32_t>(std::strtoul(value, nullptr, 10)) : SPA_ID_INVALID;
}

} // namespace

// Everything below is touched with the thread loop locked (its lock is recursive, so the blocks the
// loop calls may call back in).
struct PipeWireMIDI::Impl {
    struct MIDIPort {
        std::uint32_t node = SPA_ID_INVALID;
        MIDIEndpointRef ref = 0; // sources only
    };

    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_registry* registry = nullptr;
    spa_hook registryHook{};
    spa_hook coreHook{};
    int doneSeq = -1;
    pw_filter* filter = nullptr;
    spa_hook filterHook{};
    void* inputPort = nullptr;
    std::uint8_t runningStatus = 0; // "tonavi-midi" only

    // The data thread's messages on their way to "tonavi-midi": one producer, one consumer.
    static constexpr std::size_t ringBytes = 16384;
    std::array<std::uint8_t, ringBytes> ring{};
    std::atomic<std::size_t> ringHead{0}; // advanced by the data thread
    std::atomic<std::size_t> ringTail{0}; // advanced by "tonavi-midi"
    spa_source* ringEvent = nullptr;

    MIDIClientRef client = 0;
    MIDIPortRef port = 0;
    NotifyBlock notify;
    ReceiveBlock receive;
    MIDIObjectRef nextRef = 1;

    // A lost server is connected to again from a timer of this loop, with the client's and port's
    // names and refs kept, so the mapper above never learns of it: the sources of the new server
    // arrive as setup changes, and the mapper connects them as it connects any plugged controller.
    std::string clientName;
    std::string portName;
    spa_source* reconnectTimer = nullptr;
    std::chrono::milliseconds backoff{100};

    std::map<std::uint32_t, MIDIPort> sources; // MIDI output ports by global ID, in order of arrival
    std::vector<std::uint32_t> sourceOrder;
    std::map<std::uint32_t, std::uint32_t> inputs; // MIDI input ports by global ID: their node
    std::set<MIDIEndpointRef> wanted;               // sources the port was asked to connect
    std::map<std::uint32_t, pw_proxy*> links;       // by source port

    void lock() { pw_thread_loop_lock(loop); }
    void unlock() { pw_thread_loop_unlock(loop); }

    // The global ID of our filter's input port, once the graph shows it.
    std::uint32_t ownPortLocked() const {
        if (!filter)
            return SPA_ID_INVALID;
        const std::uint32_t node = pw_filter_get_node_id(filter);
        for (const auto& [id, portNode] : inputs)
            if (portNode == node && node != SPA_ID_INVALID)
                return id;
        return SPA_ID_INVALID;
    }

    // Links every wanted source that has no link yet; a source whose link failed stays wanted.
    void linkWantedLocked() {
        const std::uint32_t own = ownPortLocked();
        if (own == SPA_ID_INVALID || !core)
            return;
        const std::uint32_t ownNode = pw_filter_get_node_id(filter);
        for (const auto& [id, source] : sources) {
            if (!wanted.count(source.ref) || links.count(id))
                continue;
            pw_properties* props = pw_properties_new("object.linger", "false", nullptr);
            pw_properties_setf(props, PW_KEY_LINK_OUTPUT_NODE, "%u", source.node);
            pw_properties_setf(props, PW_KEY_LINK_OUTPUT_PORT, "%u", id);
            pw_properties_setf(props, PW_KEY_LINK_INPUT_NODE, "%u", ownNode);
            pw_properties_setf(props, PW_KEY_LINK_INPUT_PORT, "%u", own);
            auto* proxy = static_cast<pw_proxy*>(
                pw_core_create_object(core, "link-factory", PW_TYPE_INTERFACE_Link, PW_VERSION_LINK, &props->dict, 0));
            pw_properties_free(props);
            if (proxy)
                links[id] = proxy;
        }
    }

    void global(std::uint32_t id, const char* type, const spa_dict* props) {
        if (std::strcmp(type, PW_TYPE_INTERFACE_Port) != 0 || !props)
            return;
        const char* format = spa_dict_lookup(props, PW_KEY_FORMAT_DSP);
        const char* direction = spa_dict_lookup(props, PW_KEY_PORT_DIRECTION);
        if (!format || std::strcmp(format, midiFormat) != 0 || !direction)
            return;
        const std::uint32_t node = idProperty(props, PW_KEY_NODE_ID);
        if (std::strcmp(direction, "in") == 0) {
            inputs[id] = node;
            linkWantedLocked(); // our own port may just have appeared
            return;
        }
        sources[id] = {node, nextRef++};
        sourceOrder.push_back(id);
        if (notify)
            notify(kMIDIMsgSetupChanged);
    }

    void globalRemove(std::uint32_t id) {
        inputs.erase(id);
        if (sources.erase(id)) {
            std::erase(sourceOrder, id);
            if (auto link = links.find(id); link != links.end()) {
                pw_proxy_destroy(link->second);
                links.erase(link);
            }
        }
    }

    // On the graph's data thread: copies each MIDI message into the ring, without allocating, locking
    // or logging, and wakes "tonavi-midi". The port's buffer is back in the graph's hands before the
    // next cycle, so a slow MIDI thread loses no message (a full ring drops the newest).
    void process() {
        pw_buffer* b = pw_filter_dequeue_buffer(inputPort);
        if (!b)
            return;
        spa_data& d = b->buffer->datas[0];
        bool pushed = false;
        if (d.data && d.chunk) {
            auto* pod = static_cast<spa_pod*>(spa_pod_from_data(d.data, d.maxsize, d.chunk->offset, d.chunk->size));
            if (pod && spa_pod_is_sequence(pod)) {
                spa_pod_control* c;
                SPA_POD_SEQUENCE_FOREACH(reinterpret_cast<spa_pod_sequence*>(pod), c) {
                    if (c->type == SPA_CONTROL_Midi)
                        pushed |= pushMessage(static_cast<const std::uint8_t*>(SPA_POD_BODY(&c->value)),
                                              SPA_POD_BODY_SIZE(&c->value));
                }
            }
        }
        pw_filter_queue_buffer(inputPort, b);
        if (pushed)
            pw_loop_signal_event(pw_thread_loop_get_loop(loop), ringEvent);
    }

    // A message is its length (1...255; longer ones are system exclusive, never a Control Change)
    // and its bytes.
    bool pushMessage(const std::uint8_t* bytes, std::size_t size) {
        if (size == 0 || size > 255)
            return false;
        const std::size_t head = ringHead.load(std::memory_order_relaxed);
        if (ringBytes - (head - ringTail.load(std::memory_order_acquire)) < size + 1)
            return false;
        ring[head % ringBytes] = static_cast<std::uint8_t>(size);
        for (std::size_t i = 0; i < size; ++i)
            ring[(head + 1 + i) % ringBytes] = bytes[i];
        ringHead.store(head + 1 + size, std::memory_order_release);
        return true;
    }

    // On "tonavi-midi": the ring's messages become one event list for the port's block.
    void drainRing() {
        const std::uint64_t now = monotonicNanos();
        MIDIEventListBuilder builder;
        std::size_t tail = ringTail.load(std::memory_order_relaxed);
        const std::size_t head = ringHead.load(std::memory_order_acquire);
        std::uint8_t message[255];
        while (tail != head) {
            const std::size_t size = ring[tail % ringBytes];
            for (std::size_t i = 0; i < size; ++i)
                message[i] = ring[(tail + 1 + i) % ringBytes];
            tail += 1 + size;
            const auto words = umpWordsFromMIDI1Bytes({message, size}, runningStatus);
            if (!words.empty())
                builder.add(now, words);
        }
        ringTail.store(tail, std::memory_order_release);
        if (!builder.empty() && receive)
            receive(builder.list());
    }

    bool roundTrip() {
        doneSeq = -1;
        const int seq = pw_core_sync(core, PW_ID_CORE, 0);
        timespec deadline{};
        pw_thread_loop_get_time(loop, &deadline, 2'000'000'000ll);
        while (doneSeq < seq)
            if (pw_thread_loop_timed_wait_full(loop, &deadline) != 0)
                return false;
        return true;
    }

    bool connectLocked(const std::string& name);
    bool createFilterLocked(const std::string& name);
    void connectionLost(int res, const char* message);
    void scheduleReconnectLocked(std::chrono::milliseconds delay);
    void reconnectLocked();

    // Ends the connection and forgets the graph; the client and its port stay.
    void dropConnectionLocked() {
        for (auto& [id, proxy] : links)
            pw_proxy_destroy(proxy);
        links.clear();
        if (filter) {
            pw_filter_destroy(filter);
            filter = nullptr;
        }
        if (registry) {
            spa_hook_remove(&registryHook);
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
            registry = nullptr;
        }
        if (core) {
            spa_hook_remove(&coreHook);
            pw_core_disconnect(core);
            core = nullptr;
        }
        inputPort = nullptr;
        sources.clear();
        sourceOrder.clear();
        inputs.clear();
        wanted.clear();
    }

    void teardownLocked() {
        dropConnectionLocked();
        if (reconnectTimer) {
            timespec off{};
            pw_loop_update_timer(pw_thread_loop_get_loop(loop), reconnectTimer, &off, nullptr, false);
        }
        notify = nullptr;
        receive = nullptr;
        client = port = 0;
    }
};

namespace {

const pw_registry_events registryEvents = [] {
    pw_registry_events e{};
    e.version = PW_VERSION_REGISTRY_EVENTS;
    e.global = [](void* data, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t, const spa_dict* props) {
        static_cast<PipeWireMIDI::Impl*>(data)->global(id, type, props);
    };
    e.global_remove = [](void* data, std::uint32_t id) { static_cast<PipeWireMIDI::Impl*>(data)->globalRemove(id); };
    return e;
}();

const pw_core_events coreEvents = [] {
    pw_core_events e{};
    e.version = PW_VERSION_CORE_EVENTS;
    e.done = [](void* data, std::uint32_t id, int seq) {
        auto* impl = static_cast<PipeWireMIDI::Impl*>(data);
        if (id == PW_ID_CORE) {
            impl->doneSeq = seq;
            pw_thread_loop_signal(impl->loop, false);
        }
    };
    e.error = [](void* data, std::uint32_t id, int, int res, const char* message) {
        // The socket closing reads as EPIPE, a server gone while it had our messages unread as
        // ECONNRESET: either way this connection is over.
        if (id == PW_ID_CORE && (res == -EPIPE || res == -ECONNRESET || res == -ENOTCONN || res == -EIO))
            static_cast<PipeWireMIDI::Impl*>(data)->connectionLost(res, message);
    };
    return e;
}();

const pw_filter_events filterEvents = [] {
    pw_filter_events e{};
    e.version = PW_VERSION_FILTER_EVENTS;
    e.process = [](void* data, spa_io_position*) { static_cast<PipeWireMIDI::Impl*>(data)->process(); };
    e.state_changed = [](void* data, pw_filter_state, pw_filter_state state, const char*) {
        // Once the node is in the graph its port can be linked.
        if (state == PW_FILTER_STATE_PAUSED || state == PW_FILTER_STATE_STREAMING)
            static_cast<PipeWireMIDI::Impl*>(data)->linkWantedLocked();
    };
    return e;
}();

} // namespace

PipeWireMIDI::PipeWireMIDI() : impl_(std::make_unique<Impl>()) {
    initOnce();
    impl_->loop = pw_thread_loop_new("tonavi-midi", nullptr);
    impl_->context = pw_context_new(pw_thread_loop_get_loop(impl_->loop), nullptr, 0);
    impl_->ringEvent = pw_loop_add_event(
        pw_thread_loop_get_loop(impl_->loop),
        [](void* data, std::uint64_t) { static_cast<Impl*>(data)->drainRing(); }, impl_.get());
    impl_->reconnectTimer = pw_loop_add_timer(
        pw_thread_loop_get_loop(impl_->loop),
        [](void* data, std::uint64_t) { static_cast<Impl*>(data)->reconnectLocked(); }, impl_.get());
    pw_thread_loop_start(impl_->loop);
}

PipeWireMIDI::~PipeWireMIDI() {
    impl_->lock();
    impl_->teardownLocked();
    if (impl_->reconnectTimer)
        pw_loop_destroy_source(pw_thread_loop_get_loop(impl_->loop), impl_->reconnectTimer);
    if (impl_->ringEvent)
        pw_loop_destroy_source(pw_thread_loop_get_loop(impl_->loop), impl_->ringEvent);
    impl_->unlock();
    pw_thread_loop_stop(impl_->loop);
    pw_context_destroy(impl_->context);
    pw_thread_loop_destroy(impl_->loop);
}

OSStatus PipeWireMIDI::clientCreate(const std::string& name, NotifyBlock notify, MIDIClientRef& client) {
    Impl& m = *impl_;
    m.lock();
    if (m.core || m.client || !m.context) {
        m.unlock();
        return kMIDIInvalidClient;
    }
    if (!m.connectLocked(name)) {
        m.unlock();
        return kMIDIServerStartErr;
    }
    // The sources that exist now are known before this returns; later ones are announced.
    if (!m.roundTrip()) {
        m.teardownLocked();
        m.unlock();
        return kMIDIServerStartErr;
    }
    m.clientName = name;
    m.notify = std::move(notify);
    m.client = m.nextRef++;
    client = m.client;
    m.unlock();
    return noErr;
}

OSStatus PipeWireMIDI::inputPortCreate(MIDIClientRef client, const std::string& name, MIDIProtocolID,
                                       ReceiveBlock receive, MIDIPortRef& port) {
    Impl& m = *impl_;
    m.lock();
    if (client == 0 || client != m.client || m.port || !m.createFilterLocked(name)) {
        m.unlock();
        return kMIDIInvalidClient;
    }
    m.portName = name;
    m.receive = std::move(receive);
    m.port = m.nextRef++;
    port = m.port;
    m.unlock();
    return noErr;
}

bool PipeWireMIDI::Impl::connectLocked(const std::string& name) {
    // The service's own identity, so that no process list ever shows this connection as an app.
    pw_properties* props =
        pw_properties_new(PW_KEY_APP_NAME, name.c_str(), PW_KEY_APP_ID, serviceBundleIdentifier, nullptr);
    core = pw_context_connect(context, props, 0);
    if (!core)
        return false;
    pw_core_add_listener(core, &coreHook, &coreEvents, this);
    registry = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
    pw_registry_add_listener(registry, &registryHook, &registryEvents, this);
    return true;
}

bool PipeWireMIDI::Impl::createFilterLocked(const std::string& name) {
    // Not "node.always-process": the node runs when a source is linked to it, and only then. Always
    // processing, the unlinked node was put in a device's cycle, and the tap nodes that the service's
    // workers then made for that device often never ran (their IO path went stale).
    pw_properties* props = pw_properties_new(PW_KEY_MEDIA_TYPE, "Midi", PW_KEY_MEDIA_CATEGORY, "Capture",
                                             PW_KEY_MEDIA_CLASS, "Midi/Sink", PW_KEY_NODE_NAME, name.c_str(),
                                             PW_KEY_NODE_DESCRIPTION, "Tonavi", nullptr);
    filter = pw_filter_new(core, name.c_str(), props);
    if (!filter)
        return false;
    pw_filter_add_listener(filter, &filterHook, &filterEvents, this);
    inputPort = pw_filter_add_port(filter, PW_DIRECTION_INPUT, PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0,
                                   pw_properties_new(PW_KEY_FORMAT_DSP, midiFormat, PW_KEY_PORT_NAME, name.c_str(),
                                                     nullptr),
                                   nullptr, 0);
    // Real-time: a process() on our own loop would read the port's buffer only when that loop comes
    // round, and a busy loop then missed messages that a later cycle had already written over.
    if (!inputPort || pw_filter_connect(filter, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0) < 0) {
        pw_filter_destroy(filter);
        filter = nullptr;
        inputPort = nullptr;
        return false;
    }
    return true;
}

// On the loop's thread, from the core's error event: the proxies are ended from the timer, not
// from inside their own core's callback.
void PipeWireMIDI::Impl::connectionLost(int res, const char* message) {
    Log::info(std::string("pipewire: MIDI connection lost: ") + (message ? message : spa_strerror(res)));
    if (client != 0)
        scheduleReconnectLocked(std::chrono::milliseconds(0));
}

void PipeWireMIDI::Impl::scheduleReconnectLocked(std::chrono::milliseconds delay) {
    if (!reconnectTimer)
        return;
    // A zero time would disarm the timer: "now" is one nanosecond.
    const auto nanos = std::max<std::int64_t>(1, std::chrono::nanoseconds(delay).count());
    timespec at{static_cast<time_t>(nanos / 1'000'000'000), static_cast<long>(nanos % 1'000'000'000)};
    pw_loop_update_timer(pw_thread_loop_get_loop(loop), reconnectTimer, &at, nullptr, false);
}

void PipeWireMIDI::Impl::reconnectLocked() {
    if (client == 0)
        return;
    dropConnectionLocked();
    if (connectLocked(clientName) && (port == 0 || createFilterLocked(portName))) {
        Log::info("pipewire: MIDI reconnected");
        backoff = std::chrono::milliseconds(100);
        return;
    }
    dropConnectionLocked();
    Log::info("pipewire: MIDI not reconnected (no PipeWire server answers); next try in " +
              std::to_string(backoff.count()) + " ms");
    scheduleReconnectLocked(backoff);
    backoff = std::min(backoff * 2, std::chrono::milliseconds(5000));
}

std::size_t PipeWireMIDI::numberOfSources() {
    impl_->lock();
    const std::size_t count = impl_->sourceOrder.size();
    impl_->unlock();
    return count;
}

MIDIEndpointRef PipeWireMIDI::source(std::size_t index) {
    impl_->lock();
    const MIDIEndpointRef ref =
        index < impl_->sourceOrder.size() ? impl_->sources[impl_->sourceOrder[index]].ref : 0;
    impl_->unlock();
    return ref;
}

OSStatus PipeWireMIDI::portConnectSource(MIDIPortRef port, MIDIEndpointRef source) {
    Impl& m = *impl_;
    m.lock();
    OSStatus status = kMIDIUnknownEndpoint;
    if (port == 0 || port != m.port) {
        status = kMIDIInvalidClient;
    } else {
        for (const auto& [id, s] : m.sources)
            if (s.ref == source) {
                m.wanted.insert(source);
                m.linkWantedLocked();
                status = noErr;
            }
    }
    m.unlock();
    return status;
}

void PipeWireMIDI::clientDispose(MIDIClientRef client) {
    impl_->lock();
    if (client != 0 && client == impl_->client)
        impl_->teardownLocked();
    impl_->unlock();
}

} // namespace tonavi
