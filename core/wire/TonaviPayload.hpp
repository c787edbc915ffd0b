#pragma once
// The results of the list and diagnostics requests, carried as JSON bytes in a reply's `payload`.
// Encoders throw WireEncodingError for a number that is not finite; decoders (for clients) throw
// WireDecodingError.

#include "audio/EQPreset.hpp"
#include "base/Encoding.hpp"
#include "core/config/MIDIMapping.hpp"
#include "core/wire/AudioUnitInfo.hpp"
#include "core/wire/DeviceLiveStatus.hpp"
#include "core/wire/Diagnostics.hpp"
#include "core/wire/InstalledApp.hpp"
#include "core/wire/RunningApp.hpp"

#include <span>
#include <string>
#include <vector>

namespace tonavi::TonaviPayload {

// diagnostics
Bytes encode(const Diagnostics& diagnostics);
// listDevices, listBluetooth
Bytes encode(const std::vector<DeviceLiveStatus>& devices);
// listConfigs: the names
Bytes encode(const std::vector<std::string>& names);
// listEQPresets
Bytes encode(const std::vector<kavore::EQPreset>& presets);
// listInstalledApps
Bytes encode(const std::vector<InstalledApp>& apps);
// listRunningAudioApps
Bytes encode(const std::vector<RunningApp>& apps);
// scanAudioUnits, listAudioUnits
Bytes encode(const std::vector<AudioUnitInfo>& units);
// listMIDIMappings
Bytes encode(const std::vector<MIDIMapping>& mappings);

Diagnostics decodeDiagnostics(std::span<const std::uint8_t> bytes);
std::vector<DeviceLiveStatus> decodeDevices(std::span<const std::uint8_t> bytes);
std::vector<std::string> decodeNames(std::span<const std::uint8_t> bytes);
std::vector<kavore::EQPreset> decodeEQPresets(std::span<const std::uint8_t> bytes);
std::vector<InstalledApp> decodeInstalledApps(std::span<const std::uint8_t> bytes);
std::vector<RunningApp> decodeRunningApps(std::span<const std::uint8_t> bytes);
std::vector<AudioUnitInfo> decodeAudioUnits(std::span<const std::uint8_t> bytes);
std::vector<MIDIMapping> decodeMIDIMappings(std::span<const std::uint8_t> bytes);

} // namespace tonavi::TonaviPayload
