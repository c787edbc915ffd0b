#include "core/smart/AudioOnsetTrail.hpp"

#include "core/smart/AudioOnsetPolicy.hpp"

#include <algorithm>

namespace tonavi {

std::vector<std::string> AudioOnsetTrail::recordPlaybackOnsets(const BundleIDSet& current, double now,
                                                               const FrontmostSource& frontmost) {
    std::vector<std::string> lines;
    if (!playingSeeded_) {
        playingSeeded_ = true;
        previouslyPlaying_ = current;
        return lines;
    }
    for (const auto& id : AudioOnsetPolicy::newPlaying(previouslyPlaying_, current)) {
        if (auto line = noteSoundOnset(id, now, frontmost))
            lines.push_back(std::move(*line));
    }
    previouslyPlaying_ = current;
    prune(now);
    return lines;
}

std::optional<std::string> AudioOnsetTrail::noteSoundOnset(const std::string& id, double now,
                                                           const FrontmostSource& frontmost) {
    if (id != AudioOnsetPolicy::alertSourceID) {
        events_[id] = AudioOnset{id, now, AudioOnset::Kind::app, std::nullopt, std::nullopt};
        return std::nullopt;
    }
    const std::optional<std::string> front = frontmost ? frontmost() : std::nullopt;
    const std::string key(AudioOnsetPolicy::alertOnsetID);
    events_[key] = AudioOnset{key, now, AudioOnset::Kind::alert, front, std::string("macOS alert sound")};
    return "tonavi: macOS alert sound played while " + front.value_or("unknown") + " was in front";
}

void AudioOnsetTrail::noteOutputMove(const std::string& uid, const std::string& name, double now) {
    const std::string key = "output:" + uid;
    events_[key] = AudioOnset{key, now, AudioOnset::Kind::output, std::nullopt, name};
    prune(now);
}

std::vector<AudioOnset> AudioOnsetTrail::currentAudioOnsets(const std::vector<std::string>& hiddenAppIDs,
                                                            double now) const {
    std::vector<AudioOnset> shown;
    for (const auto& [id, onset] : events_) {
        const bool system = onset.kind == AudioOnset::Kind::alert || onset.kind == AudioOnset::Kind::output;
        if (system || std::find(hiddenAppIDs.begin(), hiddenAppIDs.end(), id) == hiddenAppIDs.end())
            shown.push_back(onset);
    }
    return AudioOnsetPolicy::trail(std::move(shown), now);
}

void AudioOnsetTrail::prune(double now) {
    std::erase_if(events_, [&](const auto& entry) {
        return !(now - entry.second.startedAt <= AudioOnsetPolicy::retentionWindow);
    });
}

} // namespace tonavi
