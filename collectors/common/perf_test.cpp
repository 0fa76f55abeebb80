#include "collectors/common/perf.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace vnt::perf {
namespace {

TEST(Perf, ReadsProcessorLists)
{
    struct Row {
        const char* text;
        std::vector<int> processors; ///< empty: refused
    } rows[] = {
        {"0\n", {0}},
        {"0-3\n", {0, 1, 2, 3}},
        {"0,2-3,7", {0, 2, 3, 7}},
        {"", {}},
        {"\n", {}},
        {"0-", {}},
        {"-1", {}},
        {"3-1", {}},
        {"0,", {}},
        {"0;1", {}},
        {"0-9999999", {}},
        {"99999999999999", {}},
        {"a", {}},
        {"0-3-5", {}},
    };
    for (const Row& row : rows) {
        auto parsed = parseProcessorList(row.text);
        EXPECT_EQ(parsed.ok(), !row.processors.empty()) << "'" << row.text << "'";
        EXPECT_EQ(parsed.ok() ? parsed.value() : std::vector<int>(), row.processors) << "'" << row.text << "'";
    }
}

TEST(Perf, RefusalsNameTheCommandThatHelps)
{
    struct Row {
        int error;
        Purpose purpose;
        int64_t paranoid;
        const char* advice;
    } rows[] = {
        {EACCES, Purpose::kOwnProcess, 3, "sudo sysctl kernel.perf_event_paranoid=2"},
        {EACCES, Purpose::kOwnProcess, 4, "sudo sysctl kernel.perf_event_paranoid=2"},
        {EACCES, Purpose::kKernelStacks, 2, "sudo sysctl kernel.perf_event_paranoid=1"},
        {EACCES, Purpose::kWholeMachine, 1, "sudo sysctl kernel.perf_event_paranoid=0"},
        {EACCES, Purpose::kOwnProcess, 2, "another user"},
        {EPERM, Purpose::kOwnProcess, 2, "seccomp=unconfined"},
        {EPERM, Purpose::kRing, 2, "sudo sysctl kernel.perf_event_mlock_kb="},
        {EMFILE, Purpose::kOwnProcess, 2, "ulimit -n"},
        {ESRCH, Purpose::kOwnProcess, 2, "ended"},
        {ENOSYS, Purpose::kOwnProcess, 2, "no perf events"},
    };
    for (const Row& row : rows) {
        const Status status = explain(Status::fromErrno(row.error, "perf_event_open"), row.purpose, row.paranoid);
        EXPECT_NE(status.message().find(row.advice), std::string::npos) << row.advice << " in: " << status.message();
        EXPECT_EQ(status.errnoValue(), row.error);
    }
}

} // namespace
} // namespace vnt::perf
