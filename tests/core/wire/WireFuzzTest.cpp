// Arbitrary bytes through the frame reader and the request decoder: every input must end in a value or a
// typed error, never a crash, a hang or another exception type. TONAVI_FUZZ_ITERATIONS raises the count
// for longer runs by hand.

#include "core/wire/ControlTransport.hpp"
#include "core/wire/TonaviRequest.hpp"
#include "core/wire/WireError.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <sys/socket.h>
#include <unistd.h>

using namespace tonavi;

namespace {
long iterations(long fallback) {
    const char* v = std::getenv("TONAVI_FUZZ_ITERATIONS");
    return v ? std::atol(v) : fallback;
}

// Mutates a valid request so that most inputs get past the first byte of the parser.
std::string mutate(std::mt19937_64& rng) {
    static const std::string seeds[] = {"{\"ping\":{}}", "{\"ping\":{},\"status\":{}}", "{\"setAppVolume\":{\"bundleID\":\"a\",\"volume\":1}}",
                                        "{\"setLane\":{\"_0\":{\"appBundleID\":\"a\",\"deviceUID\":\"d\"}}}",
                                        "[1,2,{\"a\":\"\\u00e9\"}]", "{\"ping\":{\"x\":[1e308,-0,\"\\\\\"]}}"};
    std::string s = seeds[rng() % std::size(seeds)];
    int edits = 1 + static_cast<int>(rng() % 6);
    for (int i = 0; i < edits; ++i) {
        size_t at = s.empty() ? 0 : rng() % (s.size() + 1);
        switch (rng() % 4) {
            case 0: s.insert(s.begin() + static_cast<long>(at), static_cast<char>(rng())); break;
            case 1: if (at < s.size()) s.erase(at, 1); break;
            case 2: if (at < s.size()) s[at] = static_cast<char>(rng()); break;
            default: s = s.substr(0, at); break;
        }
    }
    return s;
}
}  // namespace

TEST(WireFuzz, RequestDecoderSurvivesArbitraryBytes) {
    std::mt19937_64 rng(20261123);
    long n = iterations(20000);
    long decoded = 0;
    for (long i = 0; i < n; ++i) {
        std::string input = mutate(rng);
        try {
            TonaviRequest r = decodeRequest(input);
            // Whatever decoded must be a case that encodes again.
            EXPECT_EQ(decodeRequest(encodeRequest(r)), r) << input;
            ++decoded;
        } catch (const WireDecodingError&) {
        }
    }
    EXPECT_GT(decoded, 0) << "the mutator should leave some inputs valid";
    RecordProperty("inputs", std::to_string(n));
}

TEST(WireFuzz, FrameReaderSurvivesArbitraryStreams) {
    std::mt19937_64 rng(7);
    long n = iterations(20000) / 10;
    for (long i = 0; i < n; ++i) {
        int fds[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        std::vector<std::uint8_t> bytes(rng() % 64);
        for (auto& b : bytes) b = static_cast<std::uint8_t>(rng());
        if (rng() % 2 && bytes.size() >= 4) bytes[0] = 0;  // often a plausible length
        ::write(fds[0], bytes.data(), bytes.size());
        ::close(fds[0]);  // the reader must end at EOF instead of waiting for more
        try {
            Bytes frame = ControlTransport::readFrame(fds[1]);
            ASSERT_GE(bytes.size(), 4u + frame.size());
            try {
                decodeRequest(frame);
            } catch (const WireDecodingError&) {
            }
        } catch (const TransportError&) {
        }
        ::close(fds[1]);
    }
}
