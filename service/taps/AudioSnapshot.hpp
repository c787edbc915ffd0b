#pragma once
// One reading of every Core Audio client process: who plays or records, which app answers for
// each process object, and each app's process group. Made off the runtime's queue and handed to it
// whole, so that a slow audio daemon never stalls control requests.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/AudioHardwareTypes.hpp"
#include "service/taps/TapProcessIdentity.hpp"

namespace tonavi {

struct AudioSnapshot {
    struct Process {
        std::string bundleID; // the process's own ID, not its owner's
        std::int32_t pid = 0;
        bool isRunning = false; // running output
        friend bool operator==(const Process&, const Process&) = default;
    };
    struct Activity {
        bool playing = false;
        bool capturing = false;
        friend bool operator==(const Activity&, const Activity&) = default;
    };

    std::vector<Process> processes;
    std::map<std::string, Activity> resolved;            // by owning app
    std::map<AudioObjectID, std::string> ownersByObject; // process object to owning app
    std::map<std::string, TapProcessIdentity> groups;    // by owning app

    // Owning apps whose processes play now.
    std::vector<std::string> playingBundleIDs() const;

    friend bool operator==(const AudioSnapshot&, const AudioSnapshot&) = default;
};

} // namespace tonavi
