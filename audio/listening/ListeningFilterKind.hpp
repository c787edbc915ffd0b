#pragma once
// The filter shape of one band of the global listening equaliser.

#include <optional>
#include <string_view>

namespace kavore {

enum class ListeningFilterKind { highPass, lowShelf, bell, highShelf, lowPass };

std::string_view listeningFilterKindName(ListeningFilterKind kind);
std::optional<ListeningFilterKind> listeningFilterKindFromName(std::string_view name);

} // namespace kavore
