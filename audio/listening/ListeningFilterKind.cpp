#include "audio/listening/ListeningFilterKind.hpp"

namespace kavore {

std::string_view listeningFilterKindName(ListeningFilterKind kind) {
    switch (kind) {
    case ListeningFilterKind::highPass:
        return "highPass";
    case ListeningFilterKind::lowShelf:
        return "lowShelf";
    case ListeningFilterKind::bell:
        return "bell";
    case ListeningFilterKind::highShelf:
        return "highShelf";
    case ListeningFilterKind::lowPass:
        return "lowPass";
    }
    return "bell";
}

std::optional<ListeningFilterKind> listeningFilterKindFromName(std::string_view name) {
    if (name == "highPass")
        return ListeningFilterKind::highPass;
    if (name == "lowShelf")
        return ListeningFilterKind::lowShelf;
    if (name == "bell")
        return ListeningFilterKind::bell;
    if (name == "highShelf")
        return ListeningFilterKind::highShelf;
    if (name == "lowPass")
        return ListeningFilterKind::lowPass;
    return std::nullopt;
}

} // namespace kavore
