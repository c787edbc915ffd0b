#include "service/TonaviControlServer.hpp"

#include "base/Log.hpp"
#include "base/Paths.hpp"
#include "core/wire/ControlTransport.hpp"
#include "core/wire/RawSocket.hpp"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <mutex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace tonavi {

struct TonaviControlServer::ConnectionThreads {
    std::mutex lock;
    std::condition_variable available;
    std::deque<int> pending;  // accepted descriptors no thread has taken yet
    int idle = 0;
    // An idle thread ends after this long without work.
    static constexpr auto idleLifetime = std::chrono::seconds(30);
};

TonaviControlServer::TonaviControlServer(TonaviRuntime& runtime, std::string path)
    : runtime_(runtime), path_(std::move(path)), threads_(std::make_shared<ConnectionThreads>()) {}

void TonaviControlServer::start() {
    Paths::createDirectories(std::filesystem::path(path_).parent_path().string());
    // Safe: the caller holds the single-instance lock, so this file is a leftover, never a live server's.
    ::unlink(path_.c_str());
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::system_error(EADDRNOTAVAIL, std::generic_category());
    sockaddr_un address{};
    if (!RawSocket::makeAddress(path_, address)) {
        ::close(fd);
        Log::info("tonavi: control socket path too long (" + std::to_string(path_.size()) +
                  " bytes); not starting");
        throw std::system_error(ENAMETOOLONG, std::generic_category());
    }
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        throw std::system_error(EADDRINUSE, std::generic_category());
    }
    if (::listen(fd, 16) != 0) {
        ::close(fd);
        throw std::system_error(EADDRINUSE, std::generic_category());
    }
    ::chmod(path_.c_str(), 0600);
    listenFD_.store(fd);
    running_.store(true);
    Log::info("tonavi control server listening at " + path_);
    std::thread(acceptLoop, weak_from_this(), fd).detach();
}

void TonaviControlServer::stop() {
    running_.store(false);
    int fd = listenFD_.exchange(-1);
    if (fd >= 0) {
        // shutdown wakes an accept blocked on this descriptor; close alone does not on Linux.
        ::shutdown(fd, SHUT_RDWR);
        ::close(fd);
    }
    ::unlink(path_.c_str());
}

void TonaviControlServer::acceptLoop(std::weak_ptr<TonaviControlServer> weak, int listenFD) {
    for (;;) {
        {
            auto server = weak.lock();
            if (!server || !server->running_.load()) return;
        }
        int fd = ::accept4(listenFD, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            if (auto server = weak.lock()) {
                server->handOff(fd);
            } else {
                ::close(fd);
            }
            continue;
        }
        auto server = weak.lock();
        if (!server || !server->running_.load()) return;
        // A persistent accept failure must not spin.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void TonaviControlServer::handOff(int fd) {
    bool spawn = false;
    {
        std::lock_guard<std::mutex> guard(threads_->lock);
        threads_->pending.push_back(fd);
        // Only as many waiting descriptors as idle threads can be taken at once; start one for the rest.
        spawn = static_cast<int>(threads_->pending.size()) > threads_->idle;
    }
    if (spawn) {
        std::thread(connectionThread, weak_from_this(), threads_).detach();
    } else {
        threads_->available.notify_one();
    }
}

void TonaviControlServer::connectionThread(std::weak_ptr<TonaviControlServer> weak,
                                           std::shared_ptr<ConnectionThreads> threads) {
    std::unique_lock<std::mutex> guard(threads->lock);
    for (;;) {
        if (threads->pending.empty()) {
            ++threads->idle;
            bool woke = threads->available.wait_for(guard, ConnectionThreads::idleLifetime,
                                                    [&] { return !threads->pending.empty(); });
            --threads->idle;
            if (!woke) return;
        }
        int fd = threads->pending.front();
        threads->pending.pop_front();
        guard.unlock();
        if (auto server = weak.lock()) {
            server->serve(fd);
        } else {
            ::close(fd);
        }
        guard.lock();
    }
}

void TonaviControlServer::serve(int fd) {
    timeval tv = RawSocket::socketTimeout(connectionTimeoutSeconds);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    try {
        Bytes payload = ControlTransport::readFrame(fd);
        TonaviRequest request = decodeRequest(payload);
        // Pollers ask for the status many times a second; it is encoded once per change.
        if (std::holds_alternative<TonaviRequest::Status>(request.value))
            ControlTransport::writeFrame(fd, *runtime_.encodedStatusReply());
        else
            answer(fd, request);
    } catch (const std::exception& e) {
        Log::info(std::string("tonavi control connection error: ") + e.what());
    }
    ::close(fd);
}

void TonaviControlServer::answer(int fd, const TonaviRequest& request) {
    // The box outlives this wait: a completion that arrives after the time-out writes into it and is
    // then dropped with it.
    struct ReplyBox {
        std::mutex lock;
        std::condition_variable signal;
        bool done = false;
        TonaviReply reply = TonaviReply::failure(timeoutMessage);
    };
    auto box = std::make_shared<ReplyBox>();
    runtime_.handleAsync(request, [box](TonaviReply reply) {
        std::lock_guard<std::mutex> guard(box->lock);
        box->reply = std::move(reply);
        box->done = true;
        box->signal.notify_all();
    });
    TonaviReply reply;
    {
        std::unique_lock<std::mutex> guard(box->lock);
        box->signal.wait_for(guard, std::chrono::duration<double>(replyWaitSeconds), [&] { return box->done; });
        reply = std::move(box->reply);
    }
    // A reply the wire cannot carry still answers, as a failure that says why.
    ControlTransport::writeFrame(fd, encodeReplyOrFailure(reply));
}

}  // namespace tonavi
