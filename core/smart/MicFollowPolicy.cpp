#include "core/smart/MicFollowPolicy.hpp"

#include "core/outputs/BluetoothEndpointIdentity.hpp"

#include <algorithm>
#include <initializer_list>

namespace tonavi::MicFollowPolicy {

namespace {

using Transport = DeviceLiveStatus::Transport;

bool isOutputOnly(const InputCandidate& candidate, const BundleIDSet& outputOnlyUIDs) {
    const bool bluetooth = candidate.transport == Transport::bluetooth;
    return std::any_of(outputOnlyUIDs.begin(), outputOnlyUIDs.end(), [&](const std::string& o) {
        return candidate.uid == o || (bluetooth && (candidate.relatedUIDs.contains(o) ||
                                                    BluetoothEndpointIdentity::sameDevice(candidate.uid, o)));
    });
}

std::optional<std::string> firstOf(const std::vector<InputCandidate>& inputs,
                                   std::initializer_list<Transport> order) {
    for (Transport transport : order) {
        auto found = std::find_if(inputs.begin(), inputs.end(),
                                  [&](const InputCandidate& c) { return c.transport == transport; });
        if (found != inputs.end())
            return found->uid;
    }
    return std::nullopt;
}

} // namespace

std::vector<InputCandidate> filtered(const std::vector<InputCandidate>& inputs,
                                     const BundleIDSet& outputOnlyUIDs) {
    std::vector<InputCandidate> kept;
    kept.reserve(inputs.size());
    for (const auto& candidate : inputs) {
        if (!isOutputOnly(candidate, outputOnlyUIDs))
            kept.push_back(candidate);
    }
    return kept;
}

std::optional<std::string> pick(const std::vector<InputCandidate>& inputs,
                                const BundleIDSet& outputOnlyUIDs) {
    const auto usable = filtered(inputs, outputOnlyUIDs);
    if (auto found = firstOf(usable, {Transport::bluetooth, Transport::usb, Transport::builtin}))
        return found;
    if (!usable.empty())
        return usable.front().uid;
    return std::nullopt;
}

std::optional<std::string> pick(const std::vector<InputCandidate>& inputs, const BundleIDSet& outputOnlyUIDs,
                                const std::vector<std::string>& preferred) {
    const auto usable = filtered(inputs, outputOnlyUIDs);
    for (const auto& uid : preferred) {
        if (std::any_of(usable.begin(), usable.end(), [&](const InputCandidate& c) { return c.uid == uid; }))
            return uid;
    }
    return firstOf(usable, {Transport::bluetooth, Transport::builtin, Transport::usb});
}

} // namespace tonavi::MicFollowPolicy
