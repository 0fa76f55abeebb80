#include "platform/messagequeue/FrameReader.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <thread>

#include "platform/base/sys.h"
#include "platform/messagequeue/sockets.h"

namespace vnt::queue {
namespace {

std::string dataFrame(uint32_t channel, const std::string& payload)
{
    const FrameHeader header{static_cast<uint32_t>(payload.size()), FrameKind::kData, 0, channel, 0};
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload;
}

std::string textOf(const Frame& frame)
{
    return {reinterpret_cast<const char*>(frame.payload.data()), frame.payload.size()};
}

struct Pair {
    UniqueFd writer;
    UniqueFd reader;
    FrameReader frames;

    Pair() : Pair(sys::socketPair(SOCK_STREAM).take()) { }
    explicit Pair(std::pair<UniqueFd, UniqueFd> ends)
        : writer(std::move(ends.first)),
          reader(std::move(ends.second)),
          frames(reader.get(), Direction::kToClient)
    {
    }
    void write(const std::string& bytes) const
    {
        ASSERT_TRUE(sys::writeFully(writer.get(), bytes.data(), bytes.size()).ok());
    }
};

TEST(FrameReader, ReadsFramesSplitAtEveryByte)
{
    const std::string bytes = dataFrame(1, "first") + dataFrame(2, "") + dataFrame(3, "third");
    for (size_t split = 0; split <= bytes.size(); ++split) {
        Pair pair;
        std::vector<std::string> got;
        pair.write(bytes.substr(0, split));
        // What is complete in the first part can be read without the second.
        const size_t complete = split < 21 ? 0 : split < 37 ? 1 : split < 58 ? 2 : 3;
        for (size_t i = 0; i < complete; ++i)
            got.push_back(textOf(pair.frames.next().value()));
        EXPECT_FALSE(pair.frames.hasNext()) << split;
        pair.write(bytes.substr(split));
        while (got.size() < 3)
            got.push_back(textOf(pair.frames.next().value()));
        EXPECT_EQ(got, (std::vector<std::string>{"first", "", "third"})) << split;
    }
}

TEST(FrameReader, FramesInHandLieTogetherAndNeedNoRead)
{
    Pair pair;
    pair.write(dataFrame(1, "one") + dataFrame(1, "two"));
    const auto first = pair.frames.next().value();
    ASSERT_TRUE(pair.frames.hasNext());
    const auto second = pair.frames.next().value();
    EXPECT_EQ(first.whole().data() + first.whole().size(), second.whole().data());
    EXPECT_EQ(textOf(first), "one"); // the first is still there
}

TEST(FrameReader, LargeFramesPassBetweenSmallOnes)
{
    Pair pair;
    std::vector<std::string> sent;
    for (const size_t size : {size_t{10}, FrameReader::kBufferBytes - 16, FrameReader::kBufferBytes, size_t{3} << 20,
                              size_t{20}, size_t{1} << 20})
        sent.push_back(std::string(size, static_cast<char>('a' + sent.size())));
    std::thread writer([&] {
        for (const std::string& payload : sent)
            pair.write(dataFrame(1, payload));
    });
    for (const std::string& payload : sent)
        EXPECT_TRUE(textOf(pair.frames.next().value()) == payload) << payload.size();
    writer.join();
}

TEST(FrameReader, TellsACleanEndFromATornOne)
{
    const std::string bytes = dataFrame(1, "payload");
    for (size_t size = 0; size <= bytes.size(); ++size) {
        Pair pair;
        pair.write(bytes.substr(0, size));
        pair.writer.reset();
        if (size == bytes.size()) {
            EXPECT_TRUE(pair.frames.next().ok());
        }
        EXPECT_EQ(pair.frames.next().code(), Code::kPeerGone);
        EXPECT_EQ(pair.frames.atFrameEnd(), size == 0 || size == bytes.size()) << size;
    }
}

TEST(FrameReader, RefusesABadHeaderWithoutWaitingForItsPayload)
{
    Pair pair;
    std::string bytes = dataFrame(1, "");
    const uint32_t lie = 0xfffffff0;
    std::memcpy(bytes.data(), &lie, sizeof lie);
    pair.write(dataFrame(1, "good") + bytes);
    EXPECT_TRUE(pair.frames.next().ok());
    EXPECT_TRUE(pair.frames.hasNext());
    EXPECT_EQ(pair.frames.next().code(), Code::kTooLarge);
}

} // namespace
} // namespace vnt::queue
