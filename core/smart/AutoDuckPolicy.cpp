#include "core/smart/AutoDuckPolicy.hpp"

namespace tonavi::AutoDuckPolicy {

BundleIDSet ducked(const BundleIDSet& audible, const BundleIDSet& capturing,
                   const BundleIDPredicate& leaveAlone) {
    BundleIDSet result;
    if (capturing.empty())
        return result;
    for (const auto& id : audible) {
        if (!capturing.contains(id) && !leaveAlone(id))
            result.insert(result.end(), id);
    }
    return result;
}

} // namespace tonavi::AutoDuckPolicy
