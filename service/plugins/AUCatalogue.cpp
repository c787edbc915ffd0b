#include "service/plugins/AUCatalogue.hpp"

#include "base/Log.hpp"

#include <algorithm>

namespace tonavi {

AUCatalogue::AUCatalogue(std::shared_ptr<PluginHost> host, Clock now) : host_(std::move(host)), now_(std::move(now)) {}

kavore::AUComponentKey AUCatalogue::componentKey(const PluginDescription& description) {
    const PluginCodes codes = pluginCodes(description.uri);
    return {kavore::fourCharCode("aufx"), codes.subtype, codes.manufacturer, description.name, description.maker};
}

std::string AUCatalogue::idOf(const kavore::AUComponentKey& key) {
    return std::to_string(key.type) + "-" + std::to_string(key.subtype) + "-" + std::to_string(key.manufacturer);
}

std::vector<AudioUnitInfo> AUCatalogue::rescan() {
    const double at = now_();
    std::vector<AudioUnitInfo> units;
    for (const auto& description : host_->rescan()) {
        const auto key = componentKey(description);
        units.push_back(AudioUnitInfo{idOf(key), key, false, at});
    }
    std::stable_sort(units.begin(), units.end(), [](const AudioUnitInfo& a, const AudioUnitInfo& b) {
        if (a.key.manufacturerName != b.key.manufacturerName)
            return a.key.manufacturerName < b.key.manufacturerName;
        return a.key.name < b.key.name;
    });
    units_ = std::move(units);
    lastScan_ = at;
    Log::info("tonavi: AU rescan found " + std::to_string(units_.size()) + " effects");
    return units_;
}

} // namespace tonavi
