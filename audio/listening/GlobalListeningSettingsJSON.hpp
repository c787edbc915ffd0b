#pragma once
// JSON of the global listening records. Reading is tolerant: a missing or unreadable key takes its
// default and values are forced into range. A band without a readable id or kind fails, and with
// it the whole band list, which then reads as the flat layout.

#include "audio/json/JSONDecodeError.hpp"
#include "audio/listening/GlobalListeningSettings.hpp"
#include "audio/listening/ListeningBalancerSettings.hpp"
#include "audio/listening/ListeningEQBand.hpp"
#include "audio/listening/ListeningEQSettings.hpp"

#include <nlohmann/json_fwd.hpp>

namespace kavore {

nlohmann::json toJSON(ListeningFilterKind kind);

nlohmann::json toJSON(const ListeningEQBand& band);
// Raises JSONDecodeError when `id` or `kind` is missing or unreadable.
ListeningEQBand listeningEQBandFromJSON(const nlohmann::json& j);

nlohmann::json toJSON(const ListeningEQSettings& settings);
// Never raises: anything unreadable gives the flat layout.
ListeningEQSettings listeningEQSettingsFromJSON(const nlohmann::json& j);

nlohmann::json toJSON(const ListeningBalancerSettings& settings);
// Never raises.
ListeningBalancerSettings listeningBalancerSettingsFromJSON(const nlohmann::json& j);

nlohmann::json toJSON(const GlobalListeningSettings& settings);
// Never raises: input that is not an object reads as off.
GlobalListeningSettings globalListeningSettingsFromJSON(const nlohmann::json& j);

} // namespace kavore
