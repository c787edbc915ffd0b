#include "core/wire/InstalledApp.hpp"
#include "core/wire/WireJSON.hpp"

namespace tonavi {

TONAVI_WIRE_RECORD(InstalledApp, f("id", r.id); f("name", r.name); f("path", r.path);
                   f("audioCapable", r.audioCapable);)

} // namespace tonavi
