#include "core/wire/ControlTransport.hpp"
#include "core/wire/RawSocket.hpp"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace tonavi;

namespace {
struct SocketPair {
    int a = -1, b = -1;
    SocketPair() {
        int fds[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        a = fds[0];
        b = fds[1];
    }
    ~SocketPair() {
        if (a >= 0) ::close(a);
        if (b >= 0) ::close(b);
    }
    void closeA() {
        ::close(a);
        a = -1;
    }
};

void writeRaw(int fd, const std::vector<std::uint8_t>& bytes) {
    ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::string ioErrorOf(int fd) {
    try {
        ControlTransport::readFrame(fd);
    } catch (const TransportError& e) {
        return e.what();
    }
    return "no error";
}
}  // namespace

TEST(ControlTransport, FrameIsBigEndianLengthThenPayload) {
    SocketPair p;
    ControlTransport::writeFrame(p.a, std::string_view("{\"ping\":{}}"));
    std::uint8_t header[4];
    ASSERT_EQ(::read(p.b, header, 4), 4);
    EXPECT_EQ(header[0], 0);
    EXPECT_EQ(header[1], 0);
    EXPECT_EQ(header[2], 0);
    EXPECT_EQ(header[3], 11);
    char body[11];
    ASSERT_EQ(::read(p.b, body, 11), 11);
    EXPECT_EQ(std::string(body, 11), "{\"ping\":{}}");
}

TEST(ControlTransport, ReaderRefusesAboveTheLimitWithoutReadingAndAcceptsTheLimit) {
    {
        SocketPair p;
        writeRaw(p.a, {0x01, 0x00, 0x00, 0x00, 'x'});
        EXPECT_EQ(ioErrorOf(p.b), "io error: frame too large");
        char left;
        EXPECT_EQ(::recv(p.b, &left, 1, MSG_DONTWAIT), 1) << "the payload must not be drained";
    }
    {
        SocketPair p;
        std::vector<std::uint8_t> payload(0xFFFFFF, 'a');
        std::thread writer([&] { ControlTransport::writeFrame(p.a, payload); });
        Bytes got = ControlTransport::readFrame(p.b);
        writer.join();
        EXPECT_EQ(got.size(), 0xFFFFFFu);
        EXPECT_EQ(got, payload);
    }
}

TEST(ControlTransport, ReadsLoopOverHeaderBytesAndPayloadPieces) {
    SocketPair p;
    std::string body = "{\"ping\":{}}";
    std::thread writer([&] {
        std::uint8_t header[4] = {0, 0, 0, static_cast<std::uint8_t>(body.size())};
        for (auto byte : header) {
            ::write(p.a, &byte, 1);
            std::this_thread::yield();
        }
        for (size_t i = 0; i < body.size(); i += 3) {
            ::write(p.a, body.data() + i, std::min<size_t>(3, body.size() - i));
            std::this_thread::yield();
        }
    });
    Bytes got = ControlTransport::readFrame(p.b);
    writer.join();
    EXPECT_EQ(std::string(got.begin(), got.end()), body);
}

TEST(ControlTransport, EmptyFrameClosedPeerAndTimeoutAreDistinguished) {
    {
        SocketPair p;
        ControlTransport::writeFrame(p.a, std::string_view());
        EXPECT_TRUE(ControlTransport::readFrame(p.b).empty());
    }
    {
        SocketPair p;
        writeRaw(p.a, {0, 0, 0, 5, 'a', 'b'});
        p.closeA();
        EXPECT_EQ(ioErrorOf(p.b), "io error: connection closed");
    }
    {
        SocketPair p;
        timeval tv = RawSocket::socketTimeout(0.05);
        ::setsockopt(p.b, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        std::string err = ioErrorOf(p.b);
        EXPECT_EQ(err.rfind("io error: ", 0), 0u) << err;
        EXPECT_NE(err, "io error: connection closed");
    }
    {
        SocketPair p;
        p.closeA();
        EXPECT_THROW(ControlTransport::writeFrame(p.b, std::string_view("x")), TransportError);
    }
}

TEST(RawSocket, SocketTimeoutNeverYieldsAZeroTimeval) {
    auto t0 = RawSocket::socketTimeout(0);
    EXPECT_EQ(t0.tv_sec, 0);
    EXPECT_EQ(t0.tv_usec, 1);
    auto tiny = RawSocket::socketTimeout(0.0000001);
    EXPECT_EQ(tiny.tv_sec, 0);
    EXPECT_EQ(tiny.tv_usec, 1);
    auto neg = RawSocket::socketTimeout(-3);
    EXPECT_EQ(neg.tv_sec, 0);
    EXPECT_EQ(neg.tv_usec, 1);
    auto t15 = RawSocket::socketTimeout(1.5);
    EXPECT_EQ(t15.tv_sec, 1);
    EXPECT_EQ(t15.tv_usec, 500000);
    auto up = RawSocket::socketTimeout(2.0000001);  // the ceiling, not truncation
    EXPECT_EQ(up.tv_sec, 2);
    EXPECT_EQ(up.tv_usec, 1);
}

TEST(RawSocket, PathLengthLimitAndNoServer) {
    std::string base = "/tmp/";
    std::string p103 = base + std::string(103 - base.size(), 'p');
    std::string p104 = p103 + "q";
    sockaddr_un address{};
    EXPECT_TRUE(RawSocket::makeAddress(p103, address));
    EXPECT_FALSE(RawSocket::makeAddress(p104, address));
    try {
        RawSocket::roundTrip(p104, {}, 1);
        FAIL();
    } catch (const TransportError& e) {
        EXPECT_STREQ(e.what(), "cannot connect: socket path too long");
    }
    try {
        RawSocket::roundTrip("/tmp/tonavi-no-such-socket-" + std::to_string(::getpid()), {}, 1);
        FAIL();
    } catch (const TransportError& e) {
        EXPECT_EQ(std::string(e.what()), "cannot connect: service not running (No such file or directory)");
        EXPECT_EQ(e.kind(), TransportError::Kind::cannotConnect);
    }
}
