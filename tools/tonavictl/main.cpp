// tonavictl: a command-line client of the service's control socket.
//   tonavictl ping                    prints the reply's message
//   tonavictl send '<request JSON>'   sends any request and prints the reply JSON
//   tonavictl sim ...                 drives the simulated machine (see docs/platform.md)
// Exit status: 0 on an ok reply, 1 on a failure reply, 2 when the service cannot be reached or
// answers with something that is not a reply.

#include "core/wire/RawSocket.hpp"
#include "core/wire/TonaviChannel.hpp"
#include "core/wire/TransportError.hpp"
#include "core/wire/WireError.hpp"

#include "tools/tonavictl/SimCommand.hpp"

#include <cstdio>
#include <cstring>
#include <string>

namespace {
// Above the server's own 20-second bound, so that a slow request ends with its time-out reply.
constexpr double clientTimeoutSeconds = 25;

int usage() {
    std::fprintf(stderr,
                 "usage: tonavictl ping\n"
                 "       tonavictl send '<request JSON>'\n"
                 "       tonavictl sim <command> ...\n");
    return 2;
}

int ping() {
    try {
        tonavi::TonaviReply reply = tonavi::TonaviChannel::send(tonavi::TonaviRequest::ping(), clientTimeoutSeconds);
        std::printf("%s\n", reply.message.c_str());
        return reply.ok ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tonavictl: %s\n", e.what());
        return 2;
    }
}

int send(const std::string& requestJSON) {
    try {
        auto* bytes = reinterpret_cast<const std::uint8_t*>(requestJSON.data());
        tonavi::Bytes raw = tonavi::RawSocket::roundTrip(tonavi::TonaviChannel::socketPath(),
                                                         {bytes, requestJSON.size()}, clientTimeoutSeconds);
        std::string text(raw.begin(), raw.end());
        tonavi::TonaviReply reply = tonavi::decodeReply(text);
        std::printf("%s\n", text.c_str());
        return reply.ok ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tonavictl: %s\n", e.what());
        return 2;
    }
}
}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    std::string command = argv[1];
    if (command == "ping" && argc == 2) return ping();
    if (command == "send" && argc == 3) return send(argv[2]);
    if (command == "sim") return tonavi::runSimCommand(argc - 1, argv + 1);
    return usage();
}
