#pragma once
// One Core Audio client process of the simulated machine, with the sound it makes.

#include <string>
#include <sys/types.h>

#include "platform/AudioHardwareTypes.hpp"

namespace tonavi {

struct SimProcess {
    // A sine of `frequency` at `levelDB` dBFS on every channel, or nothing.
    struct Signal {
        double frequency = 440.0;
        double levelDB = -12.0;
        bool silent = false;
    };

    AudioObjectID id = 0;
    pid_t pid = 0;
    std::string bundleID;
    pid_t responsiblePID = 0; // 0: answers for itself
    bool runningOutput = false;
    bool runningInput = false;
    std::string outputDeviceUID; // empty: follows the default output
    std::string inputDeviceUID;  // empty: follows the default input
    Signal signal;

    bool isAudible() const { return runningOutput && !signal.silent; }
};

} // namespace tonavi
