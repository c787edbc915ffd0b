#include "core/outputs/BluetoothEndpointIdentity.hpp"

namespace tonavi::BluetoothEndpointIdentity {

namespace {

std::string_view stripped(std::string_view uid) {
    // PipeWire names a headset's two endpoints "bluez_output.<address>.<profile>" and
    // "bluez_input.<address>.<profile>": the address is the device.
    for (std::string_view prefix : {std::string_view("bluez_output."), std::string_view("bluez_input.")})
        if (uid.starts_with(prefix)) {
            const std::string_view rest = uid.substr(prefix.size());
            return rest.substr(0, rest.find('.'));
        }
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
