#include "platform/pipewire/PipeWireConnection.hpp"

#include <cerrno>
#include <cstring>
#include <set>

#include <pipewire/extensions/metadata.h>
#include <pipewire/impl-module.h>
#include <pipewire/pipewire.h>
#include <spa/param/audio/raw.h>
#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>
#include <spa/utils/result.h>

#include "base/Log.hpp"
#include "base/Paths.hpp"

namespace tonavi {

namespace {
enum class Kind { node, client, device, metadata, link };

void initOnce() {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

PipeWireGraph::Properties copyDict(const spa_dict* dict) {
    PipeWireGraph::Properties out;
    if (!dict)
        return out;
    const spa_dict_item* item;
    spa_dict_for_each(item, dict) {
        if (item->key)
            out[item->key] = item->value ? item->value : "";
    }
    return out;
}

std::string dictValue(const spa_dict* dict, const char* key) {
    const char* value = dict ? spa_dict_lookup(dict, key) : nullptr;
    return value ? value : "";
}
} // namespace

struct PipeWireConnection::Bound {
    PipeWireConnection* self = nullptr;
    std::uint32_t id = 0;
    Kind kind = Kind::node;
    std::string metadataName;
    pw_proxy* proxy = nullptr;
    spa_hook objectHook{};
};

struct PipeWireConnection::Hooks {
    spa_hook core{};
    spa_hook registry{};
    int initialSeq = -1;
};

// The C callbacks, with access to the connection's internals.
struct PipeWireEvents {
    static void nodeInfo(void* data, const pw_node_info* info) {
        auto* b = static_cast<PipeWireConnection::Bound*>(data);
        auto& self = *b->self;
        std::lock_guard<std::mutex> guard(self.graphMutex_);
        auto& node = self.graph_.nodes[b->id];
        node.globalID = b->id;
        if (info->change_mask & PW_NODE_CHANGE_MASK_PROPS)
            node.props = copyDict(info->props);
        if (info->change_mask & PW_NODE_CHANGE_MASK_STATE) {
            node.running = info->state == PW_NODE_STATE_RUNNING;
            node.failed = info->state == PW_NODE_STATE_ERROR;
        }
        self.changedLocked();
    }

    static void nodeParam(void* data, int, std::uint32_t id, std::uint32_t, std::uint32_t,
                          const spa_pod* param) {
        if (id != SPA_PARAM_Props || !param || !spa_pod_is_object_type(param, SPA_TYPE_OBJECT_Props))
            return;
        auto* b = static_cast<PipeWireConnection::Bound*>(data);
        auto& self = *b->self;
        std::lock_guard<std::mutex> guard(self.graphMutex_);
        auto& node = self.graph_.nodes[b->id];
        node.globalID = b->id;
        const spa_pod_prop* prop;
        const auto* object = reinterpret_cast<const spa_pod_object*>(param);
        SPA_POD_OBJECT_FOREACH(object, prop) {
            if (prop->key == SPA_PROP_channelVolumes) {
                float volumes[SPA_AUDIO_MAX_CHANNELS];
                const std::uint32_t n =
                    spa_pod_copy_array(&prop->value, SPA_TYPE_Float, volumes, SPA_AUDIO_MAX_CHANNELS);
                node.channelVolumes.assign(volumes, volumes + n);
            } else if (prop->key == SPA_PROP_mute) {
                bool mute = false;
                if (spa_pod_get_bool(&prop->value, &mute) == 0)
                    node.mute = mute;
            }
        }
        self.changedLocked();
    }

    static void clientInfo(void* data, const pw_client_info* info) {
        auto* b = static_cast<PipeWireConnection::Bound*>(data);
        auto& self = *b->self;
        std::lock_guard<std::mutex> guard(self.graphMutex_);
        auto& client = self.graph_.clients[b->id];
        client.globalID = b->id;
        if (info->change_mask & PW_CLIENT_CHANGE_MASK_PROPS)
            client.props = copyDict(info->props);
        self.changedLocked();
    }

    static void deviceInfo(void* data, const pw_device_info* info) {
        auto* b = static_cast<PipeWireConnection::Bound*>(data);
        auto& self = *b->self;
        std::lock_guard<std::mutex> guard(self.graphMutex_);
        if (info->change_mask & PW_DEVICE_CHANGE_MASK_PROPS)
            self.graph_.devices[b->id] = copyDict(info->props);
        self.changedLocked();
    }

    static int metadataProperty(void* data, std::uint32_t subject, const char* key, const char*,
                                const char* value) {
        auto* b = static_cast<PipeWireConnection::Bound*>(data);
        auto& self = *b->self;
        std::lock_guard<std::mutex> guard(self.graphMutex_);
        auto& g = self.graph_;
        if (b->metadataName == "default") {
            if (!key) {
                // Everything cleared.
                if (subject == PW_ID_CORE)
                    g.defaults.clear();
                else
                    g.nodeMetadata.erase(subject);
            } else {
                auto& map = subject == PW_ID_CORE ? g.defaults : g.nodeMetadata[subject];
                if (value)
                    map[key] = value;
                else
                    map.erase(key);
            }
        } else if (b->metadataName == "settings" && subject == PW_ID_CORE) {
            if (!key)
                g.settings.clear();
            else if (value)
                g.settings[key] = value;
            else
                g.settings.erase(key);
        }
        self.changedLocked();
        return 0;
    }

    static void global(void* data, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t version,
                       const spa_dict* props) {
        auto& self = *static_cast<PipeWireConnection*>(data);
        auto bound = std::make_unique<PipeWireConnection::Bound>();
        bound->self = &self;
        bound->id = id;
        std::uint32_t bindVersion = 0;
        if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
            bound->kind = Kind::node;
            bindVersion = PW_VERSION_NODE;
        } else if (std::strcmp(type, PW_TYPE_INTERFACE_Client) == 0) {
            bound->kind = Kind::client;
            bindVersion = PW_VERSION_CLIENT;
        } else if (std::strcmp(type, PW_TYPE_INTERFACE_Device) == 0) {
            bound->kind = Kind::device;
            bindVersion = PW_VERSION_DEVICE;
        } else if (std::strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0) {
            bound->metadataName = dictValue(props, PW_KEY_METADATA_NAME);
            if (bound->metadataName != "default" && bound->metadataName != "settings")
                return;
            bound->kind = Kind::metadata;
            bindVersion = PW_VERSION_METADATA;
        } else if (std::strcmp(type, PW_TYPE_INTERFACE_Link) == 0) {
            // A link's ends are in its global properties; no need to bind it.
            std::lock_guard<std::mutex> guard(self.graphMutex_);
            auto& link = self.graph_.links[id];
            link.outputNode = static_cast<std::uint32_t>(
                std::strtoul(dictValue(props, PW_KEY_LINK_OUTPUT_NODE).c_str(), nullptr, 10));
            link.inputNode = static_cast<std::uint32_t>(
                std::strtoul(dictValue(props, PW_KEY_LINK_INPUT_NODE).c_str(), nullptr, 10));
            self.changedLocked();
            return;
        } else {
            return;
        }
        bound->proxy = static_cast<pw_proxy*>(
            pw_registry_bind(self.registry_, id, type, std::min(version, bindVersion), 0));
        if (!bound->proxy)
            return;
        switch (bound->kind) {
        case Kind::node: {
            static const pw_node_events events = {PW_VERSION_NODE_EVENTS, nodeInfo, nodeParam};
            pw_node_add_listener(reinterpret_cast<pw_node*>(bound->proxy), &bound->objectHook, &events,
                                 bound.get());
            std::uint32_t ids[] = {SPA_PARAM_Props};
            pw_node_subscribe_params(reinterpret_cast<pw_node*>(bound->proxy), ids, 1);
            std::lock_guard<std::mutex> guard(self.graphMutex_);
            auto& node = self.graph_.nodes[id];
            node.globalID = id;
            node.objectID = self.allocateID();
            node.props = copyDict(props);
            break;
        }
        case Kind::client: {
            static const pw_client_events events = {PW_VERSION_CLIENT_EVENTS, clientInfo, nullptr};
            pw_client_add_listener(reinterpret_cast<pw_client*>(bound->proxy), &bound->objectHook, &events,
                                   bound.get());
            break;
        }
        case Kind::device: {
            static const pw_device_events events = {PW_VERSION_DEVICE_EVENTS, deviceInfo, nullptr};
            pw_device_add_listener(reinterpret_cast<pw_device*>(bound->proxy), &bound->objectHook, &events,
                                   bound.get());
            break;
        }
        case Kind::metadata: {
            static const pw_metadata_events events = {PW_VERSION_METADATA_EVENTS, metadataProperty};
            pw_metadata_add_listener(reinterpret_cast<pw_metadata*>(bound->proxy), &bound->objectHook,
                                     &events, bound.get());
            self.metadataByName_[bound->metadataName] = id;
            break;
        }
        case Kind::link:
            break;
        }
        self.bound_[id] = std::move(bound);
    }

    static void globalRemove(void* data, std::uint32_t id) {
        auto& self = *static_cast<PipeWireConnection*>(data);
        if (auto it = self.bound_.find(id); it != self.bound_.end()) {
            if (it->second->kind == Kind::metadata)
                self.metadataByName_.erase(it->second->metadataName);
            spa_hook_remove(&it->second->objectHook);
            pw_proxy_destroy(it->second->proxy);
            self.bound_.erase(it);
        }
        std::lock_guard<std::mutex> guard(self.graphMutex_);
        auto& g = self.graph_;
        g.nodes.erase(id);
        g.clients.erase(id);
        g.devices.erase(id);
        g.links.erase(id);
        g.nodeMetadata.erase(id);
        self.changedLocked();
    }

    static void coreDone(void* data, std::uint32_t id, int seq) {
        auto& self = *static_cast<PipeWireConnection*>(data);
        if (id != PW_ID_CORE)
            return;
        std::lock_guard<std::mutex> guard(self.graphMutex_);
        self.doneSeq_ = std::max(self.doneSeq_, seq);
        self.graphChanged_.notify_all();
    }

    static void coreError(void* data, std::uint32_t id, int, int res, const char* message) {
        auto& self = *static_cast<PipeWireConnection*>(data);
        // The socket closing reads as EPIPE, a reset (a server that went away while it still had
        // our first messages unread) as ECONNRESET: either way this connection is over.
        if (id != PW_ID_CORE || (res != -EPIPE && res != -ECONNRESET && res != -ENOTCONN && res != -EIO))
            return;
        Log::info(std::string("pipewire: connection lost: ") + (message ? message : spa_strerror(res)));
        {
            std::lock_guard<std::mutex> guard(self.graphMutex_);
            self.graph_ = PipeWireGraph{};
            self.changedLocked();
        }
        if (!self.stopping_)
            self.scheduleReconnect(std::chrono::milliseconds(0));
    }
};

struct PipeWireConnection::Module {
    PipeWireConnection* owner = nullptr;
    std::uint64_t handle = 0;
    pw_impl_module* module = nullptr;
    spa_hook hook{};
};

PipeWireConnection::PipeWireConnection() : hooks_(std::make_unique<Hooks>()) {
    initOnce();
    loop_ = pw_thread_loop_new("tonavi-pipewire", nullptr);
    context_ = pw_context_new(pw_thread_loop_get_loop(loop_), nullptr, 0);
    pw_thread_loop_start(loop_);
}

PipeWireConnection::~PipeWireConnection() {
    pw_thread_loop_lock(loop_);
    stopping_ = true;
    while (!modules_.empty())
        pw_impl_module_destroy(modules_.begin()->second->module);
    disconnectLocked();
    pw_thread_loop_unlock(loop_);
    // A running retry sees stopping_ and does nothing; a pending one is dropped with the queue.
    reconnectQueue_.reset();
    pw_thread_loop_stop(loop_);
    pw_context_destroy(context_);
    pw_thread_loop_destroy(loop_);
}

bool PipeWireConnection::serverAnswers() {
    initOnce();
    pw_main_loop* loop = pw_main_loop_new(nullptr);
    if (!loop)
        return false;
    pw_context* context = pw_context_new(pw_main_loop_get_loop(loop), nullptr, 0);
    pw_core* core = context ? pw_context_connect(context, nullptr, 0) : nullptr;
    const bool answers = core != nullptr;
    if (core)
        pw_core_disconnect(core);
    if (context)
        pw_context_destroy(context);
    pw_main_loop_destroy(loop);
    return answers;
}

bool PipeWireConnection::start(std::string& error) {
    pw_thread_loop_lock(loop_);
    const bool ok = connectLocked(error);
    pw_thread_loop_unlock(loop_);
    if (!ok)
        return false;
    // Two round trips: the first brings every global, the second their bound info and params.
    if (!roundTrip() || !roundTrip()) {
        error = "the PipeWire server did not answer in time";
        return false;
    }
    return true;
}

bool PipeWireConnection::connectLocked(std::string& error) {
    // The service and its workers name themselves, so that their clients are known for their own.
    pw_properties* props = pw_properties_new(PW_KEY_APP_NAME, "Tonavi", PW_KEY_APP_ID, serviceBundleIdentifier, nullptr);
    core_ = pw_context_connect(context_, props, 0);
    if (!core_) {
        error = std::string("no PipeWire server answers: ") + std::strerror(errno);
        return false;
    }
    static const pw_core_events coreEvents = [] {
        pw_core_events e{};
        e.version = PW_VERSION_CORE_EVENTS;
        e.done = PipeWireEvents::coreDone;
        e.error = PipeWireEvents::coreError;
        return e;
    }();
    pw_core_add_listener(core_, &hooks_->core, &coreEvents, this);
    registry_ = pw_core_get_registry(core_, PW_VERSION_REGISTRY, 0);
    static const pw_registry_events registryEvents = {PW_VERSION_REGISTRY_EVENTS, PipeWireEvents::global,
                                                      PipeWireEvents::globalRemove};
    pw_registry_add_listener(registry_, &hooks_->registry, &registryEvents, this);
    {
        std::lock_guard<std::mutex> guard(graphMutex_);
        graph_ = PipeWireGraph{};
        graph_.connected = true;
        doneSeq_ = -1;
        changedLocked();
    }
    backoff_ = std::chrono::milliseconds(100);
    return true;
}

void PipeWireConnection::disconnectLocked() {
    for (auto& [id, bound] : bound_) {
        spa_hook_remove(&bound->objectHook);
        pw_proxy_destroy(bound->proxy);
    }
    bound_.clear();
    metadataByName_.clear();
    if (registry_) {
        spa_hook_remove(&hooks_->registry);
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
        registry_ = nullptr;
    }
    if (core_) {
        spa_hook_remove(&hooks_->core);
        pw_core_disconnect(core_);
        core_ = nullptr;
    }
    std::lock_guard<std::mutex> guard(graphMutex_);
    graph_ = PipeWireGraph{};
    changedLocked();
}

void PipeWireConnection::scheduleReconnect(std::chrono::milliseconds delay) {
    reconnectQueue_->after(delay, [this] {
        pw_thread_loop_lock(loop_);
        if (stopping_) {
            pw_thread_loop_unlock(loop_);
            return;
        }
        disconnectLocked();
        std::string why;
        const bool ok = connectLocked(why);
        if (ok) {
            Log::info("pipewire: reconnected");
        } else {
            // Scheduled under the loop lock: the destructor sets stopping_ under it before the
            // queue goes, so no retry is ever posted to a queue being destroyed.
            const auto next = backoff_;
            Log::info("pipewire: not reconnected (" + why + "); next try in " + std::to_string(next.count()) +
                      " ms");
            backoff_ = std::min(backoff_ * 2, std::chrono::milliseconds(5000));
            scheduleReconnect(next);
        }
        pw_thread_loop_unlock(loop_);
    });
}

void PipeWireConnection::setChangeHandler(std::function<void()> handler) {
    pw_thread_loop_lock(loop_);
    changeHandler_ = std::move(handler);
    pw_thread_loop_unlock(loop_);
}

void PipeWireConnection::changedLocked() {
    // One process object per pid: a new pid gets a new ID, a pid without clients loses its own. The
    // service's and its workers' own processes are none: their sound is never an application's.
    std::set<pid_t> own;
    for (const auto& [id, client] : graph_.clients)
        if (auto app = client.props.find("application.id");
            app != client.props.end() && app->second == serviceBundleIdentifier)
            own.insert(client.pid());
    std::map<pid_t, AudioObjectID> processes;
    for (const auto& [id, client] : graph_.clients) {
        const pid_t pid = client.pid();
        if (pid <= 0 || processes.count(pid) || own.count(pid))
            continue;
        auto it = graph_.processIDs.find(pid);
        processes[pid] = it != graph_.processIDs.end() ? it->second : allocateID();
    }
    graph_.processIDs = std::move(processes);
    for (auto& [id, node] : graph_.nodes) {
        node.mediaClassValue = node.prop("media.class");
        const auto* client = graph_.clientOfNode(node);
        node.pid = client && client->pid() > 0
                       ? client->pid()
                       : static_cast<pid_t>(std::atoi(node.prop("application.process.id").c_str()));
    }
    graphChanged_.notify_all();
    if (changeHandler_)
        changeHandler_();
}

bool PipeWireConnection::waitUntil(const std::function<bool(const PipeWireGraph&)>& pred,
                                   std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(graphMutex_);
    return graphChanged_.wait_for(lock, timeout, [&] { return pred(graph_); });
}

bool PipeWireConnection::roundTrip(std::chrono::milliseconds timeout) {
    pw_thread_loop_lock(loop_);
    if (!core_) {
        pw_thread_loop_unlock(loop_);
        return false;
    }
    const int seq = pw_core_sync(core_, PW_ID_CORE, 0);
    pw_thread_loop_unlock(loop_);
    std::unique_lock<std::mutex> lock(graphMutex_);
    return graphChanged_.wait_for(lock, timeout, [&] { return doneSeq_ >= seq || !graph_.connected; }) &&
           graph_.connected;
}

bool PipeWireConnection::setNodeProps(std::uint32_t globalID, const std::vector<float>* volumes,
                                      const bool* mute) {
    pw_thread_loop_lock(loop_);
    auto it = bound_.find(globalID);
    if (it == bound_.end() || it->second->kind != Kind::node) {
        pw_thread_loop_unlock(loop_);
        return false;
    }
    std::uint8_t buffer[1024];
    spa_pod_builder b = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
    spa_pod_frame frame;
    spa_pod_builder_push_object(&b, &frame, SPA_TYPE_OBJECT_Props, SPA_PARAM_Props);
    if (volumes) {
        spa_pod_builder_prop(&b, SPA_PROP_channelVolumes, 0);
        spa_pod_builder_array(&b, sizeof(float), SPA_TYPE_Float, static_cast<std::uint32_t>(volumes->size()),
                              volumes->data());
    }
    if (mute) {
        spa_pod_builder_prop(&b, SPA_PROP_mute, 0);
        spa_pod_builder_bool(&b, *mute);
    }
    auto* pod = static_cast<spa_pod*>(spa_pod_builder_pop(&b, &frame));
    pw_node_set_param(reinterpret_cast<pw_node*>(it->second->proxy), SPA_PARAM_Props, 0, pod);
    pw_thread_loop_unlock(loop_);
    return true;
}

bool PipeWireConnection::setMetadata(const std::string& metadataName, std::uint32_t subject,
                                     const std::string& key, const char* type, const char* value) {
    pw_thread_loop_lock(loop_);
    auto named = metadataByName_.find(metadataName);
    const bool found = named != metadataByName_.end() && bound_.count(named->second);
    if (found)
        pw_metadata_set_property(reinterpret_cast<pw_metadata*>(bound_[named->second]->proxy), subject,
                                 key.c_str(), value ? type : nullptr, value);
    pw_thread_loop_unlock(loop_);
    return found;
}

std::uint64_t PipeWireConnection::loadModule(const std::string& name, const std::string& arguments,
                                             std::string& error) {
    pw_thread_loop_lock(loop_);
    pw_impl_module* module = pw_context_load_module(context_, name.c_str(), arguments.c_str(), nullptr);
    std::uint64_t handle = 0;
    if (!module) {
        error = name + " did not load: " + std::strerror(errno);
    } else {
        auto entry = std::make_unique<Module>();
        entry->owner = this;
        entry->handle = handle = nextModule_++;
        entry->module = module;
        static const pw_impl_module_events events = [] {
            pw_impl_module_events e{};
            e.version = PW_VERSION_IMPL_MODULE_EVENTS;
            // The module ends itself when its connection to the server breaks.
            e.destroy = [](void* data) {
                auto* m = static_cast<Module*>(data);
                spa_hook_remove(&m->hook);
                m->owner->modules_.erase(m->handle);
            };
            return e;
        }();
        pw_impl_module_add_listener(module, &entry->hook, &events, entry.get());
        modules_.emplace(handle, std::move(entry));
    }
    pw_thread_loop_unlock(loop_);
    return handle;
}

void PipeWireConnection::unloadModule(std::uint64_t handle) {
    pw_thread_loop_lock(loop_);
    if (auto it = modules_.find(handle); it != modules_.end())
        pw_impl_module_destroy(it->second->module); // the destroy event forgets it
    pw_thread_loop_unlock(loop_);
}

bool PipeWireConnection::moduleLoaded(std::uint64_t handle) const {
    pw_thread_loop_lock(loop_);
    const bool loaded = modules_.count(handle) != 0;
    pw_thread_loop_unlock(loop_);
    return loaded;
}

void PipeWireConnection::fenceDataThread() {
    pw_data_loop* data = context_ ? pw_context_get_data_loop(context_) : nullptr;
    if (!data)
        return;
    // A blocking invoke runs between two callbacks of the data thread (or at once on it).
    pw_loop_invoke(
        pw_data_loop_get_loop(data),
        [](spa_loop*, bool, std::uint32_t, const void*, std::size_t, void*) { return 0; }, 0, nullptr, 0, true,
        nullptr);
}

void PipeWireConnection::withCore(const std::function<void(pw_core*)>& f) {
    pw_thread_loop_lock(loop_);
    f(core_);
    pw_thread_loop_unlock(loop_);
}

} // namespace tonavi
