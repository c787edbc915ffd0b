#include "service/worker/TapWorkerEventWriter.hpp"

#include <cerrno>
#include <unistd.h>

namespace tonavi {

void TapWorkerEventWriter::send(const TapWorkerEvent& event) {
    std::string line;
    try {
        line = event.line();
    } catch (const std::exception&) {
        return; // a message that is not UTF-8 cannot be encoded; the event is dropped
    }
    std::lock_guard guard(lock_);
    std::string_view rest = line;
    while (!rest.empty()) {
        ssize_t n = ::write(fd_, rest.data(), rest.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        rest.remove_prefix(static_cast<std::size_t>(n));
    }
}

} // namespace tonavi
