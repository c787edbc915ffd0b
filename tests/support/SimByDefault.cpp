// Linked into every test binary. Without a backend named by the environment, the platform picks the
// user's own PipeWire server when one answers: a test run on a desktop would then play into, and tap,
// the user's applications. The simulated machine is the default here; a test that wants a private
// PipeWire server names it.

#include <cstdlib>

namespace {

const bool simulatedByDefault = [] { return ::setenv("TONAVI_AUDIO_BACKEND", "sim", 0) == 0; }();

} // namespace
