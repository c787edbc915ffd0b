#pragma once
// The last output selection accepted from each client, so that a slow request that arrives after a
// newer one from the same client cannot undo it. Bounded: the client known longest is forgotten
// first, whatever it did lately.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tonavi {

struct OutputSelectionOrder {
    static constexpr std::size_t maxClients = 128;

    std::map<std::string, std::uint64_t> generations;
    std::vector<std::string> clients; // oldest first

    // False for an empty client, generation 0, or a generation not newer than the client's last.
    bool accept(const std::string& clientID, std::uint64_t generation);
    bool operator==(const OutputSelectionOrder&) const = default;
};

} // namespace tonavi
