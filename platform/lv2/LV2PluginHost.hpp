#pragma once
// LV2 plug-ins through lilv: see PluginHost.hpp. Each rescan reads a world of its own, and so does
// each unit (reading the folders' manifests again costs milliseconds): a unit's plug-in code never
// shares lilv's state, or its lock, with another unit or the listing.

#include "platform/PluginHost.hpp"

#include <memory>
#include <mutex>

namespace tonavi {

class LV2World;

class LV2PluginHost final : public PluginHost {
  public:
    std::vector<PluginDescription> rescan() override;
    std::vector<PluginDescription> plugins() override;
    std::optional<std::string> find(PluginCodes codes) override;
    std::unique_ptr<PluginUnit> instantiate(const std::string& uri, double sampleRate, std::string& error) override;

  private:
    std::shared_ptr<LV2World> world();

    std::mutex worldLock_; // leaf lock around `world_`
    std::shared_ptr<LV2World> world_;
};

} // namespace tonavi
