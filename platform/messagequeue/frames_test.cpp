#include "platform/messagequeue/frames.h"

#include <gtest/gtest.h>

#include "platform/messagequeue/MessageStream.h"

namespace vnt::queue {
namespace {

TEST(Frames, HeadersAreRefusedForEveryFieldThatIsWrong)
{
    constexpr auto kIn = Direction::kToServer;
    constexpr auto kOut = Direction::kToClient;
    const struct {
        const char* what;
        FrameHeader header;
        Direction direction;
        Code expected;
    } rows[] = {
        {"kind 0", {0, FrameKind{0}, 0, 1, 0}, kIn, Code::kInvalid},
        {"kind behind the last", {0, FrameKind{11}, 0, 1, 0}, kIn, Code::kInvalid},
        {"kind 65535", {0, FrameKind{65535}, 0, 1, 0}, kOut, Code::kInvalid},
        {"a reply to the server", {0, FrameKind::kReply, 0, 1, 1}, kIn, Code::kInvalid},
        {"a call to the client", {3, FrameKind::kCall, 0, 1, 1}, kOut, Code::kInvalid},
        {"flags", {3, FrameKind::kCall, 1, 1, 1}, kIn, Code::kInvalid},
        {"data, empty", {0, FrameKind::kData, 0, 1, 0}, kOut, Code::kOk},
        {"data, at the limit", {kMaxDataMessageBytes, FrameKind::kData, 0, 1, 0}, kOut, Code::kOk},
        {"data, one more", {kMaxDataMessageBytes + 1, FrameKind::kData, 0, 1, 0}, kOut, Code::kTooLarge},
        {"data, near 2^32", {0xffffffff, FrameKind::kData, 0, 1, 0}, kOut, Code::kTooLarge},
        {"data of the connection", {1, FrameKind::kData, 0, 0, 0}, kOut, Code::kInvalid},
        {"data with an id", {1, FrameKind::kData, 0, 1, 7}, kOut, Code::kInvalid},
        {"reply, at the limit", {kMaxReplyBytes, FrameKind::kReply, 0, 1, 1}, kOut, Code::kOk},
        {"reply, one more", {kMaxReplyBytes + 1, FrameKind::kReply, 0, 1, 1}, kOut, Code::kTooLarge},
        {"reply to no call", {0, FrameKind::kReply, 0, 1, 0}, kOut, Code::kInvalid},
        {"exception of a call", {2, FrameKind::kException, 0, 1, 9}, kOut, Code::kOk},
        {"exception outside any", {2, FrameKind::kException, 0, 1, 0}, kOut, Code::kOk},
        {"call without an id", {3, FrameKind::kCall, 0, 1, 0}, kIn, Code::kInvalid},
        {"call too short for a selector", {2, FrameKind::kCall, 0, 1, 1}, kIn, Code::kInvalid},
        {"call, one too large", {kMaxCallBytes + 1, FrameKind::kCall, 0, 1, 1}, kIn, Code::kTooLarge},
        {"one-way call with an id", {3, FrameKind::kOneWayCall, 0, 1, 1}, kIn, Code::kInvalid},
        {"open, no name", {0, FrameKind::kOpen, 0, 1, 0}, kIn, Code::kInvalid},
        {"open, longest name", {kMaxServiceNameBytes, FrameKind::kOpen, 0, 1, 0}, kIn, Code::kOk},
        {"open, one more", {kMaxServiceNameBytes + 1, FrameKind::kOpen, 0, 1, 0}, kIn, Code::kTooLarge},
        {"close with a payload", {1, FrameKind::kClose, 0, 1, 0}, kIn, Code::kTooLarge},
        {"close of the connection", {0, FrameKind::kClose, 0, 0, 0}, kIn, Code::kInvalid},
        {"hard stop of one service", {0, FrameKind::kHardStop, 0, 1, 0}, kIn, Code::kInvalid},
        {"hello, short", {7, FrameKind::kHello, 0, 0, 1}, kIn, Code::kInvalid},
    };
    for (const auto& row : rows)
        EXPECT_EQ(checkHeader(row.header, row.direction).code(), row.expected) << row.what;
}

TEST(Frames, CallsComeBackAsTheyWent)
{
    const Ref<Object> nested = Dictionary::create({{Number::withInt(7), String::create("seven")}});
    const std::vector<Ref<Object>> arguments{Number::withInt(-4), nullptr, String::create("\xc3\xa4"), nested};
    const auto payload = encodeCall("a:b:", arguments);
    ASSERT_TRUE(payload.ok());
    const auto call = decodeCall(payload.value());
    ASSERT_TRUE(call.ok()) << call.status().message();
    EXPECT_EQ(call.value().selector, "a:b:");
    ASSERT_EQ(call.value().arguments->count(), 4U);
    EXPECT_TRUE(equal(call.value().arguments->at(0).get(), arguments[0].get()));
    EXPECT_EQ(call.value().arguments->at(1)->typeId(), TypeId::kNull);
    EXPECT_TRUE(equal(call.value().arguments->at(3).get(), nested.get()));

    const auto bare = encodeCall("x", {});
    EXPECT_EQ(bare.value().size(), 3U);
    EXPECT_EQ(decodeCall(bare.value()).value().arguments->count(), 0U);
    EXPECT_EQ(encodeCall("", {}).code(), Code::kInvalid);
    EXPECT_TRUE(encodeCall(std::string(kMaxSelectorBytes, 's'), {}).ok());
    EXPECT_EQ(encodeCall(std::string(kMaxSelectorBytes + 1, 's'), {}).code(), Code::kInvalid);
}

TEST(Frames, TornAndLyingCallsAreRefused)
{
    auto payload = encodeCall("selector", std::vector<Ref<Object>>{String::create("argument")}).take();
    const std::span<const std::byte> whole(payload);
    for (size_t size = 0; size < whole.size(); ++size) {
        const bool selectorAlone = size == 2 + 8; // a call without arguments
        EXPECT_EQ(decodeCall(whole.first(size)).ok(), selectorAlone) << size;
    }
    payload[0] = std::byte{0xff};
    payload[1] = std::byte{0xff};
    EXPECT_FALSE(decodeCall(payload).ok());
    const auto noArray = encodeAnswer(String::create("text").get()).take();
    std::vector<std::byte> call{std::byte{1}, std::byte{0}, std::byte{'s'}};
    call.insert(call.end(), noArray.begin(), noArray.end());
    EXPECT_FALSE(decodeCall(call).ok());
}

TEST(Frames, ExceptionsAreCutToWhatFits)
{
    const std::string longText = std::string(kMaxExceptionBytes - 1, 'x') + "\xc3\xa4\xc3\xa4";
    const auto payload = encodeException(Exception("Name", longText));
    EXPECT_LE(payload.size(), kMaxExceptionBytes);
    const auto exception = decodeException(payload);
    ASSERT_TRUE(exception.ok());
    EXPECT_EQ(exception.value().name(), "Name");
    EXPECT_EQ(longText.compare(0, exception.value().reason().size(), exception.value().reason()), 0);
    const auto shortOne = encodeException(Exception("N", "\xc3\xa4"));
    EXPECT_EQ(decodeException(shortOne).value().reason(), "\xc3\xa4");
    for (size_t size = 0; size < shortOne.size(); ++size)
        EXPECT_FALSE(decodeException(std::span(shortOne).first(size)).ok()) << size;
}

} // namespace
} // namespace vnt::queue
