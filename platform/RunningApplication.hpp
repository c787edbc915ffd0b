#pragma once
// One running application as the workspace reports it (NSRunningApplication).

#include <string>
#include <sys/types.h>

namespace tonavi {

enum class ActivationPolicy { regular, accessory, prohibited };

const char* activationPolicyName(ActivationPolicy policy);
// "regular", "accessory" or "prohibited"; false for anything else.
bool activationPolicyFromName(const std::string& name, ActivationPolicy& policy);

struct RunningApplication {
    std::string bundleIdentifier;
    pid_t processIdentifier = 0;
    ActivationPolicy activationPolicy = ActivationPolicy::regular;
    std::string localizedName;
    friend bool operator==(const RunningApplication&, const RunningApplication&) = default;
};

} // namespace tonavi
