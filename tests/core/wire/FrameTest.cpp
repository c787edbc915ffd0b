#include "core/wire/ControlTransport.hpp"
#include "core/wire/RawSocket.hpp"
#include "core/wire/TonaviRequest.hpp"
#include "core/wire/WireError.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <sys/socket.h>
#include <thread>
#include <utility>
#include <unistd.h>

using namespace tonavi;

namespace {
struct SocketPair {
    int a = -1, b = -1;
    explicit SocketPair(int type = SOCK_STREAM) {
        int fds[2];
        EXPECT_EQ(::socketpair(AF_UNIX, type, 0, fds), 0);
        a = fds[0], b = fds[1];
    }
    ~SocketPair() { ::close(a), ::close(b); } // one already closed is -1: nothing to close
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
} // namespace

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
        EXPECT_EQ(ControlTransport::readFrame(p.b), payload);
        writer.join();
    }
}

// A packet socket hands each write to one read, so the reader sees the header a byte at a time and the
// payload in pieces, every time.
TEST(ControlTransport, ReadsLoopOverHeaderBytesAndPayloadPieces) {
    SocketPair p(SOCK_SEQPACKET);
    for (const std::vector<std::uint8_t>& piece : std::vector<std::vector<std::uint8_t>>{
             {0}, {0}, {0}, {11}, {'{', '"', 'p'}, {'i', 'n', 'g', '"'}, {':', '{', '}', '}'}})
        writeRaw(p.a, piece);
    const Bytes got = ControlTransport::readFrame(p.b);
    EXPECT_EQ(std::string(got.begin(), got.end()), "{\"ping\":{}}");
}

TEST(ControlTransport, EmptyFrameClosedPeerAndTimeoutAreDistinguished) {
    {
        SocketPair p;
        ControlTransport::writeFrame(p.a, std::string_view());
        EXPECT_TRUE(ControlTransport::readFrame(p.b).empty());
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
        ::close(std::exchange(p.a, -1));
        EXPECT_THROW(ControlTransport::writeFrame(p.b, std::string_view("x")), TransportError);
    }
}

TEST(RawSocket, SocketTimeoutRoundsUpAndNeverYieldsAZeroTimeval) {
    const std::tuple<double, long, long> cases[] = {
        {0, 0, 1}, {0.0000001, 0, 1}, {-3, 0, 1}, {1.5, 1, 500000}, {2.0000001, 2, 1}};
    for (const auto& [seconds, sec, usec] : cases) {
        const timeval t = RawSocket::socketTimeout(seconds);
        EXPECT_EQ((std::pair<long, long>(t.tv_sec, t.tv_usec)), std::pair(sec, usec)) << seconds;
    }
}

TEST(RawSocket, PathLengthLimit) {
    const std::string p103 = "/tmp/" + std::string(98, 'p');
    sockaddr_un address{};
    EXPECT_TRUE(RawSocket::makeAddress(p103, address));
    EXPECT_FALSE(RawSocket::makeAddress(p103 + "q", address));
}

// Mutated requests behind a header that is sometimes damaged too: every stream ends in a request or a
// typed error, never a crash, a hang or another exception. TONAVI_FUZZ_ITERATIONS runs longer by hand.
TEST(WireFuzz, FrameReaderAndRequestDecoderEndInAValueOrATypedError) {
    const char* const seeds[] = {R"({"ping":{}})", R"({"setAppVolume":{"bundleID":"a","volume":1}})",
                                 R"({"setLane":{"_0":{"appBundleID":"a","deviceUID":"d"}}})",
                                 R"({"ping":{"x":[1e308,-0,"\u00e9\\"]}})"};
    std::mt19937 rng(20261123);
    const char* const env = std::getenv("TONAVI_FUZZ_ITERATIONS");
    const int rounds = env ? std::atoi(env) : 3000;
    int decoded = 0;
    for (int round = 0; round < rounds; ++round) {
        std::string text = seeds[rng() % std::size(seeds)];
        for (int edits = rng() % 4; edits > 0 && !text.empty(); --edits) {
            const std::size_t at = rng() % text.size(); // insert a byte, drop one, or cut the rest off
            rng() % 3 ? text.insert(at, 1, char(rng())) : text.erase(at, rng() % 2 ? 1 : std::string::npos);
        }
        std::vector<std::uint8_t> bytes{0, 0, 0, std::uint8_t(text.size())};
        bytes.insert(bytes.end(), text.begin(), text.end());
        if (rng() % 4 == 0)
            bytes[rng() % 4] = std::uint8_t(rng()); // a lying header: too long, too short or too large
        SocketPair p;
        writeRaw(p.a, bytes);
        ::close(std::exchange(p.a, -1)); // the reader must end at the close instead of waiting for more
        try {
            const Bytes frame = ControlTransport::readFrame(p.b);
            const TonaviRequest request = decodeRequest(frame);
            EXPECT_EQ(decodeRequest(encodeRequest(request)), request) << text;
            ++decoded;
        } catch (const TransportError&) {
        } catch (const WireDecodingError&) {
        }
    }
    EXPECT_GT(decoded, rounds / 50) << "the mutations should leave some requests whole";
}
