#pragma once
// `tonavictl sim ...`: creates, shows and changes the simulated machine's world file, the one named by
// TONAVI_SIM_WORLD (or sim-world.json in the support folder). Every running process that shares the
// world sees each change and fires its listeners.

namespace tonavi {

// argv[0] is "sim". Exit status: 0 done, 1 refused or failed (with a message), 64 usage.
int runSimCommand(int argc, char** argv);

} // namespace tonavi
