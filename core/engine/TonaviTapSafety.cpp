#include "core/engine/TonaviTapSafety.hpp"

namespace tonavi::TonaviTapSafety {

const std::set<std::string, std::less<>>& blockedBundleIDs() {
    static const std::set<std::string, std::less<>> ids{
        "com.brelmoor.tonavi",    "com.brelmoor.kavore",       "com.brelmoor.KavoreApp",
        "com.brelmoor.TonaviApp", "com.rogueamoeba.arkaudiod",
    };
    return ids;
}

bool mayCapture(std::string_view bundleID) {
    if (blockedBundleIDs().contains(bundleID))
        return false;
    return !bundleID.starts_with("com.rogueamoeba.");
}

} // namespace tonavi::TonaviTapSafety
