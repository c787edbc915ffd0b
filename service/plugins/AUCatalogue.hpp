#pragma once
// The effect plug-ins installed on the machine, from their descriptions alone: listing loads no
// plug-in code, so the service may do it.
//
// An LV2 plug-in is named by its URI; its component key is type "aufx" with `pluginCodes` of the URI
// as subtype and manufacturer, so its id is the same on every scan and every machine, and a key that
// came from another platform matches nothing here.

#include "core/wire/AudioUnitInfo.hpp"
#include "platform/PluginHost.hpp"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace tonavi {

class AUCatalogue {
  public:
    using Clock = std::function<double()>; // seconds since 1970

    AUCatalogue(std::shared_ptr<PluginHost> host, Clock now);

    std::vector<AudioUnitInfo> rescan();
    const std::vector<AudioUnitInfo>& units() const { return units_; }
    std::optional<double> lastScan() const { return lastScan_; }

    static kavore::AUComponentKey componentKey(const PluginDescription& description);
    // "type-subtype-manufacturer", the three codes in decimal.
    static std::string idOf(const kavore::AUComponentKey& key);

  private:
    const std::shared_ptr<PluginHost> host_;
    const Clock now_;
    std::vector<AudioUnitInfo> units_;
    std::optional<double> lastScan_;
};

} // namespace tonavi
