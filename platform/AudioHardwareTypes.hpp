#pragma once
// The audio hardware model the service is written against: Core Audio's objects, property
// addresses, selector codes, statuses and buffer shapes, with Core Audio's own values so that
// a macOS backend maps one to one and logs read the same everywhere.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tonavi {

using AudioObjectID = std::uint32_t;
using AudioObjectPropertySelector = std::uint32_t;
using AudioObjectPropertyScope = std::uint32_t;
using AudioObjectPropertyElement = std::uint32_t;
using OSStatus = std::int32_t;
// Identifies one IO proc on one device; 0 is no proc.
using AudioDeviceIOProcID = std::uint64_t;

constexpr std::uint32_t fourCharCode(const char (&code)[5]) {
    return (static_cast<std::uint32_t>(static_cast<unsigned char>(code[0])) << 24) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(code[1])) << 16) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(code[2])) << 8) |
           static_cast<std::uint32_t>(static_cast<unsigned char>(code[3]));
}
// 'dev#' for a printable code, else the decimal number.
std::string fourCharString(std::uint32_t code);
// The inverse for exactly four characters; 0 when the text is not four characters long.
std::uint32_t fourCharCodeFromString(const std::string& text);

struct AudioObjectPropertyAddress {
    AudioObjectPropertySelector mSelector = 0;
    AudioObjectPropertyScope mScope = 0;
    AudioObjectPropertyElement mElement = 0;
    friend bool operator==(const AudioObjectPropertyAddress&, const AudioObjectPropertyAddress&) = default;
};

constexpr AudioObjectID kAudioObjectUnknown = 0;
constexpr AudioObjectID kAudioObjectSystemObject = 1;

constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeGlobal = fourCharCode("glob");
constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeInput = fourCharCode("inpt");
constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeOutput = fourCharCode("outp");
constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeWildcard = fourCharCode("****");
constexpr AudioObjectPropertyElement kAudioObjectPropertyElementMain = 0;
constexpr AudioObjectPropertyElement kAudioObjectPropertyElementWildcard = 0xFFFFFFFF;

// System object.
constexpr AudioObjectPropertySelector kAudioHardwarePropertyDevices = fourCharCode("dev#");
constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultInputDevice = fourCharCode("dIn ");
constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultOutputDevice = fourCharCode("dOut");
constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultSystemOutputDevice = fourCharCode("sOut");
constexpr AudioObjectPropertySelector kAudioHardwarePropertyProcessObjectList = fourCharCode("prs#");

// Any object.
constexpr AudioObjectPropertySelector kAudioObjectPropertyName = fourCharCode("lnam");

// Process objects.
constexpr AudioObjectPropertySelector kAudioProcessPropertyPID = fourCharCode("ppid");
constexpr AudioObjectPropertySelector kAudioProcessPropertyBundleID = fourCharCode("pbid");
constexpr AudioObjectPropertySelector kAudioProcessPropertyDevices = fourCharCode("pdv#");
constexpr AudioObjectPropertySelector kAudioProcessPropertyIsRunningInput = fourCharCode("piri");
constexpr AudioObjectPropertySelector kAudioProcessPropertyIsRunningOutput = fourCharCode("piro");

// Devices.
constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceUID = fourCharCode("uid ");
constexpr AudioObjectPropertySelector kAudioDevicePropertyTransportType = fourCharCode("tran");
constexpr AudioObjectPropertySelector kAudioDevicePropertyStreamConfiguration = fourCharCode("slay");
constexpr AudioObjectPropertySelector kAudioDevicePropertyNominalSampleRate = fourCharCode("nsrt");
constexpr AudioObjectPropertySelector kAudioDevicePropertyBufferFrameSize = fourCharCode("fsiz");
constexpr AudioObjectPropertySelector kAudioDevicePropertyBufferFrameSizeRange = fourCharCode("fsz#");
constexpr AudioObjectPropertySelector kAudioDevicePropertyVolumeScalar = fourCharCode("volm");
constexpr AudioObjectPropertySelector kAudioHardwareServiceDeviceProperty_VirtualMainVolume =
    fourCharCode("vmvc");
constexpr AudioObjectPropertySelector kAudioDevicePropertyMute = fourCharCode("mute");
constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceIsAlive = fourCharCode("livn");
constexpr AudioObjectPropertySelector kAudioDevicePropertyRelatedDevices = fourCharCode("akin");
constexpr AudioObjectPropertySelector kAudioDevicePropertyIOProcStreamUsage = fourCharCode("suse");

// Taps.
constexpr AudioObjectPropertySelector kAudioTapPropertyUID = fourCharCode("tuid");

// Transport words of kAudioDevicePropertyTransportType.
constexpr std::uint32_t kAudioDeviceTransportTypeUnknown = 0;
constexpr std::uint32_t kAudioDeviceTransportTypeBuiltIn = fourCharCode("bltn");
constexpr std::uint32_t kAudioDeviceTransportTypeAggregate = fourCharCode("grup");
constexpr std::uint32_t kAudioDeviceTransportTypeAutoAggregate = fourCharCode("fgrp");
constexpr std::uint32_t kAudioDeviceTransportTypeVirtual = fourCharCode("virt");
constexpr std::uint32_t kAudioDeviceTransportTypePCI = fourCharCode("pci ");
constexpr std::uint32_t kAudioDeviceTransportTypeUSB = fourCharCode("usb ");
constexpr std::uint32_t kAudioDeviceTransportTypeHDMI = fourCharCode("hdmi");
constexpr std::uint32_t kAudioDeviceTransportTypeBluetooth = fourCharCode("blue");
constexpr std::uint32_t kAudioDeviceTransportTypeBluetoothLE = fourCharCode("blea");
constexpr std::uint32_t kAudioDeviceTransportTypeAirPlay = fourCharCode("airp");

// Statuses.
constexpr OSStatus kAudioHardwareNoError = 0;
constexpr OSStatus noErr = 0;
constexpr OSStatus kAudioHardwareNotRunningError = static_cast<OSStatus>(fourCharCode("stop"));
constexpr OSStatus kAudioHardwareUnspecifiedError = static_cast<OSStatus>(fourCharCode("what"));
constexpr OSStatus kAudioHardwareUnknownPropertyError = static_cast<OSStatus>(fourCharCode("who?"));
constexpr OSStatus kAudioHardwareBadPropertySizeError = static_cast<OSStatus>(fourCharCode("!siz"));
constexpr OSStatus kAudioHardwareIllegalOperationError = static_cast<OSStatus>(fourCharCode("nope"));
constexpr OSStatus kAudioHardwareBadObjectError = static_cast<OSStatus>(fourCharCode("!obj"));
constexpr OSStatus kAudioHardwareBadDeviceError = static_cast<OSStatus>(fourCharCode("!dev"));
constexpr OSStatus kAudioHardwareUnsupportedOperationError = static_cast<OSStatus>(fourCharCode("unop"));
constexpr OSStatus kAudioDeviceUnsupportedFormatError = static_cast<OSStatus>(fourCharCode("!dat"));
constexpr OSStatus kAudio_ParamError = -50;

struct AudioValueRange {
    double mMinimum = 0;
    double mMaximum = 0;
    friend bool operator==(const AudioValueRange&, const AudioValueRange&) = default;
};

// One stream of kAudioDevicePropertyStreamConfiguration: its channel count. The list is the
// AudioBufferList the property reports, without data.
struct AudioStreamConfiguration {
    std::vector<std::uint32_t> channelsPerBuffer;
    friend bool operator==(const AudioStreamConfiguration&, const AudioStreamConfiguration&) = default;
};

// kAudioDevicePropertyIOProcStreamUsage: one on/off flag per stream of the given scope for one
// IO proc. A read takes the proc from the value passed in and fills the flags.
struct AudioHardwareIOProcStreamUsage {
    AudioDeviceIOProcID mIOProc = 0;
    std::vector<std::uint32_t> mStreamIsOn;
    friend bool operator==(const AudioHardwareIOProcStreamUsage&,
                           const AudioHardwareIOProcStreamUsage&) = default;
};

// Interleaved 32-bit float samples. A stream switched off by its IO proc's stream usage has no data.
struct AudioBuffer {
    std::uint32_t mNumberChannels = 0;
    std::uint32_t mDataByteSize = 0;
    void* mData = nullptr;
};
struct AudioBufferList {
    std::span<AudioBuffer> mBuffers;
};

constexpr std::uint32_t kAudioTimeStampSampleTimeValid = 1U << 0;
constexpr std::uint32_t kAudioTimeStampHostTimeValid = 1U << 1;

struct AudioTimeStamp {
    double mSampleTime = 0;
    std::uint64_t mHostTime = 0;
    std::uint32_t mFlags = 0;
};

} // namespace tonavi
