#include "core/wire/AudioUnitInfo.hpp"
#include "core/wire/WireJSON.hpp"

namespace tonavi {

TONAVI_WIRE_RECORD(AudioUnitInfo, f("id", r.id); f("key", r.key); f("favorite", r.favorite);
                   f("lastScanAt", r.lastScanAt);)

} // namespace tonavi
