#include "platform/RunningApplication.hpp"

namespace tonavi {

const char* activationPolicyName(ActivationPolicy policy) {
    switch (policy) {
    case ActivationPolicy::regular:
        return "regular";
    case ActivationPolicy::accessory:
        return "accessory";
    case ActivationPolicy::prohibited:
        return "prohibited";
    }
    return "regular";
}

bool activationPolicyFromName(const std::string& name, ActivationPolicy& policy) {
    for (auto p : {ActivationPolicy::regular, ActivationPolicy::accessory, ActivationPolicy::prohibited}) {
        if (name == activationPolicyName(p)) {
            policy = p;
            return true;
        }
    }
    return false;
}

} // namespace tonavi
