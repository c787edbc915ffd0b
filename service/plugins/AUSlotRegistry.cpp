#include "service/plugins/AUSlotRegistry.hpp"

#include "base/Dispatch.hpp"
#include "base/Log.hpp"
#include "service/plugins/AUCatalogue.hpp"
#include "service/plugins/AURunningSlot.hpp"

#include <nlohmann/json.hpp>

namespace tonavi {

namespace {

std::string nameOf(const kavore::AUComponentKey& key) { return key.name; }

} // namespace

AUSlotRegistry::AUSlotRegistry(Instantiate instantiate, Dispatch dispatch)
    : instantiate_(std::move(instantiate)), dispatch_(std::move(dispatch)) {}

std::shared_ptr<AUSlotRegistry> AUSlotRegistry::make(Instantiate instantiate, Dispatch dispatch) {
    if (!dispatch)
        dispatch = [](std::function<void()> work) { DispatchQueue::global(QoS::background).async(std::move(work)); };
    return std::shared_ptr<AUSlotRegistry>(new AUSlotRegistry(std::move(instantiate), std::move(dispatch)));
}

AUSlotRegistry::Instantiate AUSlotRegistry::platformInstantiate(std::shared_ptr<PluginHost> host,
                                                                double timeoutSeconds) {
    return [host = std::move(host), timeoutSeconds](const kavore::AUComponentKey& key, double sampleRate) {
        return AUHostedEffect::instantiate(
            [host, key, sampleRate]() -> AUHostedEffect::Instantiation {
                const auto uri = key.type == kavore::fourCharCode("aufx")
                                     ? host->find({key.subtype, key.manufacturer})
                                     : std::nullopt;
                if (!uri)
                    return {nullptr, "no installed plug-in has the component " + AUCatalogue::idOf(key)};
                std::string error;
                auto unit = host->instantiate(*uri, sampleRate, error);
                if (!unit)
                    return {nullptr, error};
                return {std::move(unit), std::nullopt};
            },
            std::chrono::duration<double>(timeoutSeconds));
    };
}

void AUSlotRegistry::setOnFailure(OnFailure onFailure) {
    std::lock_guard guard(lock_);
    onFailure_ = std::move(onFailure);
}

AUHostedEffect::Parameters AUSlotRegistry::parametersOf(const kavore::EffectSlot& slot) {
    AUHostedEffect::Parameters parameters;
    const auto json = nlohmann::json::parse(slot.settingsJSON.begin(), slot.settingsJSON.end(), nullptr, false);
    if (!json.is_object())
        return parameters;
    const auto it = json.find("parameters");
    if (it == json.end() || !it->is_object())
        return parameters;
    for (const auto& [symbol, value] : it->items())
        if (value.is_number())
            parameters[symbol] = value.get<double>();
    return parameters;
}

void AUSlotRegistry::sync(const std::vector<kavore::ChainSettings>& chains, double sampleRate) {
    std::map<std::string, Wanted, std::less<>> wanted;
    for (const auto& chain : chains) {
        if (chain.bypassed)
            continue;
        for (const auto& slot : chain.slots)
            if (!slot.bypassed && slot.kind == kavore::EffectKind::audioUnit && slot.auComponent)
                wanted[slot.id] = Wanted{*slot.auComponent, slot.audioUnitPreset, parametersOf(slot)};
    }

    std::vector<std::shared_ptr<AUHostedEffect>> removed;
    std::vector<std::pair<std::string, Wanted>> changed;
    std::vector<std::pair<std::string, Load>> newLoads;
    {
        std::lock_guard guard(lock_);
        retired_.clear();
        for (auto it = hosts_.begin(); it != hosts_.end();) {
            const auto w = wanted.find(it->first);
            if (w == wanted.end() || !(w->second.key == active_[it->first].key)) {
                removed.push_back(it->second);
                active_.erase(it->first);
                it = hosts_.erase(it);
            } else {
                ++it;
            }
        }
        std::erase_if(loading_, [&](const auto& entry) {
            const auto w = wanted.find(entry.first);
            return w == wanted.end() || !(w->second == entry.second.request);
        });
        for (const auto& [slotID, want] : wanted) {
            if (hosts_.contains(slotID)) {
                if (!(active_[slotID] == want))
                    changed.emplace_back(slotID, want);
            } else if (!loading_.contains(slotID)) {
                Load load{want, nextToken_++};
                loading_[slotID] = load;
                newLoads.emplace_back(slotID, std::move(load));
            }
        }
        retired_ = removed;
    }

    for (const auto& host : removed)
        host->detach();
    for (const auto& [slotID, want] : changed) {
        std::shared_ptr<AUHostedEffect> target = host(slotID);
        if (target && target->applyPresetData(want.preset, want.parameters)) {
            std::lock_guard guard(lock_);
            active_[slotID] = want;
        } else {
            Log::info("tonavi: AU could not apply live preset to " + nameOf(want.key) +
                      "; previous settings remain active");
        }
    }
    std::weak_ptr<AUSlotRegistry> weak = weak_from_this();
    for (auto& [slotID, load] : newLoads)
        dispatch_([weak, slotID, request = load.request, token = load.token, sampleRate] {
            if (auto registry = weak.lock())
                registry->runLoad(slotID, request, token, sampleRate);
        });
}

void AUSlotRegistry::runLoad(const std::string& slotID, const Wanted& wanted, std::uint64_t token,
                             double sampleRate) {
    AURunningSlot::enter(AURunningSlot::Activity::load, slotID);
    auto [unit, error] = instantiate_(wanted.key, sampleRate);
    AURunningSlot::leave(AURunningSlot::Activity::load);
    const auto stillWanted = [&] {
        const auto it = loading_.find(slotID);
        return it != loading_.end() && it->second.token == token;
    };
    {
        std::lock_guard guard(lock_);
        if (!stillWanted())
            return;
        if (!unit) {
            loading_.erase(slotID);
        }
    }
    if (!unit) {
        const std::string message = error.value_or("unknown error");
        Log::info("tonavi: AU could not load " + nameOf(wanted.key) + ": " + message);
        fail(slotID, message);
        return;
    }

    auto effect = std::make_shared<AUHostedEffect>(slotID);
    std::weak_ptr<AUSlotRegistry> weak = weak_from_this();
    effect->setOnFailure([weak, slotID, name = nameOf(wanted.key)](const std::string& reason) {
        Log::info("tonavi: AU " + name + " stopped rendering (" + reason + "); audio passing through");
        if (auto registry = weak.lock())
            registry->fail(slotID, reason);
    });
    const bool attached = effect->attach(std::move(unit), sampleRate, AUHostedEffect::maximumFramesPerRender,
                                         wanted.preset, wanted.parameters);
    {
        std::unique_lock guard(lock_);
        if (!stillWanted()) {
            guard.unlock();
            effect->detach();
            return;
        }
        loading_.erase(slotID);
        if (attached) {
            hosts_[slotID] = effect;
            active_[slotID] = wanted;
        }
    }
    if (!attached) {
        Log::info("tonavi: AU could not prepare " + nameOf(wanted.key));
        fail(slotID, effect->failureMessage());
        return;
    }
    Log::info("tonavi: AU " + nameOf(wanted.key) + " (" + wanted.key.manufacturerName + ") live on slot " + slotID +
              ", latency " + std::to_string(effect->latencySamples()) + " samples");
}

std::shared_ptr<AUHostedEffect> AUSlotRegistry::host(const std::string& slotID) {
    std::lock_guard guard(lock_);
    const auto it = hosts_.find(slotID);
    return it == hosts_.end() ? nullptr : it->second;
}

void AUSlotRegistry::deliverFailures() {
    std::vector<std::shared_ptr<AUHostedEffect>> hosts;
    {
        std::lock_guard guard(lock_);
        for (const auto& [slotID, host] : hosts_)
            hosts.push_back(host);
    }
    for (const auto& h : hosts)
        h->deliverFailure();
}

void AUSlotRegistry::fail(const std::string& slotID, const std::string& message) {
    OnFailure onFailure;
    {
        std::lock_guard guard(lock_);
        onFailure = onFailure_;
    }
    if (onFailure)
        onFailure(slotID, message);
}

} // namespace tonavi
