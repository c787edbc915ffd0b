#pragma once
// The service's end of the control socket: one accept thread, one short-lived thread per connection,
// one request per connection.

#include "service/TonaviRuntime.hpp"

#include <atomic>
#include <memory>
#include <string>
#include <system_error>

namespace tonavi {

class TonaviControlServer : public std::enable_shared_from_this<TonaviControlServer> {
public:
    TonaviControlServer(TonaviRuntime& runtime, std::string path);

    // Throws std::system_error with a fixed code: EADDRNOTAVAIL (no socket), ENAMETOOLONG (path above 103
    // bytes), EADDRINUSE (bind or listen failed), whatever the underlying cause.
    void start();
    // The stop that the termination handler performs inline: no more accepts, listening socket closed and
    // its file removed. Connection threads are not joined.
    void stop();

    const std::string& path() const { return path_; }
    bool running() const { return running_.load(); }

    // The per-connection socket time-out and the bound on waiting for an asynchronous reply.
    static constexpr double connectionTimeoutSeconds = 15;
    static constexpr double replyWaitSeconds = 20;
    static constexpr const char* timeoutMessage = "tonavi: the request timed out after 20 seconds";

private:
    // Connection threads are kept for a while after their connection ends and reused, which saves a
    // thread creation per request. A connection never waits for a thread: when none is idle, a new
    // one starts, so a request blocked on the runtime's queue cannot hold up any other connection.
    struct ConnectionThreads;

    static void acceptLoop(std::weak_ptr<TonaviControlServer> weak, int listenFD);
    static void connectionThread(std::weak_ptr<TonaviControlServer> weak, std::shared_ptr<ConnectionThreads> threads);
    void handOff(int fd);
    void serve(int fd);
    // Hands the request to the runtime and writes its reply, or the time-out failure.
    void answer(int fd, const TonaviRequest& request);

    TonaviRuntime& runtime_;
    std::string path_;
    std::atomic<int> listenFD_{-1};
    std::atomic<bool> running_{false};
    std::shared_ptr<ConnectionThreads> threads_;
};

}  // namespace tonavi
