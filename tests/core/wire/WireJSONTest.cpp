#include "core/wire/TonaviReply.hpp"
#include "core/wire/TonaviRequest.hpp"
#include "core/wire/WireError.hpp"

#include <gtest/gtest.h>

using namespace tonavi;

namespace {
std::string decodeError(std::string_view json) {
    try {
        decodeRequest(json);
    } catch (const WireDecodingError& e) {
        return e.what();
    }
    return "decoded";
}
}  // namespace

TEST(TonaviRequestJSON, PingIsOneKeyHoldingAnEmptyObjectAndRoundTrips) {
    EXPECT_EQ(encodeRequest(TonaviRequest::ping()), "{\"ping\":{}}");
    EXPECT_EQ(decodeRequest("{\"ping\":{}}"), TonaviRequest::ping());
    // Unknown keys inside the case's fields are ignored.
    EXPECT_EQ(decodeRequest(" { \"ping\" : { \"extra\": 1 } } "), TonaviRequest::ping());
}

TEST(TonaviRequestJSON, WrongShapesFailWithClearErrors) {
    EXPECT_EQ(decodeError("{\"ping\":{},\"status\":{}}"), "Invalid number of keys found, expected one.");
    EXPECT_EQ(decodeError("{}"), "Invalid number of keys found, expected one.");
    EXPECT_NE(decodeError("{\"noSuchRequest\":{}}").find("noSuchRequest"), std::string::npos);
    EXPECT_NE(decodeError("[\"ping\"]"), "decoded");
    EXPECT_NE(decodeError("\"ping\""), "decoded");
    EXPECT_NE(decodeError("{\"ping\":null}"), "decoded");
    EXPECT_NE(decodeError(""), "decoded");
    EXPECT_NE(decodeError("{\"ping\":{}"), "decoded");
}

TEST(TonaviReplyJSON, MessageAlwaysPresentOptionalsOmittedPayloadBase64) {
    EXPECT_EQ(encodeReply(TonaviReply::success()), "{\"message\":\"\",\"ok\":true}");
    TonaviReply withPayload = TonaviReply::success("done");
    withPayload.payload = Bytes{'[', '1', ']'};
    std::string text = encodeReply(withPayload);
    EXPECT_NE(text.find("\"payload\":\"WzFd\""), std::string::npos) << text;
    EXPECT_EQ(text.find("null"), std::string::npos);
    EXPECT_EQ(decodeReply(text), withPayload);

    // Absent or null optional fields decode as absent; a missing message does not decode.
    EXPECT_EQ(decodeReply("{\"ok\":false,\"message\":\"x\",\"payload\":null,\"status\":{}}"), TonaviReply::failure("x"));
    EXPECT_THROW(decodeReply("{\"ok\":true}"), WireDecodingError);
    EXPECT_THROW(decodeReply("{\"ok\":true,\"message\":\"\",\"payload\":\"***\"}"), WireDecodingError);
}
