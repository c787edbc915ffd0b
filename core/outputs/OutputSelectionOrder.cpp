#include "core/outputs/OutputSelectionOrder.hpp"

namespace tonavi {

bool OutputSelectionOrder::accept(const std::string& clientID, std::uint64_t generation) {
    if (clientID.empty() || generation == 0)
        return false;
    if (auto known = generations.find(clientID); known != generations.end()) {
        if (known->second >= generation)
            return false;
        known->second = generation;
        return true;
    }
    if (clients.size() == maxClients) {
        generations.erase(clients.front());
        clients.erase(clients.begin());
    }
    clients.push_back(clientID);
    generations[clientID] = generation;
    return true;
}

} // namespace tonavi
