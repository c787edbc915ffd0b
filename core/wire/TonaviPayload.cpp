#include "core/wire/TonaviPayload.hpp"

#include "core/wire/WireJSON.hpp"

namespace tonavi::TonaviPayload {

namespace {
template <class T> Bytes encodeValue(const T& value) {
    const std::string text = WireJSON::finishText(WireJSON::write(value));
    return Bytes(text.begin(), text.end());
}

template <class T> T decodeValue(std::span<const std::uint8_t> bytes) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return WireJSON::withContext("payload", [&] { return WireJSON::read<T>(WireJSON::parseText(text)); });
}
} // namespace

Bytes encode(const Diagnostics& diagnostics) {
    return encodeValue(diagnostics);
}
Bytes encode(const std::vector<DeviceLiveStatus>& devices) {
    return encodeValue(devices);
}
Bytes encode(const std::vector<std::string>& names) {
    return encodeValue(names);
}
Bytes encode(const std::vector<kavore::EQPreset>& presets) {
    return encodeValue(presets);
}
Bytes encode(const std::vector<InstalledApp>& apps) {
    return encodeValue(apps);
}
Bytes encode(const std::vector<RunningApp>& apps) {
    return encodeValue(apps);
}
Bytes encode(const std::vector<AudioUnitInfo>& units) {
    return encodeValue(units);
}
Bytes encode(const std::vector<MIDIMapping>& mappings) {
    return encodeValue(mappings);
}

Diagnostics decodeDiagnostics(std::span<const std::uint8_t> bytes) {
    return decodeValue<Diagnostics>(bytes);
}
std::vector<DeviceLiveStatus> decodeDevices(std::span<const std::uint8_t> bytes) {
    return decodeValue<std::vector<DeviceLiveStatus>>(bytes);
}
std::vector<std::string> decodeNames(std::span<const std::uint8_t> bytes) {
    return decodeValue<std::vector<std::string>>(bytes);
}
std::vector<kavore::EQPreset> decodeEQPresets(std::span<const std::uint8_t> bytes) {
    return decodeValue<std::vector<kavore::EQPreset>>(bytes);
}
std::vector<InstalledApp> decodeInstalledApps(std::span<const std::uint8_t> bytes) {
    return decodeValue<std::vector<InstalledApp>>(bytes);
}
std::vector<RunningApp> decodeRunningApps(std::span<const std::uint8_t> bytes) {
    return decodeValue<std::vector<RunningApp>>(bytes);
}
std::vector<AudioUnitInfo> decodeAudioUnits(std::span<const std::uint8_t> bytes) {
    return decodeValue<std::vector<AudioUnitInfo>>(bytes);
}
std::vector<MIDIMapping> decodeMIDIMappings(std::span<const std::uint8_t> bytes) {
    return decodeValue<std::vector<MIDIMapping>>(bytes);
}

} // namespace tonavi::TonaviPayload
