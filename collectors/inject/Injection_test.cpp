#include "collectors/inject/Injection.h"

#include <gtest/gtest.h>

#include "tests/support/TalkingTarget.h"

namespace vnt {
namespace {

using test::TalkingTarget;

const RemoteModule* libcOf(const RemoteProcess& process)
{
    for (const RemoteModule& module : process.modules()) {
        if (module.fileName() == "libc.so.6")
            return &module;
    }
    return nullptr;
}

TEST(Injection, CallsAFunctionOfTheTarget)
{
    TalkingTarget target({std::string(VNT_TARGETS) + "/heapbusy", "2", "waits"});
    int64_t seconds = 0;
    const Status status = injectInto(target.pid(), {}, [&](BorrowedThread& thread) -> Status {
        const RemoteModule* libc = libcOf(thread.process());
        if (!libc)
            return Status(Code::kNotFound, "no libc");
        const auto missing = thread.process().function(*libc, "no_such_function");
        EXPECT_EQ(missing.code(), Code::kNotFound);
        ASSIGN_OR_RETURN(const uint64_t function, thread.process().function(*libc, "timespec_get"));
        RETURN_IF_ERROR(thread.call(function, {thread.scratch(), /*TIME_UTC=*/1}));
        return thread.process().read(thread.scratch(), &seconds, sizeof seconds);
    });
    EXPECT_TRUE(status.ok()) << status.message();
    EXPECT_LT(std::abs(seconds - ::time(nullptr)), 60);
    EXPECT_EQ(target.end(), 0);
}

/// The call crashes, or waits for a lock that nobody will release: it is given up, and the target is as it was.
TEST(Injection, CallsThatGoWrongDoNoHarm)
{
    TalkingTarget target({std::string(VNT_TARGETS) + "/heapbusy", "2", "waits"});
    const Status crashed = injectInto(target.pid(), {}, [&](BorrowedThread& thread) { return thread.call(16, {}); });
    EXPECT_EQ(crashed.code(), Code::kSystem) << crashed.message();
    EXPECT_EQ(target.fate(), "");
    const Status hung = injectInto(target.pid(), {}, [&](BorrowedThread& thread) -> Status {
        const int mutex[10] = {/*taken=*/1};
        RETURN_IF_ERROR(thread.process().write(thread.scratch(), mutex, sizeof mutex));
        const RemoteModule* libc = libcOf(thread.process());
        ASSIGN_OR_RETURN(const uint64_t function, thread.process().function(*libc, "pthread_mutex_lock"));
        return thread.call(function, {thread.scratch()});
    });
    EXPECT_EQ(hung.code(), Code::kTimedOut) << hung.message();
    EXPECT_EQ(target.fate(), "");
    EXPECT_EQ(target.end(), 0);
}

} // namespace
} // namespace vnt
