#include "platform/lv2/LV2PluginHost.hpp"

#include <lilv/lilv.h>
#include <lv2/atom/atom.h>
#include <lv2/state/state.h>
#include <lv2/urid/urid.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>

namespace tonavi {

const PluginParameter* PluginDescription::parameter(std::string_view symbol) const {
    for (const auto& p : parameters)
        if (p.symbol == symbol)
            return &p;
    return nullptr;
}

PluginCodes pluginCodes(std::string_view uri) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (const unsigned char c : uri) {
        hash ^= c;
        hash *= 0x100000001b3ULL;
    }
    return {static_cast<std::uint32_t>(hash >> 32), static_cast<std::uint32_t>(hash)};
}

namespace {

// Owns a lilv node and frees it.
struct Node {
    LilvNode* node;
    explicit Node(LilvNode* n) : node(n) {}
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;
    ~Node() {
        if (node)
            lilv_node_free(node);
    }
};

std::string text(const LilvNode* node) {
    if (!node)
        return {};
    const char* s = lilv_node_as_string(node);
    return s ? s : "";
}

enum class PortRole { audioIn, audioOut, controlIn, controlOut, optional, unsupported };

} // namespace

// lilv names the blank nodes of every file it reads from one static buffer shared by all worlds, so
// reading descriptions is serialised across worlds: "lilvFilesLock", taken after a world's own lock
// and never held across a plug-in's own code (instantiate, run, state).
static std::mutex& lilvFilesLock() {
    static std::mutex lock;
    return lock;
}

// One lilv world and the URIDs of its plug-ins (they map in instantiate and state calls, never in
// run). lilv loads descriptions lazily and is not thread-safe: every call into the world, and every
// instantiate and state call, holds `lilvLock`; render does not touch the world.
class LV2World {
  public:
    LV2World() : world(lilv_world_new()) {
        std::lock_guard files(lilvFilesLock());
        lilv_world_load_all(world);
        audioPort = lilv_new_uri(world, LV2_CORE__AudioPort);
        controlPort = lilv_new_uri(world, LV2_CORE__ControlPort);
        inputPort = lilv_new_uri(world, LV2_CORE__InputPort);
        outputPort = lilv_new_uri(world, LV2_CORE__OutputPort);
        connectionOptional = lilv_new_uri(world, LV2_CORE__connectionOptional);
        map.handle = this;
        map.map = [](LV2_URID_Map_Handle h, const char* uri) { return static_cast<LV2World*>(h)->idOf(uri); };
        unmap.handle = this;
        unmap.unmap = [](LV2_URID_Unmap_Handle h, LV2_URID id) { return static_cast<LV2World*>(h)->uriOf(id); };
        mapFeature = {LV2_URID__map, &map};
        unmapFeature = {LV2_URID__unmap, &unmap};
        features[0] = &mapFeature;
        features[1] = &unmapFeature;
        features[2] = nullptr;
    }
    ~LV2World() {
        for (LilvNode* n : {audioPort, controlPort, inputPort, outputPort, connectionOptional})
            lilv_node_free(n);
        lilv_world_free(world);
    }
    LV2World(const LV2World&) = delete;
    LV2World& operator=(const LV2World&) = delete;

    PortRole role(const LilvPlugin* plugin, const LilvPort* port) const {
        const bool in = lilv_port_is_a(plugin, port, inputPort);
        const bool out = lilv_port_is_a(plugin, port, outputPort);
        if (lilv_port_is_a(plugin, port, audioPort) && (in || out))
            return in ? PortRole::audioIn : PortRole::audioOut;
        if (lilv_port_is_a(plugin, port, controlPort) && (in || out))
            return in ? PortRole::controlIn : PortRole::controlOut;
        return lilv_port_has_property(plugin, port, connectionOptional) ? PortRole::optional : PortRole::unsupported;
    }

    PluginDescription describe(const LilvPlugin* plugin) {
        std::lock_guard guard(lilvLock);
        std::lock_guard files(lilvFilesLock()); // the first question about a plug-in reads its data
        PluginDescription d;
        d.uri = text(lilv_plugin_get_uri(plugin));
        Node name(lilv_plugin_get_name(plugin));
        d.name = text(name.node);
        Node maker(lilv_plugin_get_author_name(plugin));
        d.maker = text(maker.node);
        int audioIn = 0, audioOut = 0;
        std::string unsupported;
        for (std::uint32_t i = 0; i < lilv_plugin_get_num_ports(plugin); ++i) {
            const LilvPort* port = lilv_plugin_get_port_by_index(plugin, i);
            switch (role(plugin, port)) {
            case PortRole::audioIn: ++audioIn; break;
            case PortRole::audioOut: ++audioOut; break;
            case PortRole::controlIn: {
                PluginParameter p;
                p.symbol = text(lilv_port_get_symbol(plugin, port));
                Node portName(lilv_port_get_name(plugin, port));
                p.name = text(portName.node);
                LilvNode *def = nullptr, *min = nullptr, *max = nullptr;
                lilv_port_get_range(plugin, port, &def, &min, &max);
                p.minimum = min ? lilv_node_as_float(min) : 0.0f;
                p.maximum = max ? lilv_node_as_float(max) : 1.0f;
                p.defaultValue = def ? lilv_node_as_float(def) : p.minimum;
                for (LilvNode* n : {def, min, max})
                    if (n)
                        lilv_node_free(n);
                d.parameters.push_back(std::move(p));
                break;
            }
            case PortRole::controlOut:
            case PortRole::optional: break;
            case PortRole::unsupported:
                unsupported = text(lilv_port_get_symbol(plugin, port));
                break;
            }
        }
        if (!unsupported.empty())
            d.stereoProblem = "its port \"" + unsupported + "\" is neither audio nor control and must be connected";
        else if (!((audioIn == 1 && audioOut == 1) || (audioIn == 2 && audioOut == 2)))
            d.stereoProblem = "it has " + std::to_string(audioIn) + " audio inputs and " + std::to_string(audioOut) +
                              " audio outputs; only 1 and 1 (run once per channel) or 2 and 2 map to stereo";
        return d;
    }

    const LilvPlugin* find(const std::string& uri) {
        std::lock_guard guard(lilvLock);
        Node node(lilv_new_uri(world, uri.c_str()));
        return lilv_plugins_get_by_uri(lilv_world_get_all_plugins(world), node.node);
    }

    LV2_URID idOf(const char* uri) {
        std::lock_guard guard(uridLock);
        auto [it, inserted] = ids.try_emplace(uri, static_cast<LV2_URID>(ids.size() + 1));
        if (inserted)
            uris.push_back(it->first);
        return it->second;
    }
    const char* uriOf(LV2_URID id) {
        std::lock_guard guard(uridLock);
        return id >= 1 && id <= uris.size() ? uris[id - 1].c_str() : nullptr;
    }

    std::mutex lilvLock; // "LV2World.lilvLock", never held across render
    LilvWorld* world;
    LilvNode *audioPort, *controlPort, *inputPort, *outputPort, *connectionOptional;
    LV2_URID_Map map{};
    LV2_URID_Unmap unmap{};
    LV2_Feature mapFeature{}, unmapFeature{};
    const LV2_Feature* features[3];

  private:
    std::mutex uridLock; // leaf lock around the two tables
    std::map<std::string, LV2_URID, std::less<>> ids;
    std::vector<std::string> uris; // stable: map keys never move
};

namespace {

// One plug-in as a stereo unit: one instance on both channels, or one per channel.
class LV2Unit final : public PluginUnit {
  public:
    LV2Unit(std::shared_ptr<LV2World> world, const LilvPlugin* plugin, PluginDescription description)
        : world_(std::move(world)), plugin_(plugin), description_(std::move(description)) {}

    ~LV2Unit() override {
        release();
        std::lock_guard guard(world_->lilvLock);
        for (auto& c : channels_)
            lilv_instance_free(c.instance);
    }

    // Instantiates one or two instances and gives every control port its default.
    bool load(double sampleRate, std::string& error) {
        std::lock_guard guard(world_->lilvLock);
        std::unique_lock files(lilvFilesLock());
        // Reads the plug-in's data now, so that instantiate below reads no file.
        const std::uint32_t count = lilv_plugin_get_num_ports(plugin_);
        int audioIns = 0;
        for (std::uint32_t i = 0; i < count; ++i) {
            const LilvPort* port = lilv_plugin_get_port_by_index(plugin_, i);
            const PortRole r = world_->role(plugin_, port);
            roles_.push_back(r);
            symbols_.push_back(text(lilv_port_get_symbol(plugin_, port)));
            if (r == PortRole::audioIn)
                ++audioIns;
        }
        std::vector<float> defaults(count, 0.0f), mins(count, 0.0f), maxs(count, 0.0f);
        lilv_plugin_get_port_ranges_float(plugin_, mins.data(), maxs.data(), defaults.data());
        for (std::uint32_t i = 0; i < count; ++i) {
            if (std::isnan(defaults[i]))
                defaults[i] = std::isnan(mins[i]) ? 0.0f : mins[i];
            minimum_.push_back(std::isnan(mins[i]) ? -INFINITY : mins[i]);
            maximum_.push_back(std::isnan(maxs[i]) ? INFINITY : maxs[i]);
        }
        if (lilv_plugin_has_latency(plugin_))
            latencyPort_ = static_cast<int>(lilv_plugin_get_latency_port_index(plugin_));
        const int instances = audioIns == 1 ? 2 : 1;
        files.unlock(); // plug-in code runs next, and may never return
        channels_.resize(static_cast<std::size_t>(instances));
        for (auto& c : channels_) {
            c.controls = defaults;
            c.instance = lilv_plugin_instantiate(plugin_, sampleRate, world_->features);
            if (!c.instance) {
                error = "the plug-in could not be instantiated at " + std::to_string(static_cast<long>(sampleRate)) +
                        " Hz";
                return false;
            }
            for (std::uint32_t i = 0; i < count; ++i) {
                if (roles_[i] == PortRole::controlIn || roles_[i] == PortRole::controlOut)
                    lilv_instance_connect_port(c.instance, i, &c.controls[i]);
                else if (roles_[i] == PortRole::optional)
                    lilv_instance_connect_port(c.instance, i, nullptr);
            }
        }
        return true;
    }

    const PluginDescription& description() const override { return description_; }

    bool prepare(std::uint32_t, std::string&) override {
        if (!active_)
            for (auto& c : channels_)
                lilv_instance_activate(c.instance);
        active_ = true;
        return true;
    }

    void release() override {
        if (active_)
            for (auto& c : channels_)
                lilv_instance_deactivate(c.instance);
        active_ = false;
    }

    bool restoreState(std::span<const std::uint8_t> bytes, std::string& error) override {
        const std::string turtle(bytes.begin(), bytes.end());
        std::lock_guard guard(world_->lilvLock);
        LilvState* state = lilv_state_new_from_string(world_->world, &world_->map, turtle.c_str());
        if (!state) {
            error = "the preset is not an LV2 state";
            return false;
        }
        if (text(lilv_state_get_plugin_uri(state)) != description_.uri) {
            lilv_state_free(state);
            error = "the preset is the state of another plug-in";
            return false;
        }
        for (auto& c : channels_) {
            restoring_ = &c;
            lilv_state_restore(state, c.instance, &LV2Unit::setPortValue, this, 0, world_->features);
        }
        restoring_ = nullptr;
        lilv_state_free(state);
        return true;
    }

    std::vector<std::uint8_t> saveState() override {
        std::lock_guard guard(world_->lilvLock);
        LilvState* state = lilv_state_new_from_instance(plugin_, channels_[0].instance, &world_->map, nullptr,
                                                        nullptr, nullptr, nullptr, &LV2Unit::portValue, this, 0,
                                                        world_->features);
        if (!state)
            return {};
        char* turtle =
            lilv_state_to_string(world_->world, &world_->map, &world_->unmap, state, "urn:tonavi:state", nullptr);
        lilv_state_free(state);
        if (!turtle)
            return {};
        std::vector<std::uint8_t> bytes(turtle, turtle + std::char_traits<char>::length(turtle));
        lilv_free(turtle);
        return bytes;
    }

    bool setParameter(std::string_view symbol, float value) override {
        for (std::size_t i = 0; i < symbols_.size(); ++i) {
            if (roles_[i] != PortRole::controlIn || symbols_[i] != symbol)
                continue;
            if (std::isnan(value))
                return false;
            for (auto& c : channels_)
                c.controls[i] = std::clamp(value, minimum_[i], maximum_[i]);
            return true;
        }
        return false;
    }

    int render(const float* const in[2], float* const out[2], std::uint32_t frames) override {
        const std::size_t ports = roles_.size();
        if (channels_.size() == 2) {
            for (std::size_t ch = 0; ch < 2; ++ch) {
                for (std::size_t i = 0; i < ports; ++i) {
                    if (roles_[i] == PortRole::audioIn)
                        lilv_instance_connect_port(channels_[ch].instance, static_cast<std::uint32_t>(i),
                                                   const_cast<float*>(in[ch]));
                    else if (roles_[i] == PortRole::audioOut)
                        lilv_instance_connect_port(channels_[ch].instance, static_cast<std::uint32_t>(i), out[ch]);
                }
                lilv_instance_run(channels_[ch].instance, frames);
            }
        } else {
            std::size_t ins = 0, outs = 0;
            for (std::size_t i = 0; i < ports; ++i) {
                if (roles_[i] == PortRole::audioIn)
                    lilv_instance_connect_port(channels_[0].instance, static_cast<std::uint32_t>(i),
                                               const_cast<float*>(in[ins++]));
                else if (roles_[i] == PortRole::audioOut)
                    lilv_instance_connect_port(channels_[0].instance, static_cast<std::uint32_t>(i), out[outs++]);
            }
            lilv_instance_run(channels_[0].instance, frames);
        }
        for (std::size_t ch = 0; ch < 2; ++ch)
            for (std::uint32_t f = 0; f < frames; ++f)
                if (!std::isfinite(out[ch][f]))
                    return nonFiniteOutput;
        return 0;
    }

    double latencyFrames() const override {
        return latencyPort_ < 0 ? 0.0 : channels_[0].controls[static_cast<std::size_t>(latencyPort_)];
    }

  private:
    struct Channel {
        LilvInstance* instance = nullptr;
        std::vector<float> controls; // one value per port; only control ports use theirs
    };

    static const void* portValue(const char* symbol, void* self, std::uint32_t* size, std::uint32_t* type) {
        auto* unit = static_cast<LV2Unit*>(self);
        for (std::size_t i = 0; i < unit->symbols_.size(); ++i) {
            if (unit->roles_[i] == PortRole::controlIn && unit->symbols_[i] == symbol) {
                *size = sizeof(float);
                *type = unit->world_->idOf(LV2_ATOM__Float);
                return &unit->channels_[0].controls[i];
            }
        }
        *size = 0;
        *type = 0;
        return nullptr;
    }

    static void setPortValue(const char* symbol, void* self, const void* value, std::uint32_t size,
                             std::uint32_t type) {
        auto* unit = static_cast<LV2Unit*>(self);
        if (!unit->restoring_ || size != sizeof(float) || type != unit->world_->idOf(LV2_ATOM__Float))
            return;
        for (std::size_t i = 0; i < unit->symbols_.size(); ++i)
            if (unit->roles_[i] == PortRole::controlIn && unit->symbols_[i] == symbol)
                unit->restoring_->controls[i] =
                    std::clamp(*static_cast<const float*>(value), unit->minimum_[i], unit->maximum_[i]);
    }

    std::shared_ptr<LV2World> world_;
    const LilvPlugin* plugin_;
    const PluginDescription description_;
    std::vector<PortRole> roles_;
    std::vector<std::string> symbols_;
    std::vector<float> minimum_, maximum_;
    std::vector<Channel> channels_;
    Channel* restoring_ = nullptr;
    int latencyPort_ = -1;
    bool active_ = false;
};

} // namespace

std::shared_ptr<LV2World> LV2PluginHost::world() {
    std::lock_guard guard(worldLock_);
    if (!world_)
        world_ = std::make_shared<LV2World>();
    return world_;
}

std::vector<PluginDescription> LV2PluginHost::rescan() {
    auto fresh = std::make_shared<LV2World>();
    {
        std::lock_guard guard(worldLock_);
        world_ = fresh;
    }
    return plugins();
}

std::vector<PluginDescription> LV2PluginHost::plugins() {
    const auto w = world();
    std::vector<const LilvPlugin*> all;
    {
        std::lock_guard guard(w->lilvLock);
        const LilvPlugins* plugins = lilv_world_get_all_plugins(w->world);
        LILV_FOREACH(plugins, it, plugins)
        all.push_back(lilv_plugins_get(plugins, it));
    }
    std::vector<PluginDescription> result;
    for (const LilvPlugin* plugin : all)
        result.push_back(w->describe(plugin));
    return result;
}

std::optional<std::string> LV2PluginHost::find(PluginCodes codes) {
    const auto w = world();
    std::lock_guard guard(w->lilvLock);
    const LilvPlugins* plugins = lilv_world_get_all_plugins(w->world);
    LILV_FOREACH(plugins, it, plugins) {
        // The URI comes from the manifest: asking for it loads none of the plug-in's own data.
        std::string uri = text(lilv_plugin_get_uri(lilv_plugins_get(plugins, it)));
        const PluginCodes candidate = pluginCodes(uri);
        if (candidate.subtype == codes.subtype && candidate.manufacturer == codes.manufacturer)
            return uri;
    }
    return std::nullopt;
}

std::unique_ptr<PluginUnit> LV2PluginHost::instantiate(const std::string& uri, double sampleRate,
                                                       std::string& error) {
    // A world of the unit's own: instantiate runs plug-in code under the world's lock, and a plug-in
    // that never returns from it must hold up no other slot's load, nor the catalogue.
    const auto w = std::make_shared<LV2World>();
    const LilvPlugin* plugin = w->find(uri);
    if (!plugin) {
        error = "no LV2 plug-in " + uri + " is installed";
        return nullptr;
    }
    PluginDescription description = w->describe(plugin);
    if (!description.stereoProblem.empty()) {
        error = description.name + " cannot run on stereo: " + description.stereoProblem;
        return nullptr;
    }
    auto unit = std::make_unique<LV2Unit>(w, plugin, std::move(description));
    if (!unit->load(sampleRate, error))
        return nullptr;
    return unit;
}

std::shared_ptr<PluginHost> PluginHost::shared() {
    static const std::shared_ptr<PluginHost> host = std::make_shared<LV2PluginHost>();
    return host;
}

} // namespace tonavi
