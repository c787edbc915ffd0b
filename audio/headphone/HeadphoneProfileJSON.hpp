#pragma once
// JSON of headphone profiles:
//   {"id": str, "name": str, "preampDB": num, "filters": [{"kind": "peaking"|"lowShelf"|"highShelf",
//    "freqHz": num, "gainDB": num, "q": num}, ...]}
// Reading is strict: every key is required, values are kept as stored, and anything else raises
// JSONDecodeError.

#include "audio/headphone/HeadphoneProfile.hpp"
#include "audio/json/JSONDecodeError.hpp"

#include <nlohmann/json_fwd.hpp>

namespace kavore {

nlohmann::json toJSON(const ParametricFilter& filter);
ParametricFilter parametricFilterFromJSON(const nlohmann::json& j);

nlohmann::json toJSON(const HeadphoneProfile& profile);
HeadphoneProfile headphoneProfileFromJSON(const nlohmann::json& j);

} // namespace kavore
