#include "services/tsec/ProcessLog.h"

#include <gtest/gtest.h>

#include "services/tsec/LaunchJob.h"
#include "services/tsec/TaskRecords.h"

namespace vnt {
namespace {

MappingEvent mapping(uint64_t timeNs, pid_t pid, uint64_t start, const std::string& path)
{
    return {timeNs, pid, start, 0x1000, 0, path, "ab01"};
}

/// "pid name executable [image image …]" of each signature, an exec as "|", an end as "!".
std::vector<std::string> shown(const ProcessLog& log, uint64_t sinceNs = 1)
{
    std::vector<std::string> lines;
    const Ref<Dictionary> answer = log.signaturesSince(sinceNs);
    for (const auto& item : answer->get<Array>("signatures")->items()) {
        const auto signature = as<Dictionary>(item);
        std::string line = signature->get("pid")->description() + " " + signature->get("name")->description() + " ";
        line += signature->get("executable") ? signature->get("executable")->description() : "-";
        for (const auto& image : signature->get<Array>("images")->items()) {
            const auto entry = as<Dictionary>(image);
            line += entry->get("exec") ? " |" : " " + entry->get("path")->description();
        }
        lines.push_back(line + (signature->get("ended") ? " !" : ""));
    }
    return lines;
}

using Lines = std::vector<std::string>;

TEST(ProcessLog, FollowsForkExecAndEnd)
{
    ProcessLog log;
    log.onScanned(0, {10, 1, "shell", "/bin/shell", 5, {mapping(0, 10, 0x1000, "/bin/shell")}});
    log.onFork(20, 10, 11);
    log.onFork(21, 10, 12);
    log.onExec(30, 11, "ls");
    log.onMapping(mapping(31, 11, 0x2000, "/bin/ls"));
    log.onMapping(mapping(32, 11, 0x9000, "[vdso]"));
    log.onExec(40, 11, "a-program-with-"); // the kernel's cut
    log.onMapping(mapping(41, 11, 0x3000, "/opt/a-program-with-a-long-name"));
    log.onExit(50, 11);
    // The inherited image stays with the one that still uses it; what the process mapped itself stays after its exec.
    EXPECT_EQ(shown(log),
              (Lines{"11 a-program-with-a-long-name /opt/a-program-with-a-long-name /bin/ls [vdso] | "
                     "/opt/a-program-with-a-long-name !",
                     "12 shell /bin/shell /bin/shell"}));
    log.onExit(60, 10); // began before, and ends now
    EXPECT_EQ(shown(log).size(), 3u);
    EXPECT_EQ(shown(log, 55), (Lines{"10 shell /bin/shell /bin/shell !"}));
}

TEST(ProcessLog, BelievesEventsThatContradictWhatItKnows)
{
    ProcessLog log;
    log.onExit(5, 7); // nobody knows it
    log.onExec(10, 7, "late"); // its fork was lost
    log.onMapping(mapping(11, 7, 0x1000, "/bin/late"));
    log.onMapping(mapping(11, 7, 0x1000, "/bin/late")); // told twice
    log.onFork(20, 1, 7); // its end was lost, the pid has come again
    EXPECT_EQ(shown(log), (Lines{"7 late /bin/late /bin/late !"})); // the new one has no name and nothing mapped yet
    log.onExec(21, 7, "new");
    // A look that began before that exec would tell of the program before.
    log.onScanned(30, {7, 1, "stale", "/bin/stale", 15, {mapping(0, 7, 0x5000, "/bin/stale")}});
    EXPECT_EQ(shown(log), (Lines{"7 late /bin/late /bin/late !", "7 new -"}));
    log.onScanEnd(40, {});
    EXPECT_EQ(shown(log), (Lines{"7 late /bin/late /bin/late !", "7 new - !"}));
}

TEST(ProcessLog, AScanThatWasQuickerThanTheForksRecordTellsOfTheSameProcess)
{
    ProcessLog log;
    log.onScanned(0, {7, 1, "quick", "/bin/quick", 25, {mapping(0, 7, 0x1000, "/bin/quick")}});
    log.onFork(20, 3, 7);
    log.onExec(21, 7, "quick");
    log.onMapping(mapping(22, 7, 0x1000, "/bin/quick"));
    EXPECT_EQ(shown(log, 20), (Lines{"7 quick /bin/quick /bin/quick | /bin/quick"})) << "one, that has not ended";
    log.onFork(30, 3, 7); // after that look: another process
    EXPECT_EQ(shown(log, 20), (Lines{"7 quick /bin/quick /bin/quick | /bin/quick !"}));
}

TEST(ProcessLog, StaysWithinItsLimitsAndCountsWhatItDrops)
{
    ProcessLog::Limits limits;
    limits.endedProcesses = 100;
    limits.images = 50;
    limits.imagesPerProcess = 4;
    limits.imagesPerAnswer = 10;
    ProcessLog log(limits);
    for (int i = 0; i < 1000; ++i) {
        const pid_t pid = 1000 + i;
        const uint64_t time = 100 + static_cast<uint64_t>(i) * 10;
        log.onFork(time, 1, pid);
        log.onExec(time + 1, pid, "p");
        for (uint64_t image = 0; image < 20; ++image)
            log.onMapping(mapping(time + 2, pid, 0x1000 * (image + 1), "/bin/p" + std::to_string(i)));
        log.onExit(time + 3, pid);
        ASSERT_LE(log.imagesForTesting(), 50u + 4);
    }
    const auto answer = log.signaturesSince(1);
    // Two of four images fit an answer of ten; the newest are the ones that are kept.
    ASSERT_EQ(answer->get<Array>("signatures")->count(), 2u);
    EXPECT_EQ(as<Dictionary>(answer->get<Array>("signatures")->at(1))->get<Number>("pid")->intValue(), 1999);
    EXPECT_EQ(answer->get<Number>("dropped")->intValue(), 998);
    // Running processes are not dropped, but they cannot grow past the limit either.
    for (pid_t pid = 1; pid <= 100; ++pid) {
        log.onExec(20000, pid, "r");
        for (uint64_t image = 0; image < 20; ++image)
            log.onMapping(mapping(20001, pid, 0x1000 * (image + 1), "/bin/r"));
    }
    EXPECT_LE(log.imagesForTesting(), 50u + 4);
}

TEST(ProcessLog, ManyFilesDoNotPileUp)
{
    ProcessLog log;
    for (int i = 0; i < 200'000; ++i) {
        log.onExec(static_cast<uint64_t>(i), 5, "p"); // each drops nothing: own images are kept up to the limit
        log.onMapping(mapping(static_cast<uint64_t>(i), 5, 0x1000, "/tmp/" + std::to_string(i)));
    }
    EXPECT_LE(log.imagesForTesting(), ProcessLog::Limits().imagesPerProcess + 1);
}

/// A record as the kernel writes it, without its header.
class Payload {
public:
    template <typename T> Payload& add(T value)
    {
        const auto* first = reinterpret_cast<const std::byte*>(&value);
        bytes.insert(bytes.end(), first, first + sizeof value);
        return *this;
    }
    Payload& text(std::string value)
    {
        value.resize((value.size() + 8) / 8 * 8); // NUL-padded to 8
        const auto* first = reinterpret_cast<const std::byte*>(value.data());
        bytes.insert(bytes.end(), first, first + value.size());
        return *this;
    }
    std::vector<std::byte> bytes;
};

Payload mapRecord(uint8_t idBytes)
{
    Payload payload;
    payload.add<int32_t>(4).add<int32_t>(4).add<uint64_t>(0x1000).add<uint64_t>(0x2000).add<uint64_t>(0x30);
    payload.add<uint32_t>(idBytes);
    for (uint8_t i = 0; i < 20; ++i)
        payload.add<uint8_t>(i);
    return payload.add<uint64_t>(5).text("/bin/x").add<uint64_t>(99);
}

TEST(TaskRecords, AreReadWithinTheirBytes)
{
    perf_event_header header{PERF_RECORD_MMAP2, PERF_RECORD_MISC_MMAP_BUILD_ID, 0};
    const auto good = parseTaskRecord(header, mapRecord(4).bytes);
    ASSERT_TRUE(good);
    EXPECT_EQ(good->timeNs, 99u);
    EXPECT_EQ(good->mapping.buildId, "00010203");
    EXPECT_EQ(good->mapping.path, "/bin/x");
    EXPECT_EQ(good->mapping.fileOffset, 0x30u);
    EXPECT_FALSE(parseTaskRecord(header, mapRecord(21).bytes)) << "a build id past its room";
    const std::vector<std::byte> whole = mapRecord(4).bytes;
    for (size_t size = 0; size + 8 < whole.size(); ++size) {
        const auto cut = parseTaskRecord(header, std::span(whole).first(size));
        EXPECT_TRUE(!cut || cut->mapping.path.size() <= 8) << size;
    }
    struct Row {
        const char* what;
        uint32_t type;
        uint16_t misc;
        std::vector<std::byte> payload;
        bool useful;
    };
    const auto task = [](int32_t pid, int32_t parent, int32_t tid) {
        return Payload().add(pid).add(parent).add(tid).add(parent).add<uint64_t>(7).add<uint64_t>(7).bytes;
    };
    const auto name = Payload().add<int32_t>(4).add<int32_t>(4).text("n").add<uint64_t>(7).bytes;
    const Row rows[] = {
        {"a process", PERF_RECORD_FORK, 0, task(4, 3, 4), true},
        {"a thread", PERF_RECORD_FORK, 0, task(4, 4, 5), false},
        {"an end", PERF_RECORD_EXIT, 0, task(4, 3, 4), true},
        {"a thread's end", PERF_RECORD_EXIT, 0, task(4, 3, 5), false},
        {"of another namespace", PERF_RECORD_FORK, 0, task(0, 3, 0), false},
        {"an exec", PERF_RECORD_COMM, PERF_RECORD_MISC_COMM_EXEC, name, true},
        {"another name", PERF_RECORD_COMM, 0, name, false},
        {"unknown", 4711, 0, name, false},
        {"lost", PERF_RECORD_LOST, 0, Payload().add<uint64_t>(1).add<uint64_t>(2).bytes, true},
        {"lost, cut", PERF_RECORD_LOST, 0, Payload().add<uint64_t>(1).bytes, false},
    };
    for (const Row& row : rows)
        EXPECT_EQ(parseTaskRecord({row.type, row.misc, 0}, row.payload).has_value(), row.useful) << row.what;
}

} // namespace
} // namespace vnt
