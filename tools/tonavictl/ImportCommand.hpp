#pragma once
// `tonavictl import [--sources FILE] [--preferences FILE] [--yes]`: reads a SoundSource mixer (by
// default from the places it has on a Mac, under the home folder, for a user who copied them over),
// prints what maps and what does not, asks before replacing the current setup, and sends the result
// as `importConfiguration`. The service's current configuration is the base, so what SoundSource does
// not describe (devices, locks, scenes, other apps) stays as it is.

#include "core/import/SoundSourceImporter.hpp"

#include <string>

namespace tonavi {

// What would change, as the lines printed before the question.
std::string describeImport(const SoundSourceImportResult& result);

// argv[0] is "import". Exit status: 0 imported, 1 refused, declined or nothing to read, 2 the service
// cannot be reached, 64 usage.
int runImportCommand(int argc, char** argv);

} // namespace tonavi
