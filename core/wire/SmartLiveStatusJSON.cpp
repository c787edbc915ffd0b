#include "core/wire/SmartLiveStatus.hpp"
#include "core/wire/WireJSON.hpp"

namespace tonavi {

TONAVI_WIRE_RECORD(SmartLiveStatus, f("followMeHeroID", r.followMeHeroID);
                   f("followMeHeroName", r.followMeHeroName); f("loudnessGuardActive", r.loudnessGuardActive);
                   f("loudnessGuardOutputName", r.loudnessGuardOutputName);
                   f("autoDuckActive", r.autoDuckActive); f("autoDuckMicNames", r.autoDuckMicNames);
                   f("autoDuckCount", r.autoDuckCount); f("micFollowName", r.micFollowName);
                   f("followMeNoFront", r.followMeNoFront);)

} // namespace tonavi
