#include "audio/listening/ListeningEQBand.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kavore {

namespace {
double sanitise(double value, double lo, double hi, double fallback) {
    if (!std::isfinite(value))
        return fallback;
    return std::clamp(value, lo, hi);
}
} // namespace

ListeningEQBand::ListeningEQBand(std::string id_, ListeningFilterKind kind_, double frequencyHz_,
                                 double gainDB_, double q_, bool enabled_)
    : id(std::move(id_)), kind(kind_), frequencyHz(sanitise(frequencyHz_, 20.0, 20000.0, defaultFrequencyHz)),
      gainDB(sanitise(gainDB_, -12.0, 12.0, defaultGainDB)), q(sanitise(q_, 0.3, 8.0, defaultQ)),
      enabled(enabled_) {}

bool ListeningEQBand::changesAudio() const {
    if (!enabled)
        return false;
    if (kind == ListeningFilterKind::highPass || kind == ListeningFilterKind::lowPass)
        return true;
    return std::fabs(gainDB) > 0.01;
}

Biquad configuredBiquad(const ListeningEQBand& band, double sampleRate) {
    Biquad filter;
    const double f = std::min(band.frequencyHz, 0.45 * sampleRate);
    switch (band.kind) {
    case ListeningFilterKind::highPass:
        filter.setHighpass(f, sampleRate, band.q);
        break;
    case ListeningFilterKind::lowPass:
        filter.setLowpass(f, sampleRate, band.q);
        break;
    case ListeningFilterKind::lowShelf:
    case ListeningFilterKind::bell:
    case ListeningFilterKind::highShelf:
        if (std::fabs(band.gainDB) <= 0.01 || !(f > 0.0) || !(sampleRate > 0.0))
            break;
        if (band.kind == ListeningFilterKind::lowShelf)
            filter.setLowShelf(f, sampleRate, band.gainDB, band.q);
        else if (band.kind == ListeningFilterKind::bell)
            filter.setPeaking(f, sampleRate, band.gainDB, band.q);
        else
            filter.setHighShelf(f, sampleRate, band.gainDB, band.q);
        break;
    }
    return filter;
}

} // namespace kavore
