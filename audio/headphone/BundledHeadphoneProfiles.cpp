#include "audio/headphone/BundledHeadphoneProfiles.hpp"

namespace kavore::BundledHeadphoneProfiles {

namespace {

ParametricFilter lowShelf(double hz, double db, double q) {
    return {ParametricFilter::Kind::lowShelf, hz, db, q};
}
ParametricFilter peaking(double hz, double db, double q) {
    return {ParametricFilter::Kind::peaking, hz, db, q};
}
ParametricFilter highShelf(double hz, double db, double q) {
    return {ParametricFilter::Kind::highShelf, hz, db, q};
}

std::vector<HeadphoneProfile> make() {
    return {
        {"builtin-airpods-pro-2",
         "Apple AirPods Pro 2",
         -1.2,
         {lowShelf(105, 0.7, 0.7), peaking(134, -1.2, 0.55), peaking(3660, 1.1, 2.57),
          peaking(5354, -1.5, 4.32), highShelf(10000, 0.6, 0.7)}},
        {"builtin-airpods-max",
         "Apple AirPods Max",
         -2.6,
         {lowShelf(105, 2.0, 0.7), peaking(727, -1.7, 1.24), peaking(3269, -2.0, 2.7),
          peaking(6320, 1.6, 3.36), highShelf(10000, 1.0, 0.7)}},
        {"builtin-sony-wh1000xm5",
         "Sony WH-1000XM5",
         -5.6,
         {lowShelf(105, -4.6, 0.7), peaking(240, -2.2, 0.61), peaking(1502, 1.6, 1.4),
          peaking(4131, 3.2, 1.68), highShelf(10000, -1.2, 0.7)}},
    };
}

} // namespace

const std::vector<HeadphoneProfile>& all() {
    static const std::vector<HeadphoneProfile> profiles = make();
    return profiles;
}

} // namespace kavore::BundledHeadphoneProfiles
