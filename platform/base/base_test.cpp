#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "platform/base/ByteCursor.h"
#include "platform/base/ByteWriter.h"
#include "platform/base/Weak.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

TEST(ByteCursor, ReadsBackWhatTheWriterWrote)
{
    ByteWriter writer;
    const uint64_t unsignedValues[] = {0, 127, 128, 0xffffffffULL, 1ULL << 63, ~0ULL};
    const int64_t signedValues[] = {0, -1, 63, -64, 64, INT64_MIN, INT64_MAX};
    for (const uint64_t value : unsignedValues)
        writer.varint(value);
    for (const int64_t value : signedValues)
        writer.signedVarint(value);
    writer.text("naïve");
    writer.little<uint32_t>(0x01020304);

    ByteCursor cursor(writer.view());
    for (const uint64_t value : unsignedValues)
        EXPECT_EQ(cursor.varint(), value);
    for (const int64_t value : signedValues)
        EXPECT_EQ(cursor.signedVarint(), value);
    EXPECT_EQ(cursor.text(16), "naïve");
    EXPECT_EQ(cursor.little<uint32_t>(), 0x01020304u);
    EXPECT_TRUE(cursor.atEnd());
}

TEST(ByteCursor, RefusesHostileLengths)
{
    struct Row {
        const char* what;
        std::vector<uint8_t> bytes;
    } rows[] = {
        {"nothing", {}},
        {"unfinished varint", {0x80}},
        {"eleven bytes", {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}},
        {"more than 64 bits", {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02}},
        {"length past the end", {5, 'a', 'b'}},
        {"length near 2^64", {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01, 'a'}},
        {"length past the limit", {4, 'a', 'b', 'c', 'd'}},
    };
    for (const Row& row : rows) {
        ByteCursor cursor(std::as_bytes(std::span(row.bytes)));
        EXPECT_EQ(cursor.text(3), "") << row.what;
        EXPECT_TRUE(cursor.failed()) << row.what;
        EXPECT_EQ(cursor.remaining(), 0u) << row.what;
        EXPECT_EQ(cursor.little<uint8_t>(), 0) << row.what;
    }
}

struct Counted : RefCounted {
    explicit Counted(std::atomic<int>& alive) : _alive(alive) { ++_alive; }
    ~Counted() override
    {
        _anchor.clear();
        --_alive;
    }
    std::atomic<int>& _alive;
    WeakAnchor _anchor{this};
};

TEST(Weak, LockNeverRevivesADyingObject)
{
    std::atomic<int> alive{0};
    for (int round = 0; round < 200; ++round) {
        auto object = makeRef<Counted>(alive);
        const WeakPtr<Counted> weak = object->_anchor.pointer(object.get());
        std::thread other([&] {
            while (auto pinned = weak.lock())
                EXPECT_GT(pinned->_alive.load(), 0);
        });
        object = nullptr;
        other.join();
        EXPECT_EQ(alive.load(), 0);
        EXPECT_FALSE(weak.lock());
    }
}

TEST(Sys, AtomicWriteLeavesTheOldFileWhenItFails)
{
    const std::string directory = sys::environmentOr("TMPDIR", "/tmp") + "/atomic";
    ASSERT_TRUE(sys::makeDirectories(directory + "/a/b", 0700).ok());
    const std::string path = directory + "/a/b/file";
    const std::string_view text = "first";
    ASSERT_TRUE(sys::writeFileAtomically(path, std::as_bytes(std::span(text)), 0600).ok());
    EXPECT_EQ(sys::readFile(path, 100).take(), "first");
    EXPECT_EQ(sys::readFile(path, 4).code(), Code::kTooLarge);
    EXPECT_EQ(sys::statFile(path).take().st_mode & 0777, 0600u);
    EXPECT_FALSE(sys::writeFileAtomically(directory + "/a/missing/file", {}, 0600).ok());
    EXPECT_EQ(sys::listDirectory(directory + "/a/b").take(), std::vector<std::string>{"file"});
    EXPECT_EQ(sys::makeDirectories(path + "/under-a-file", 0700).errnoValue(), ENOTDIR);
}

TEST(Sys, SocketsKnowTheirPeer)
{
    const std::string path = sys::environmentOr("TMPDIR", "/tmp") + "/listener";
    auto listener = sys::listenUnix(path, SOCK_SEQPACKET, 4);
    ASSERT_TRUE(listener.ok()) << listener.status().message();
    EXPECT_EQ(sys::statFile(path).take().st_mode & 0777, 0600u);
    EXPECT_EQ(sys::acceptOne(listener.value().get(), std::chrono::milliseconds(1)).code(), Code::kTimedOut);
    auto client = sys::connectUnix(path, SOCK_SEQPACKET);
    ASSERT_TRUE(client.ok());
    auto accepted = sys::acceptOne(listener.value().get(), std::chrono::seconds(10));
    ASSERT_TRUE(accepted.ok());
    const auto peer = sys::peerCredentials(accepted.value().get()).take();
    EXPECT_EQ(peer.uid, ::getuid());
    EXPECT_EQ(peer.pid, ::getpid());
    EXPECT_EQ(sys::connectUnix(path + "-absent", SOCK_SEQPACKET).code(), Code::kNotFound);
    EXPECT_EQ(sys::connectUnix(std::string(200, 'x'), SOCK_SEQPACKET).code(), Code::kTooLarge);
}

} // namespace
} // namespace vnt
