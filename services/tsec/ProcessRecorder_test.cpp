#include "services/tsec/ProcessRecorder.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/base/sys.h"
#include "services/tsec/LaunchJob.h"
#include "services/tsec/ReplyQueueLimit.h"

namespace vnt {
namespace {

TEST(LaunchJob, TakesExactlyItsTwoTexts)
{
    struct Row {
        const char* what;
        std::string payload;
        bool good;
    };
    const auto plist = [](const std::string& inside) { return "<plist version=\"1.0\">" + inside + "</plist>"; };
    const std::string name = "<key>name</key><string>n</string>";
    const std::string program = "<key>program</key><string>/p</string>";
    const Row rows[] = {
        {"whole", plist("<dict>" + name + program + "</dict>"), true},
        {"no program", plist("<dict>" + name + "</dict>"), false},
        {"more", plist("<dict>" + name + program + "<key>user</key><string>x</string></dict>"), false},
        {"a number", plist("<dict>" + name + "<key>program</key><integer>1</integer></dict>"), false},
        {"an array", plist("<array/>"), false},
        {"empty", "", false},
        {"rubbish", std::string(100, '\xff'), false},
        {"too large", plist("<dict>" + name + program + "</dict>" + std::string(65536, ' ')), false},
    };
    for (const Row& row : rows)
        EXPECT_EQ(LaunchJob::parse(std::as_bytes(std::span(row.payload))).ok(), row.good) << row.what;
}

/// Makes more mapping records at once than the smallest rings hold, then waits for its end.
[[noreturn]] void mapMuchCode(int count)
{
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    for (int i = 0; i < count; ++i) {
        // A page between them each time: neighbours would become one mapping.
        void* const room = ::mmap(nullptr, 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        (void)::mmap(room, page, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    }
    for (;;)
        ::pause();
}

size_t imagesOf(const Dictionary& answer, pid_t pid)
{
    const auto signatures = answer.get<Array>("signatures");
    for (const auto& item : signatures->items()) {
        const auto signature = as<Dictionary>(item);
        if (signature->get<Number>("pid")->intValue() == pid)
            return signature->get<Array>("images")->count();
    }
    return 0;
}

TEST(ProcessRecorder, WhoAsksDuringTheFirstScanIsAnsweredAfterIt)
{
    for (int i = 0; i < 50; ++i) {
        auto recorder = ProcessRecorder::start();
        if (!recorder.ok())
            GTEST_SKIP() << recorder.status().message();
        // Together with the end of the scan at different moments.
        for (int ask = 0; ask < 3; ++ask)
            ASSERT_TRUE(recorder.value()->catchUp()) << i;
    }
}

TEST(ProcessRecorder, AScanMakesUpForLostEvents)
{
    constexpr int kMappings = 1000;
    auto recorder = ProcessRecorder::start(static_cast<size_t>(::sysconf(_SC_PAGESIZE)));
    if (!recorder.ok())
        GTEST_SKIP() << recorder.status().message();
    ProcessRecorder& watched = *recorder.value();
    ASSERT_TRUE(watched.catchUp());
    const uint64_t since = sys::monotonicNs();
    uint64_t lost = 0;
    while (lost == 0) { // the test's time limit ends these
        const pid_t pid = ::fork();
        if (pid == 0)
            mapMuchCode(kMappings);
        size_t images = 0;
        while (images < kMappings) {
            ASSERT_TRUE(watched.catchUp());
            const Ref<Dictionary> answer = watched.log().signaturesSince(since);
            images = imagesOf(*answer, pid);
            lost = answer->get<Number>("lost")->uint64Value();
        }
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
}

TEST(ReplyQueueLimit, CountsWhatIsUnreadOnly)
{
    ReplyQueueLimit limit;
    std::vector<UniqueFd> readers;
    for (size_t i = 0; i < ReplyQueueLimit::kMaxUnread; ++i) {
        EXPECT_FALSE(limit.isFull());
        auto pair = sys::socketPair(SOCK_SEQPACKET).take();
        ASSERT_EQ(::send(pair.first.get(), "x", 1, 0), 1);
        limit.add(std::move(pair.first));
        readers.push_back(std::move(pair.second));
    }
    EXPECT_TRUE(limit.isFull());
    char byte = 0;
    EXPECT_EQ(::recv(readers[0].get(), &byte, 1, 0), 1); // read
    EXPECT_FALSE(limit.isFull());
    auto pair = sys::socketPair(SOCK_SEQPACKET).take();
    ASSERT_EQ(::send(pair.first.get(), "x", 1, 0), 1);
    limit.add(std::move(pair.first));
    EXPECT_TRUE(limit.isFull());
    readers[1].reset(); // closed unread
    EXPECT_FALSE(limit.isFull());
}

} // namespace
} // namespace vnt
