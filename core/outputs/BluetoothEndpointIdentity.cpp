#include "core/outputs/BluetoothEndpointIdentity.hpp"

namespace tonavi::BluetoothEndpointIdentity {

namespace {

std::string_view stripped(std::string_view uid) {
    for (std::string_view suffix : {std::string_view(":input"), std::string_view(":output")}) {
        if (uid.size() >= suffix.size() && uid.substr(uid.size() - suffix.size()) == suffix)
            return uid.substr(0, uid.size() - suffix.size());
    }
    return uid;
}

} // namespace

bool sameDevice(std::string_view a, std::string_view b) {
    if (a.empty() || b.empty())
        return false;
    return stripped(a) == stripped(b);
}

} // namespace tonavi::BluetoothEndpointIdentity
