#include "core/wire/RunningApp.hpp"
#include "core/wire/WireJSON.hpp"

namespace tonavi {

TONAVI_WIRE_RECORD(RunningApp, f("bundleID", r.bundleID); f("pid", r.pid); f("isRunning", r.isRunning);
                   f("secondsSinceAudio", r.secondsSinceAudio);)

} // namespace tonavi
