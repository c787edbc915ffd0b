#pragma once
// `tonavictl plugins ...` and `tonavictl chain ...`: the installed effect plug-ins, and an
// application's chain of effects with its plug-in slots. A plug-in is named by its catalogue id or
// its name; its parameters and whether it can run on stereo come from its description, read here
// without loading it.

namespace tonavi {

// argv[0] is "plugins" or "chain". Exit status as for every command: 0, 1 refused, 2 unreachable, 64.
int runPluginCommand(int argc, char** argv);

} // namespace tonavi
