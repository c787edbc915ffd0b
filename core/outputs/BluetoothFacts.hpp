#pragma once
// The pure rules behind a Bluetooth device's battery, codec and signal, whichever source read them:
// signal quality from RSSI, battery levels as the system reports them, and the device's address
// as a lower-case MAC ("ac:de:48:00:11:22") from a UID or from six address bytes.

#include "core/outputs/BluetoothReading.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi::BluetoothFacts {

// At least -59 dBm is "strong", -74 to -60 "fair", -75 or less "weak"; no RSSI, no quality.
std::optional<std::string> quality(std::optional<std::int64_t> rssi);

// "75%" and "75" are 75; anything else is absent.
std::optional<std::int64_t> percent(std::string_view text);

// Earbuds last as long as their weaker side: with both sides known the smaller; otherwise the
// device's level, else its main level. A level that does not parse counts as absent.
std::optional<std::int64_t> battery(std::optional<std::string_view> left,
                                    std::optional<std::string_view> right,
                                    std::optional<std::string_view> level,
                                    std::optional<std::string_view> main);

// "AC-DE-48-00-11-22:output" gives "ac:de:48:00:11:22": the first non-empty piece between ":",
// dashes made colons, lower-cased. A UID whose first piece is no address but which carries one as
// six hexadecimal pairs joined by "_" (a Linux Bluetooth node, "bluez_output.AC_DE_48_00_11_22.1")
// gives that address.
std::string macFromUID(std::string_view uid);

// Six bytes as "%02x" joined by ":"; any other length is no address.
std::optional<std::string> macFromBytes(const std::vector<std::uint8_t>& bytes);

// BlueZ's managed objects as `busctl --json=short call org.bluez / org.freedesktop.DBus.ObjectManager
// GetManagedObjects` prints them: each org.bluez.Device1 by lower-case Address, with RSSI and the
// Percentage of org.bluez.Battery1. Anything unreadable gives an empty dictionary.
std::map<std::string, BluetoothReading> parseBlueZObjects(std::string_view json);

} // namespace tonavi::BluetoothFacts
