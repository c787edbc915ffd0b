#include "core/wire/Diagnostics.hpp"
#include "core/wire/WireJSON.hpp"

namespace tonavi {

TONAVI_WIRE_RECORD(Diagnostics, f("version", r.version); f("timestamp", r.timestamp); f("status", r.status);
                   f("config", r.config); f("healthLog", r.healthLog); f("auCount", r.auCount);
                   f("os", r.os);)

} // namespace tonavi
