#include <nlohmann/json.hpp>

#include "core/engine/HealthEvent.hpp"

namespace tonavi {

void to_json(nlohmann::json& json, const HealthEvent& event) {
    json = nlohmann::json{{"id", event.id}, {"at", event.at}, {"kind", event.kind}, {"detail", event.detail}};
}

void from_json(const nlohmann::json& json, HealthEvent& event) {
    // .at() throws on a missing key and get<> on a wrong type: every field is required.
    event.id = json.at("id").get<std::string>();
    event.at = json.at("at").get<double>();
    event.kind = json.at("kind").get<std::string>();
    event.detail = json.at("detail").get<std::string>();
}

} // namespace tonavi
