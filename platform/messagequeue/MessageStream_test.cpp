#include "platform/messagequeue/MessageStream.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>

#include "platform/base/sys.h"
#include "platform/foundation/Files.h"

namespace vnt {
namespace {

std::span<const std::byte> bytesOf(const std::string& text)
{
    return std::as_bytes(std::span(text.data(), text.size()));
}

std::string fileHeader()
{
    const auto header = messageStreamFileHeader();
    return {reinterpret_cast<const char*>(header.data()), header.size()};
}

std::string frame(const std::string& payload, uint32_t kind = kMessageStreamData)
{
    const auto header = messageStreamFrameHeader(bytesOf(payload), kind);
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload;
}

std::string dropped(uint64_t count)
{
    return frame({reinterpret_cast<const char*>(&count), sizeof count}, kMessageStreamDropped);
}

std::string written(const std::string& bytes)
{
    const std::string path = temporaryDirectory() + "/stream-" + sys::randomHex(4);
    EXPECT_TRUE(sys::writeFileAtomically(path, bytesOf(bytes), 0600).ok());
    return path;
}

struct Outcome {
    std::vector<std::string> messages;
    MessageStreamReader::Summary summary;
};

Outcome read(const std::string& bytes)
{
    Outcome outcome;
    auto reader = MessageStreamReader::open(written(bytes));
    EXPECT_TRUE(reader.ok()) << reader.status().message();
    outcome.summary = reader.value().forEach([&](std::span<const std::byte> message) {
        outcome.messages.emplace_back(reinterpret_cast<const char*>(message.data()), message.size());
        return true;
    });
    return outcome;
}

TEST(MessageStream, ChecksumsAsPublishedHoweverTheyAreMade)
{
    const struct {
        std::string bytes;
        uint32_t checksum;
    } rows[] = {
        {"", 0},
        {"123456789", 0xe3069283},
        {std::string(32, '\0'), 0x8a9136aa},
        {std::string(32, '\xff'), 0x62a8ab43},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(crc32c(bytesOf(row.bytes)), row.checksum) << row.bytes.size();
        EXPECT_EQ(crc32cPortable(bytesOf(row.bytes)), row.checksum) << row.bytes.size();
    }
    // Lengths around those where the fast form changes its step; in one go, and continued.
    std::string bytes;
    for (uint32_t i = 0; i < 10000; ++i)
        bytes.push_back(static_cast<char>(i * 2654435761U >> 24));
    for (const size_t size :
         {size_t{1}, size_t{7}, size_t{8}, size_t{3071}, size_t{3072}, size_t{3073}, size_t{9999}}) {
        const auto part = bytesOf(bytes).first(size);
        EXPECT_EQ(crc32c(part), crc32cPortable(part)) << size;
        EXPECT_EQ(crc32c(part.subspan(size / 3), crc32c(part.first(size / 3))), crc32cPortable(part)) << size;
    }
}

TEST(MessageStream, ReadsMessagesOfEverySizeInOrder)
{
    std::string bytes = fileHeader() + dropped(0);
    std::vector<std::string> messages;
    for (const size_t size : {size_t{0}, size_t{1}, size_t{65536}, size_t{kMaxDataMessageBytes}, size_t{7},
                              size_t{700000}, size_t{kMaxDataMessageBytes} - 1, size_t{3}}) {
        messages.push_back(std::string(size, static_cast<char>('a' + messages.size())));
        bytes += frame(messages.back());
    }
    bytes += dropped(5) + frame("last") + dropped(2);
    messages.emplace_back("last");
    const Outcome outcome = read(bytes);
    EXPECT_TRUE(outcome.messages == messages);
    EXPECT_EQ(outcome.summary.messages, messages.size());
    EXPECT_EQ(outcome.summary.dropped, 7U);
    EXPECT_EQ(outcome.summary.damagedFrames, 0U);
    EXPECT_FALSE(outcome.summary.truncated);
}

TEST(MessageStream, TruncatedAnywhereKeepsEveryWholeMessage)
{
    const std::string bytes = fileHeader() + frame("first") + frame("second");
    for (size_t size = 16; size <= bytes.size(); ++size) {
        const Outcome outcome = read(bytes.substr(0, size));
        const size_t whole = size < 16 + 21 ? 0 : size < bytes.size() ? 1 : 2;
        EXPECT_EQ(outcome.messages.size(), whole) << size;
        EXPECT_EQ(outcome.summary.truncated, size != 16 && size != 16 + 21 && size != bytes.size()) << size;
    }
}

TEST(MessageStream, DamageCostsOneFrameOrEndsTheReading)
{
    const std::string head = fileHeader() + frame("first");
    std::string flipped = frame("second");
    flipped.back() = static_cast<char>(flipped.back() ^ 1);
    std::string tooLong = frame("second");
    const uint32_t lie = kMaxDataMessageBytes + 1;
    std::memcpy(tooLong.data(), &lie, sizeof lie);
    const struct {
        const char* what;
        std::string bytes;
        size_t messages;
        uint64_t damaged;
        uint64_t unread;
        bool truncated;
    } rows[] = {
        {"flipped bit", head + flipped + frame("third"), 2, 1, 0, false},
        {"unknown kind", head + frame("second", 2) + frame("third"), 2, 1, 0, false},
        {"length past the limit", head + tooLong + frame("third"), 1, 1, 22 + 21, false},
        {"count of a wrong size", head + frame("1234", kMessageStreamDropped) + frame("third"), 1, 1, 20 + 21, false},
        {"zeros of a lost write", head + std::string(4096, '\0'), 1, 1, 4096, false},
        {"few zeros", head + std::string(7, '\0'), 1, 0, 0, true},
    };
    for (const auto& row : rows) {
        const Outcome outcome = read(row.bytes);
        EXPECT_EQ(outcome.messages.size(), row.messages) << row.what;
        EXPECT_EQ(outcome.summary.damagedFrames, row.damaged) << row.what;
        EXPECT_EQ(outcome.summary.unreadBytes, row.unread) << row.what;
        EXPECT_EQ(outcome.summary.truncated, row.truncated) << row.what;
    }
}

TEST(MessageStream, StopsWhenToldAndBeginsAnew)
{
    auto reader = MessageStreamReader::open(written(fileHeader() + frame("1") + frame("2") + frame("3"))).take();
    int seen = 0;
    EXPECT_EQ(reader.forEach([&](auto) { return ++seen < 2; }).messages, 2U);
    EXPECT_EQ(reader.forEach([](auto) { return true; }).messages, 3U);
}

TEST(MessageStream, RefusesWhatIsNoStream)
{
    std::string wrongVersion = fileHeader();
    wrongVersion[8] = 2;
    for (const std::string& bytes : {std::string(), fileHeader().substr(0, 15), std::string(64, 'x'), wrongVersion})
        EXPECT_EQ(MessageStreamReader::open(written(bytes)).code(), Code::kInvalid) << bytes.size();
    EXPECT_EQ(MessageStreamReader::open("/nonexistent/stream").code(), Code::kNotFound);
    EXPECT_EQ(MessageStreamReader::open("/").code(), Code::kInvalid);
    const std::string fifo = temporaryDirectory() + "/fifo-" + sys::randomHex(4);
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(MessageStreamReader::open(fifo).code(), Code::kInvalid); // and it returns
}

} // namespace
} // namespace vnt
