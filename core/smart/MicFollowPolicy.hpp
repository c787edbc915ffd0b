#pragma once
// Which input becomes the default microphone. Used by Mic follow and by the output-only rule for
// Bluetooth headsets, whose microphone would drop their audio to the low-quality call profile.

#include "core/smart/BundleIDSet.hpp"
#include "core/wire/DeviceLiveStatus.hpp"

#include <optional>
#include <string>
#include <vector>

namespace tonavi::MicFollowPolicy {

struct InputCandidate {
    std::string uid;
    DeviceLiveStatus::Transport transport = DeviceLiveStatus::Transport::other;
    BundleIDSet relatedUIDs; // UIDs of the related devices

    bool operator==(const InputCandidate&) const = default;
};

// Drops the microphones of devices the user wants used for output only: an input whose UID is an
// output-only UID, and a Bluetooth input related to one or naming the same headset. Order is kept.
std::vector<InputCandidate> filtered(const std::vector<InputCandidate>& inputs,
                                     const BundleIDSet& outputOnlyUIDs);

// The automatic form, for a headset that must give up its microphone: Bluetooth, then USB, then
// built-in, then anything; it always finds something unless nothing is left.
std::optional<std::string> pick(const std::vector<InputCandidate>& inputs, const BundleIDSet& outputOnlyUIDs);

// Mic follow's form: the first preferred UID still available, then Bluetooth, then built-in, then
// USB. Any other kind of input is never chosen here, so the default input stays as it is. The two
// forms differ on purpose.
std::optional<std::string> pick(const std::vector<InputCandidate>& inputs, const BundleIDSet& outputOnlyUIDs,
                                const std::vector<std::string>& preferred);

} // namespace tonavi::MicFollowPolicy
