#include "audio/headphone/ParametricFilter.hpp"

namespace kavore {

std::string_view ParametricFilter::kindName(Kind kind) {
    switch (kind) {
    case Kind::peaking:
        return "peaking";
    case Kind::lowShelf:
        return "lowShelf";
    case Kind::highShelf:
        return "highShelf";
    }
    return "peaking";
}

std::optional<ParametricFilter::Kind> ParametricFilter::kindFromName(std::string_view name) {
    for (const Kind kind : {Kind::peaking, Kind::lowShelf, Kind::highShelf}) {
        if (kindName(kind) == name) {
            return kind;
        }
    }
    return std::nullopt;
}

} // namespace kavore
