#include "services/quillon/TargetSuspender.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "platform/base/sys.h"

namespace vnt {
namespace {

bool eventually(const std::function<bool()>& holds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool waitsIn(pid_t tid, long call)
{
    const auto text = sys::readFile("/proc/" + std::to_string(tid) + "/syscall", 256);
    return text.ok() && std::strtol(text.value().c_str(), nullptr, 10) == call && text.value()[0] != 'r';
}

pid_t spawn(const std::function<int()>& body)
{
    const pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(body());
    return pid;
}

int statusOf(pid_t pid)
{
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Waits for the pipe; 0 when it was written to, else the error number.
int epollWait(int readEnd)
{
    const int queue = ::epoll_create1(0);
    epoll_event event{EPOLLIN, {}};
    ::epoll_ctl(queue, EPOLL_CTL_ADD, readEnd, &event);
    return ::epoll_wait(queue, &event, 1, -1) == 1 ? 0 : errno;
}

TEST(TargetSuspender, AWaitGoesOnAsIfNothingHadBeen)
{
    auto pipe = sys::makePipe();
    ASSERT_TRUE(pipe.ok());
    const pid_t pid = spawn([&] { return epollWait(pipe.value().first.get()); });
    ASSERT_TRUE(eventually([&] { return waitsIn(pid, SYS_epoll_wait); }));
    TargetSuspender suspender;
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(suspender.suspend(pid).ok());
        EXPECT_TRUE(suspender.resume(pid));
        ASSERT_TRUE(eventually([&] { return waitsIn(pid, SYS_epoll_wait); }));
    }
    ASSERT_EQ(::write(pipe.value().second.get(), "x", 1), 1);
    EXPECT_EQ(statusOf(pid), 0) << "errno";
}

TEST(TargetSuspender, ASignalStillEndsAWait)
{
    auto pipe = sys::makePipe();
    ASSERT_TRUE(pipe.ok());
    const pid_t pid = spawn([&] {
        ::signal(SIGUSR1, [](int) {});
        return epollWait(pipe.value().first.get());
    });
    ASSERT_TRUE(eventually([&] { return waitsIn(pid, SYS_epoll_wait); }));
    TargetSuspender suspender;
    ASSERT_TRUE(suspender.suspend(pid).ok());
    ::kill(pid, SIGUSR1);
    EXPECT_TRUE(suspender.resume(pid));
    EXPECT_EQ(statusOf(pid), EINTR);
}

TEST(TargetSuspender, AProcessWhoseFirstThreadHasEndedIsHeld)
{
    auto pipe = sys::makePipe();
    ASSERT_TRUE(pipe.ok());
    const pid_t pid = spawn([&]() -> int {
        std::thread([&] { ::_exit(epollWait(pipe.value().first.get())); }).detach();
        ::syscall(SYS_exit, 0); // this thread alone
        return 1;
    });
    const auto state = [&] {
        const auto stat = sys::readFile("/proc/" + std::to_string(pid) + "/stat", 4096);
        return stat.ok() && stat.value().find(") Z") != std::string::npos;
    };
    ASSERT_TRUE(eventually(state));
    TargetSuspender suspender;
    EXPECT_TRUE(suspender.suspend(pid).ok());
    EXPECT_TRUE(suspender.resume(pid));
    ASSERT_EQ(::write(pipe.value().second.get(), "x", 1), 1);
    EXPECT_EQ(statusOf(pid), 0);
}

} // namespace
} // namespace vnt
