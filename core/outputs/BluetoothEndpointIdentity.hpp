#pragma once
// A Bluetooth headset surfaces as two devices, "X:input" and "X:output"; they are one device.

#include <string_view>

namespace tonavi::BluetoothEndpointIdentity {

// One trailing ":input" (else one ":output") is stripped from each side before comparing.
bool sameDevice(std::string_view a, std::string_view b);

} // namespace tonavi::BluetoothEndpointIdentity
