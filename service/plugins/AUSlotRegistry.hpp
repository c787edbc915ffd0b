#pragma once
// Reconciles the plug-in slots a worker's chains want with the live units, loading in the
// background. While a slot loads it has no host, and the chain passes its audio through.
//
// An `audioUnit` slot's plug-in parameters live in its `settingsJSON` as {"parameters": {symbol:
// value}}, applied over the state its `audioUnitPreset` holds; either changing on a ready host is
// applied live, without a reload. `lock` guards the three maps and is never held while plug-in code
// runs; a load's token keeps a stale load from landing.

#include "audio/chain/ChainSettings.hpp"
#include "service/plugins/AUHostedEffect.hpp"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tonavi {

class PluginHost;

class AUSlotRegistry : public std::enable_shared_from_this<AUSlotRegistry> {
  public:
    struct Wanted {
        kavore::AUComponentKey key;
        std::optional<std::vector<std::uint8_t>> preset;
        AUHostedEffect::Parameters parameters;
        bool operator==(const Wanted&) const = default;
    };
    using Instantiate = std::function<AUHostedEffect::Instantiation(const kavore::AUComponentKey&, double)>;
    using Dispatch = std::function<void(std::function<void()>)>;
    using OnFailure = std::function<void(const std::string& slotID, const std::string& message)>;

    static constexpr double instantiateTimeoutSeconds = 30.0;

    // `dispatch` runs load tasks; by default on the global background queue.
    static std::shared_ptr<AUSlotRegistry> make(Instantiate instantiate, Dispatch dispatch = {});
    // Loads through the platform's plug-in host, each at most `timeoutSeconds`.
    static Instantiate platformInstantiate(std::shared_ptr<PluginHost> host,
                                           double timeoutSeconds = instantiateTimeoutSeconds);

    void setOnFailure(OnFailure onFailure);
    // Off the audio thread.
    void sync(const std::vector<kavore::ChainSettings>& chains, double sampleRate);
    // The live host of a slot, for rendering and latency; nothing while it loads or after it failed
    // to load.
    std::shared_ptr<AUHostedEffect> host(const std::string& slotID);
    // Off the audio thread: reports render failures recorded since the last call, once each.
    void deliverFailures();

    static AUHostedEffect::Parameters parametersOf(const kavore::EffectSlot& slot);

  private:
    struct Load {
        Wanted request;
        std::uint64_t token = 0;
    };

    AUSlotRegistry(Instantiate instantiate, Dispatch dispatch);
    void runLoad(const std::string& slotID, const Wanted& wanted, std::uint64_t token, double sampleRate);
    void fail(const std::string& slotID, const std::string& message);

    const Instantiate instantiate_;
    const Dispatch dispatch_;
    std::mutex lock_; // "AUSlotRegistry.lock": hosts_, active_, loading_, retired_, nextToken_
    std::map<std::string, std::shared_ptr<AUHostedEffect>, std::less<>> hosts_;
    std::map<std::string, Wanted, std::less<>> active_;
    std::map<std::string, Load, std::less<>> loading_;
    // Hosts taken out at the previous sync: a render that looked one up just before may still hold
    // it, and its last reference must not be dropped on the audio thread.
    std::vector<std::shared_ptr<AUHostedEffect>> retired_;
    std::uint64_t nextToken_ = 1;
    OnFailure onFailure_;
};

} // namespace tonavi
