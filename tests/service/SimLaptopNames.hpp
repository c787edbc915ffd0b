#pragma once
// The simulated laptop's apps and devices, by the names the tests give them.

#include <string>

namespace tonavi::testing {

inline const std::string safari = "com.apple.Safari", music = "com.apple.Music";
inline const std::string speakers = "BuiltInSpeakerDevice", builtInMic = "BuiltInMicrophoneDevice";
inline const std::string usb = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
inline const std::string budsOut = "AC-DE-48-00-11-22:output", budsIn = "AC-DE-48-00-11-22:input";

} // namespace tonavi::testing
