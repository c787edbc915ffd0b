#include "base/Log.hpp"
#include "core/wire/ControlTransport.hpp"
#include "core/wire/RawSocket.hpp"
#include "core/wire/TonaviChannel.hpp"
#include "service/TonaviControlServer.hpp"
#include "tests/service/RuntimeTestSupport.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <thread>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace tonavi;
using tonavi::testing::RuntimeHarness;
namespace fs = std::filesystem;

namespace {
class ControlServer : public ::testing::Test {
protected:
    void SetUp() override {
        dir = "/tmp/tcs-" + std::to_string(::getpid()) + "-" +
              std::to_string(reinterpret_cast<std::uintptr_t>(this) % 100000);
        fs::remove_all(dir);
        fs::create_directories(dir);
        Log::setFilePathForTesting(dir + "/test.log");
        path = dir + "/sock/control.sock";
    }
    void TearDown() override {
        if (server) server->stop();
        fs::remove_all(dir);
    }
    void startServer() {
        server = std::make_shared<TonaviControlServer>(runtime, path);
        server->start();
    }
    int connectRaw() {
        int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        RawSocket::makeAddress(path, address);
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        timeval tv = RawSocket::socketTimeout(10);
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        return fd;
    }
    std::string readLog() {
        std::ifstream in(dir + "/test.log");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    std::string dir, path;
    RuntimeHarness harness;
    TonaviRuntime& runtime = harness.start();
    std::shared_ptr<TonaviControlServer> server;
};

std::string errorOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "no error";
}
}  // namespace

TEST_F(ControlServer, AnswersPingWithVersionAndNoStatusAndSocketIsPrivate) {
    startServer();
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    TonaviReply reply = TonaviChannel::send(path, TonaviRequest::ping(), 5);
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(reply.message, "tonavi 9.9-test");
    EXPECT_NE(readLog().find("tonavi control server listening at " + path), std::string::npos);
}

TEST_F(ControlServer, StaleSocketFileIsReplacedAndStopRemovesIt) {
    fs::create_directories(fs::path(path).parent_path());
    {
        // A socket bound by a process that is gone: the file stays behind and refuses connections.
        int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        RawSocket::makeAddress(path, address);
        ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ::close(fd);
    }
    ASSERT_TRUE(fs::exists(path));
    startServer();
    EXPECT_TRUE(TonaviChannel::send(path, TonaviRequest::ping(), 5).ok);
    server->stop();
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(errorOf([&] { TonaviChannel::send(path, TonaviRequest::ping(), 1); }).rfind("cannot connect: ", 0), 0u);
    server.reset();
}

TEST_F(ControlServer, SocketPathOf104BytesIsRefusedAnd103Works) {
    std::string base = dir + "/";
    std::string p103 = base + std::string(103 - base.size(), 'a');
    path = p103 + "b";
    auto refused = std::make_shared<TonaviControlServer>(runtime, path);
    try {
        refused->start();
        FAIL() << "a 104-byte path must be refused";
    } catch (const std::system_error& e) {
        EXPECT_EQ(e.code().value(), ENAMETOOLONG);
    }
    EXPECT_NE(readLog().find("tonavi: control socket path too long (104 bytes); not starting"), std::string::npos);
    path = p103;
    startServer();
    EXPECT_TRUE(TonaviChannel::send(path, TonaviRequest::ping(), 5).ok);
}

TEST_F(ControlServer, BindFailureReportsAddressInUse) {
    // The parent is a file, so neither the folder nor the socket can be made.
    std::ofstream(dir + "/file") << "x";
    path = dir + "/file/control.sock";
    auto s = std::make_shared<TonaviControlServer>(runtime, path);
    try {
        s->start();
        FAIL();
    } catch (const std::system_error& e) {
        EXPECT_EQ(e.code().value(), EADDRINUSE);
    }
}

TEST_F(ControlServer, HalfClosedClientStillGetsItsReply) {
    startServer();
    int fd = connectRaw();
    ControlTransport::writeFrame(fd, std::string_view("{\"ping\":{}}"));
    ::shutdown(fd, SHUT_WR);
    Bytes reply = ControlTransport::readFrame(fd);
    EXPECT_EQ(decodeReply(std::string(reply.begin(), reply.end())).message, "tonavi 9.9-test");
    ::close(fd);
}

TEST_F(ControlServer, SecondFrameOnAConnectionIsNeverAnswered) {
    startServer();
    int fd = connectRaw();
    ControlTransport::writeFrame(fd, std::string_view("{\"ping\":{}}"));
    ControlTransport::writeFrame(fd, std::string_view("{\"ping\":{}}"));
    EXPECT_NO_THROW(ControlTransport::readFrame(fd));
    // Closed with the second frame unread: an orderly close or a reset, but never a second reply.
    std::string second = errorOf([&] { ControlTransport::readFrame(fd); });
    EXPECT_TRUE(second == "io error: connection closed" || second == "io error: Connection reset by peer") << second;
    ::close(fd);
}

TEST_F(ControlServer, BadInputClosesWithoutReplyAndTheNextClientIsServed) {
    startServer();
    const std::vector<std::string> bad = {"not json", "{\"ping\":{},\"status\":{}}", "", "{\"nope\":{}}"};
    for (const auto& body : bad) {
        int fd = connectRaw();
        ControlTransport::writeFrame(fd, body);
        EXPECT_EQ(errorOf([&] { ControlTransport::readFrame(fd); }), "io error: connection closed") << body;
        ::close(fd);
    }
    {
        int fd = connectRaw();
        std::uint8_t huge[4] = {0x01, 0x00, 0x00, 0x00};
        ASSERT_EQ(::write(fd, huge, 4), 4);
        EXPECT_EQ(errorOf([&] { ControlTransport::readFrame(fd); }), "io error: connection closed");
        ::close(fd);
    }
    EXPECT_TRUE(TonaviChannel::send(path, TonaviRequest::ping(), 5).ok);
    std::string log = readLog();
    EXPECT_NE(log.find("tonavi control connection error: Invalid number of keys found, expected one."),
              std::string::npos);
    EXPECT_NE(log.find("tonavi control connection error: io error: frame too large"), std::string::npos);
}

TEST_F(ControlServer, ManyConcurrentClientsAreAllServed) {
    startServer();
    std::atomic<int> ok{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < 32; ++c) {
        clients.emplace_back([&] {
            for (int i = 0; i < 20; ++i) {
                if (TonaviChannel::send(path, TonaviRequest::ping(), 10).ok) ok++;
            }
        });
    }
    for (auto& t : clients) t.join();
    EXPECT_EQ(ok.load(), 32 * 20);
}

TEST_F(ControlServer, ConnectionsBlockedOnTheRuntimeQueueNeverHoldUpOthers) {
    startServer();
    // Warm the thread pool first so that idle threads exist and must not be counted on twice.
    ASSERT_TRUE(TonaviChannel::send(path, TonaviRequest::ping(), 5).ok);
    std::promise<void> release;
    std::shared_future<void> gate = release.get_future().share();
    runtime.serialQueue().async([gate] { gate.wait(); });

    std::vector<std::future<TonaviReply>> replies;
    for (int i = 0; i < 6; ++i) {
        replies.push_back(std::async(std::launch::async, [&] { return TonaviChannel::send(path, TonaviRequest::ping(), 10); }));
    }
    // With six connection threads waiting on the held queue, a seventh connection is still read at once:
    // its bad request is refused without waiting for the queue.
    int fd = connectRaw();
    ControlTransport::writeFrame(fd, std::string_view("not json"));
    EXPECT_EQ(errorOf([&] { ControlTransport::readFrame(fd); }), "io error: connection closed");
    ::close(fd);
    for (auto& r : replies) EXPECT_EQ(r.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    release.set_value();
    for (auto& r : replies) EXPECT_TRUE(r.get().ok);
}
