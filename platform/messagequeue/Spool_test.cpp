#include "platform/messagequeue/Spool.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/base/sys.h"
#include "platform/foundation/Files.h"
#include "platform/messagequeue/MessageStream.h"

namespace vnt {
namespace {

std::vector<std::byte> frames(const std::vector<std::string>& messages)
{
    std::vector<std::byte> bytes;
    for (const std::string& message : messages) {
        const auto payload = std::as_bytes(std::span(message.data(), message.size()));
        const auto header = messageStreamFrameHeader(payload);
        const auto raw = std::as_bytes(std::span(&header, 1));
        bytes.insert(bytes.end(), raw.begin(), raw.end());
        bytes.insert(bytes.end(), payload.begin(), payload.end());
    }
    return bytes;
}

std::vector<std::string> spoolFiles()
{
    auto names = sys::listDirectory(SpoolFile::directory().value());
    return names.ok() ? names.value() : std::vector<std::string>();
}

struct Archived {
    std::vector<std::string> messages;
    MessageStreamReader::Summary summary;
};

Archived readArchive(const std::string& path)
{
    Archived archived;
    auto reader = MessageStreamReader::open(path);
    EXPECT_TRUE(reader.ok()) << reader.status().message();
    if (reader.ok())
        archived.summary = reader.value().forEach([&](std::span<const std::byte> message) {
            archived.messages.emplace_back(reinterpret_cast<const char*>(message.data()), message.size());
            return true;
        });
    return archived;
}

std::string freshPath(const std::string& directory = temporaryDirectory())
{
    return directory + "/archive-" + sys::randomHex(4);
}

TEST(Spool, ArchivesWithinAndAcrossFileSystems)
{
    const auto sameDevice = [](const std::string& a, const std::string& b) {
        return sys::statFile(a).value().st_dev == sys::statFile(b).value().st_dev;
    };
    const std::string home = SpoolFile::directory().value();
    std::vector<std::string> targets{freshPath()};
    if (!sameDevice(home, "/dev/shm"))
        targets.push_back(freshPath("/dev/shm"));
    for (const std::string& path : targets) {
        Spool spool("service/with odd name");
        EXPECT_TRUE(spoolFiles().empty()); // lazily
        const std::string large(3 << 20, 'l');
        EXPECT_EQ(spool.append(frames({"one", large}), 2), "");
        EXPECT_EQ(spoolFiles().size(), 1U);
        ASSERT_TRUE(sys::writeFileAtomically(path, {}, 0600).ok()); // is replaced
        EXPECT_EQ(spool.archiveTo(path).value(), 2U);
        EXPECT_TRUE(spoolFiles().empty());
        const Archived archived = readArchive(path);
        EXPECT_TRUE(archived.messages == (std::vector<std::string>{"one", large})) << path;
        EXPECT_FALSE(archived.summary.truncated);
        const mode_t mask = ::umask(022);
        ::umask(mask);
        EXPECT_EQ(sys::statFile(path).value().st_mode & 0777, 0666 & ~mask);

        EXPECT_EQ(spool.messageCount(), 0U);
        EXPECT_EQ(spool.archiveTo(freshPath()).value(), 0U);
        EXPECT_EQ(spool.append(frames({"new"}), 1), "");
        EXPECT_EQ(spool.archiveTo(path).value(), 1U);
        EXPECT_EQ(readArchive(path).messages, std::vector<std::string>{"new"});
        EXPECT_EQ(::unlink(path.c_str()), 0);
    }
}

TEST(Spool, KeepsItsMessagesWhenTheArchiveCannotBeWritten)
{
    Spool spool("service");
    EXPECT_EQ(spool.append(frames({"kept"}), 1), "");
    EXPECT_EQ(spool.archiveTo("/nonexistent/directory/archive").code(), Code::kNotFound);
    EXPECT_EQ(spool.append(frames({"and more"}), 1), "");
    const std::string path = freshPath();
    EXPECT_EQ(spool.archiveTo(path).value(), 2U);
    EXPECT_EQ(readArchive(path).messages, (std::vector<std::string>{"kept", "and more"}));
}

TEST(Spool, DiscardAndCloseLeaveNothingOnDisk)
{
    {
        Spool spool("service");
        EXPECT_EQ(spool.append(frames({"gone"}), 1), "");
        spool.discard();
        EXPECT_TRUE(spoolFiles().empty());
        EXPECT_EQ(spool.messageCount(), 0U);
        EXPECT_EQ(spool.append(frames({"gone too"}), 1), "");
    }
    EXPECT_TRUE(spoolFiles().empty());
    Spool spool("service");
    spool.close();
    EXPECT_EQ(spool.append(frames({"late"}), 1), "");
    EXPECT_TRUE(spoolFiles().empty());
}

/// A small file system in the place of the state directory.
class TinyDisk : public testing::Test {
protected:
    void SetUp() override
    {
        _path = temporaryDirectory() + "/tiny-" + sys::randomHex(4);
        ASSERT_TRUE(sys::makeDirectories(_path, 0700).ok());
        if (::mount("tmpfs", _path.c_str(), "tmpfs", 0, "size=256k,mode=0700") != 0)
            GTEST_SKIP() << "needs mount(2) as root: " << std::strerror(errno);
        _mounted = true;
        _previous = ::getenv("XDG_STATE_HOME");
        ::setenv("XDG_STATE_HOME", _path.c_str(), 1);
    }
    void TearDown() override
    {
        if (!_mounted)
            return;
        ::setenv("XDG_STATE_HOME", _previous.c_str(), 1);
        EXPECT_EQ(::umount(_path.c_str()), 0);
    }

    std::string _path;
    std::string _previous;
    bool _mounted = false;
};

TEST_F(TinyDisk, DropsCountsAndSaysSoWhenTheDiskIsFull)
{
    Spool spool("service");
    const std::string message(60000, 'm');
    EXPECT_EQ(spool.append(frames({message, message}), 2), "");
    // The batch crosses the end of the disk: what fits whole stays.
    EXPECT_NE(spool.append(frames({message, message, message}), 3), "");
    const uint64_t kept = spool.messageCount();
    EXPECT_GE(kept, 3U);
    EXPECT_EQ(kept + spool.droppedCount(), 5U);
    EXPECT_EQ(spool.append(frames({message}), 1), ""); // said once
    EXPECT_EQ(spool.droppedCount(), 6 - kept);
    const auto crashed = readArchive(_path + "/vantora/spool/" + spoolFiles().at(0)); // as recover would find it
    EXPECT_EQ(crashed.summary.messages, kept);
    EXPECT_EQ(crashed.summary.dropped, 6 - kept);
    EXPECT_FALSE(crashed.summary.truncated);

    const std::string path = freshPath();
    EXPECT_EQ(spool.archiveTo(path).value(), kept);
    const Archived archived = readArchive(path);
    EXPECT_EQ(archived.summary.messages, kept);
    EXPECT_EQ(archived.summary.dropped, 6 - kept);
    EXPECT_EQ(archived.summary.damagedFrames, 0U);
}

TEST_F(TinyDisk, GoesOnWhenThereIsRoomAgain)
{
    const std::string ballast = _path + "/ballast";
    ASSERT_TRUE(sys::writeFileAtomically(ballast, std::vector<std::byte>(230000), 0600).ok());
    Spool spool("service");
    EXPECT_NE(spool.append(frames({std::string(60000, 'x')}), 1), "");
    ASSERT_EQ(::unlink(ballast.c_str()), 0);
    EXPECT_EQ(spool.append(frames({"after"}), 1), "");
    const std::string path = freshPath();
    EXPECT_EQ(spool.archiveTo(path).value(), 1U);
    const Archived archived = readArchive(path);
    EXPECT_EQ(archived.messages, std::vector<std::string>{"after"});
    EXPECT_EQ(archived.summary.dropped, 1U); // once, not in the mark and as a frame
}

TEST(Spool, OnlySpoolsOfDeadProcessesAreRecoverable)
{
    Spool live("live");
    EXPECT_EQ(live.append(frames({"x"}), 1), "");
    EXPECT_TRUE(recoverableSpools().empty());
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        Spool spool("quillon.server.services.activity");
        (void)spool.append(frames({"first", "second"}), 2);
        ::_exit(0); // as a crash does: no destructor runs
    }
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    const auto found = recoverableSpools();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].pid, child);
    EXPECT_EQ(found[0].identifier, "quillon.server.services.activity");
    EXPECT_EQ(found[0].sizeBytes, sys::statFile(found[0].path).value().st_size);
    EXPECT_EQ(readArchive(found[0].path).messages, (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(::unlink(found[0].path.c_str()), 0);
}

} // namespace
} // namespace vnt
