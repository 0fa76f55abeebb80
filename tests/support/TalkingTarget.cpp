#include "tests/support/TalkingTarget.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/base/sys.h"

namespace vnt::test {

TalkingTarget::TalkingTarget(std::vector<std::string> arguments)
{
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    auto in = sys::makePipe().take();
    auto out = sys::makePipe().take();
    posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawn_file_actions_adddup2(&files, in.first.get(), 0);
    ::posix_spawn_file_actions_adddup2(&files, out.second.get(), 1);
    EXPECT_EQ(::posix_spawn(&_pid, argv[0], &files, nullptr, argv.data(), environ), 0) << argv[0];
    ::posix_spawn_file_actions_destroy(&files);
    _in = std::move(in.second);
    _out = std::move(out.first);
    out.second.reset();
    (void)hear("");
}

TalkingTarget::~TalkingTarget()
{
    if (_pid > 0) {
        ::kill(_pid, SIGKILL);
        ::waitpid(_pid, nullptr, 0);
    }
}

void TalkingTarget::say(const std::string& text)
{
    EXPECT_TRUE(sys::writeFully(_in.get(), text.data(), text.size()).ok());
}

std::string TalkingTarget::hear(const std::string& line)
{
    std::string text;
    char c = 0;
    while (sys::readFully(_out.get(), &c, 1).ok()) {
        text += c;
        if (c == '\n' && text.ends_with(line + "\n"))
            return text;
    }
    ADD_FAILURE() << "the target ended: " << fate();
    return text;
}

std::string TalkingTarget::fate() const
{
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(_pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == 0)
        return {};
    return (info.si_code == CLD_EXITED ? "status " : "signal ") + std::to_string(info.si_status);
}

int TalkingTarget::end()
{
    _in.reset();
    int status = 0;
    for (int i = 0; ::waitpid(_pid, &status, WNOHANG) != _pid; ++i) {
        if (i == 60'000)
            return -1;
        ::usleep(1000);
    }
    _pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string TalkingTarget::maps() const
{
    return sys::readFile("/proc/" + std::to_string(_pid) + "/maps", size_t{16} << 20).take();
}

} // namespace vnt::test
