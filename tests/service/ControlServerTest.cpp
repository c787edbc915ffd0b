#include "base/Log.hpp"
#include "core/wire/ControlTransport.hpp"
#include "core/wire/RawSocket.hpp"
#include "core/wire/TonaviChannel.hpp"
#include "service/TonaviControlServer.hpp"
#include "tests/service/RuntimeTestSupport.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <future>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace tonavi;
using namespace tonavi::testing;
using ::testing::ThrowsMessage;

namespace {

class ControlServer : public ::testing::Test {
  protected:
    void TearDown() override {
        if (server)
            server->stop();
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

    RuntimeHarness harness;
    TonaviRuntime& runtime = harness.start();
    std::string dir = harness.folder.path().string(), path = dir + "/sock/control.sock";
    std::shared_ptr<TonaviControlServer> server;
};

// What a client reads on a connection the server has closed.
const auto closed = ThrowsMessage<std::exception>(std::string("io error: connection closed"));

std::string frameOf(const std::string& body) {
    return std::string{'\0', '\0', '\0', static_cast<char>(body.size())} + body;
}
} // namespace

TEST_F(ControlServer, ASocketOnlyItsOwnerMayUseAnswersOneFrameOnceAndClosesOnBadInput) {
    startServer();
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & (S_IFMT | 0777), S_IFSOCK | 0600u);
    EXPECT_TRUE(harness.logged("tonavi control server listening at " + path));
    // A half-closed client still gets its reply; a second frame in the same write is never answered.
    const std::string frame = frameOf("{\"ping\":{}}");
    int fd = connectRaw();
    ASSERT_EQ(::write(fd, (frame + frame).data(), 2 * frame.size()), ssize_t(2 * frame.size()));
    ::shutdown(fd, SHUT_WR);
    const Bytes first = ControlTransport::readFrame(fd);
    EXPECT_EQ(decodeReply(std::string(first.begin(), first.end())).message, "tonavi 9.9-test");
    EXPECT_THAT([&] { ControlTransport::readFrame(fd); },
                ThrowsMessage<std::exception>(
                    ::testing::AnyOf("io error: connection closed", "io error: Connection reset by peer")));
    ::close(fd);

    const std::string huge = {'\x01', '\0', '\0', '\0'};
    // (What the decoder refuses is the wire's own test: one refusal and one oversized frame here.)
    for (const std::string& bytes : {frameOf("{\"ping\":{},\"status\":{}}"), huge}) {
        fd = connectRaw();
        ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
        EXPECT_THAT([&] { ControlTransport::readFrame(fd); }, closed) << bytes;
        ::close(fd);
    }
    // ... and the server still answers: with its version, and no status.
    TonaviReply reply = TonaviChannel::send(path, TonaviRequest::ping(), 5);
    EXPECT_EQ(std::tuple(reply.ok, reply.message, reply.status.has_value()),
              std::tuple(true, "tonavi 9.9-test", false));
    EXPECT_TRUE(harness.logged("tonavi control connection error: io error: frame too large"));

    // A reply the wire cannot carry (a driver reports a volume that is not a number) is still answered.
    harness.edit([](SimWorld& w) {
        for (auto& [element, value] : w.deviceByUID(usb)->volumeElements)
            value = std::nanf("");
        w.deviceByUID(usb)->virtualMainVolume = std::nanf("");
        return std::string();
    });
    ASSERT_TRUE(harness.advanceUntil([&] {
        reply = TonaviChannel::send(path, TonaviRequest{TonaviRequest::Status{}}, 5);
        return !reply.ok;
    }));
    EXPECT_TRUE(reply.message.starts_with("The reply could not be encoded: cannot encode a number that is not "
                                          "finite at status.devices["))
        << reply.message;
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
        replies.push_back(std::async(std::launch::async,
                                     [&] { return TonaviChannel::send(path, TonaviRequest::ping(), 10); }));
    }
    // With six connection threads waiting on the held queue, a seventh connection is still read at once:
    // its bad request is refused without waiting for the queue.
    int fd = connectRaw();
    ControlTransport::writeFrame(fd, std::string_view("not json"));
    EXPECT_THAT([&] { ControlTransport::readFrame(fd); }, closed);
    ::close(fd);
    for (auto& r : replies)
        EXPECT_EQ(r.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    release.set_value();
    for (auto& r : replies)
        EXPECT_TRUE(r.get().ok);
}
