#include "audio/headphone/HeadphoneProfileJSON.hpp"

#include "audio/json/StrictJSONReader.hpp"

#include <nlohmann/json.hpp>

#include <string>

namespace kavore {

nlohmann::json toJSON(const ParametricFilter& f) {
    return {{"kind", std::string(ParametricFilter::kindName(f.kind))},
            {"freqHz", f.freqHz},
            {"gainDB", f.gainDB},
            {"q", f.q}};
}

ParametricFilter parametricFilterFromJSON(const nlohmann::json& j) {
    StrictJSONReader r(j, "ParametricFilter");
    const auto kind = ParametricFilter::kindFromName(r.string("kind"));
    if (!kind) {
        throw JSONDecodeError("ParametricFilter.kind: unknown filter kind");
    }
    ParametricFilter f;
    f.kind = *kind;
    f.freqHz = r.number("freqHz");
    f.gainDB = r.number("gainDB");
    f.q = r.number("q");
    return f;
}

nlohmann::json toJSON(const HeadphoneProfile& p) {
    nlohmann::json filters = nlohmann::json::array();
    for (const auto& f : p.filters) {
        filters.push_back(toJSON(f));
    }
    return {{"id", p.id}, {"name", p.name}, {"preampDB", p.preampDB}, {"filters", std::move(filters)}};
}

HeadphoneProfile headphoneProfileFromJSON(const nlohmann::json& j) {
    StrictJSONReader r(j, "HeadphoneProfile");
    HeadphoneProfile p;
    p.id = r.string("id");
    p.name = r.string("name");
    p.preampDB = r.number("preampDB");
    const auto& filters = r.array("filters");
    p.filters.reserve(filters.size());
    for (const auto& f : filters) {
        p.filters.push_back(parametricFilterFromJSON(f));
    }
    return p;
}

} // namespace kavore
