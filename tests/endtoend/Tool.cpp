#include "tests/endtoend/Tool.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/base/sys.h"

namespace vnt::test {
namespace {

int openOutput(const std::string& path) { return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666); }

/// In the child: null input, the two outputs, the user.
void becomeTool(const ToolRun& run, const std::string& outPath, const std::string& errPath)
{
    const int in = ::open("/dev/null", O_RDONLY);
    const int out = openOutput(outPath);
    const int err = openOutput(errPath);
    ::dup2(in, 0);
    ::dup2(out, 1);
    ::dup2(err, 2);
    for (const std::string& entry : run.environment)
        ::putenv(::strdup(entry.c_str()));
    if (run.user != 0 && (::setgroups(0, nullptr) != 0 || ::setgid(run.user) != 0 || ::setuid(run.user) != 0))
        ::_exit(126);
    std::vector<char*> arguments;
    for (const std::string& argument : run.arguments)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    ::execv(arguments[0], arguments.data());
    ::_exit(127);
}

} // namespace

std::string programPath(const std::string& name) { return std::string(VNT_BIN) + "/" + name; }
std::string targetPath(const std::string& name) { return std::string(VNT_TARGETS) + "/" + name; }

Tool::Tool(const ToolRun& run)
{
    const std::string base = sys::environmentOr("TMPDIR", "/tmp") + "/tool-" + sys::randomHex(4);
    _outPath = base + ".out";
    _errPath = base + ".err";
    _pid = ::fork();
    if (_pid == 0)
        becomeTool(run, _outPath, _errPath);
    EXPECT_GT(_pid, 0);
}

Tool::~Tool()
{
    if (_pid > 0) {
        ::kill(_pid, SIGKILL);
        ::waitpid(_pid, nullptr, 0);
    }
}

void Tool::signal(int number) const { ::kill(_pid, number); }

ToolResult Tool::wait()
{
    ToolResult result;
    int status = 0;
    for (int i = 0; i < 120'000 && ::waitpid(_pid, &status, WNOHANG) == 0; ++i)
        ::usleep(1000);
    if (::kill(_pid, 0) == 0 && ::waitpid(_pid, &status, WNOHANG) == 0) {
        ADD_FAILURE() << "the tool still runs after two minutes";
        return result;
    }
    _pid = -1;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = sys::readFile(_outPath, 64u << 20).take();
    result.err = sys::readFile(_errPath, 64u << 20).take();
    return result;
}

ToolResult rumbel(std::vector<std::string> arguments, uid_t user)
{
    arguments.insert(arguments.begin(), programPath("rumbel"));
    ToolRun run;
    run.arguments = std::move(arguments);
    run.user = user;
    return Tool(run).wait();
}

} // namespace vnt::test
