#include "platform/process/SuspendedStart.h"

#include <elf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <thread>

#include "platform/base/sys.h"
#include "platform/foundation/Files.h"

namespace vnt {
namespace {

std::string procFile(pid_t pid, const char* name)
{
    const auto text = sys::readFile("/proc/" + std::to_string(pid) + "/" + name, 1 << 20);
    return text.ok() ? text.value() : "";
}

char stateOf(pid_t pid)
{
    const std::string stat = procFile(pid, "stat");
    return stat.empty() ? '-' : stat[stat.rfind(')') + 2];
}

/// Address of the first instruction that the kernel gave the process: the dynamic loader's entry, or the program's own.
template <typename Header, typename Auxiliary> uint64_t firstInstruction(pid_t pid)
{
    const std::string vector = procFile(pid, "auxv");
    uint64_t base = 0;
    uint64_t entry = 0;
    for (size_t i = 0; i + sizeof(Auxiliary) <= vector.size(); i += sizeof(Auxiliary)) {
        Auxiliary item;
        std::memcpy(&item, vector.data() + i, sizeof item);
        if (item.a_type == AT_BASE)
            base = item.a_un.a_val;
        if (item.a_type == AT_ENTRY)
            entry = item.a_un.a_val;
    }
    if (base == 0)
        return entry;
    const auto memory = sys::openFile("/proc/" + std::to_string(pid) + "/mem", O_RDONLY);
    Header header{};
    if (!memory.ok()
        || ::pread(memory.value().get(), &header, sizeof header, static_cast<off_t>(base)) != sizeof header)
        return 0;
    return base + header.e_entry;
}

uint64_t expectedProgramCounter(pid_t pid)
{
    const auto program = sys::openFile("/proc/" + std::to_string(pid) + "/exe", O_RDONLY);
    unsigned char ident[EI_NIDENT] = {};
    if (!program.ok() || !sys::readFully(program.value().get(), ident, sizeof ident).ok())
        return 0;
    return ident[EI_CLASS] == ELFCLASS64 ? firstInstruction<Elf64_Ehdr, Elf64_auxv_t>(pid)
                                         : firstInstruction<Elf32_Ehdr, Elf32_auxv_t>(pid);
}

/// Last field of proc(5), "/proc/PID/syscall".
uint64_t programCounter(pid_t pid)
{
    const std::string text = procFile(pid, "syscall");
    const size_t blank = text.rfind(' ');
    return blank == std::string::npos ? 1 : std::strtoull(text.c_str() + blank, nullptr, 16);
}

int waitForExit(pid_t pid)
{
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return status;
}

class SuspendedStart : public testing::Test {
protected:
    void SetUp() override
    {
        _directory = temporaryDirectory() + "/start";
        ASSERT_FALSE(createDirectory(_directory));
    }
    void TearDown() override { ASSERT_TRUE(removeTree(_directory).ok()); }

    std::string file(const std::string& name, std::string_view content, mode_t mode)
    {
        const std::string path = _directory + "/" + name;
        EXPECT_TRUE(sys::writeFileAtomically(path, std::as_bytes(std::span(content)), mode).ok());
        return path;
    }

    std::string _directory;
};

SpawnRequest suspended(const std::string& path, std::vector<std::string> arguments = {})
{
    arguments.insert(arguments.begin(), path);
    return {
        path, std::move(arguments), {"PATH=/usr/bin:/bin", "MARK=here"}, kSpawnSetProcessGroup | kSpawnStartSuspended};
}

TEST_F(SuspendedStart, StopsEveryKindOfProgramBeforeItsFirstInstruction)
{
    struct Row {
        const char* what;
        std::string path;
        std::vector<std::string> arguments;
    } rows[] = {
        {"dynamic", "/bin/true", {}},
        {"of this test's own width", sys::executablePath().value(), {"--gtest_list_tests"}},
        {"static", "/sbin/ldconfig", {"--version"}},
        {"script", file("script", "#!/bin/sh\nexit 0\n", 0700), {}},
    };
    for (const Row& row : rows) {
        SpawnRequest request = suspended(row.path, row.arguments);
        const auto started = spawnProcess(request);
        ASSERT_TRUE(started.ok()) << row.what << ": " << started.status().message();
        const pid_t pid = started.value();
        EXPECT_EQ(stateOf(pid), 'T') << row.what;
        EXPECT_EQ(programCounter(pid), expectedProgramCounter(pid)) << row.what;
        EXPECT_EQ(::getpgid(pid), pid) << row.what;
        EXPECT_NE(procFile(pid, "environ").find(std::string("MARK=here\0", 10)), std::string::npos) << row.what;
        EXPECT_NE(procFile(pid, "status").find("SigBlk:\t0000000000000000\n"), std::string::npos) << row.what;
        EXPECT_NE(procFile(pid, "status").find("TracerPid:\t0\n"), std::string::npos) << row.what;
        ::kill(pid, SIGKILL);
        EXPECT_TRUE(WIFSIGNALED(waitForExit(pid))) << row.what;
    }
}

TEST_F(SuspendedStart, RunsAtAPlainContinueWithItsArgumentsAndEnvironment)
{
    const std::string script =
        file("script", "#!/bin/sh\n[ \"$1 $2\" = 'a  b ' ] && [ \"$MARK\" = here ] && exit 7\nexit 1\n", 0700);
    for (int i = 0; i < 20; ++i) {
        const auto started = spawnProcess(suspended(script, {"a", " b "}));
        ASSERT_TRUE(started.ok());
        ::kill(started.value(), SIGCONT);
        const int status = waitForExit(started.value());
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 7);
    }
}

TEST_F(SuspendedStart, ReportsTheErrorOfTheExecAndLeavesNoChild)
{
    ASSERT_EQ(::mkdir((_directory + "/folder").c_str(), 0700), 0);
    struct Row {
        const char* what;
        std::string path;
        int error;
    } rows[] = {
        {"missing", _directory + "/missing", ENOENT},
        {"empty", "", ENOENT},
        {"not executable", file("plain", "#!/bin/sh\n", 0600), EACCES},
        {"directory", _directory + "/folder", EACCES},
        {"no program", file("text", "hello", 0700), ENOEXEC},
        {"interpreter missing", file("lost", "#!/no/such/interpreter\n", 0700), ENOENT},
        {"zero byte", std::string("/bin/true\0x", 11), EINVAL},
    };
    for (const Row& row : rows) {
        for (const int flags : {0, kSpawnSetProcessGroup | kSpawnStartSuspended}) {
            SpawnRequest request = suspended(row.path);
            request.flags = flags;
            const auto started = spawnProcess(request);
            ASSERT_FALSE(started.ok()) << row.what;
            EXPECT_EQ(started.status().errnoValue(), row.error) << row.what;
            EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << row.what;
        }
    }
}

TEST_F(SuspendedStart, StopsThoughTheHostWaitsForEveryChildAndBlocksSignals)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::atomic<bool> stop = false;
    std::thread host([&] {
        int status = 0;
        while (!stop) {
            (void)::waitpid(-1, &status, WUNTRACED | __WALL | WNOHANG);
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < 100; ++i) {
        const auto started = spawnProcess(suspended("/bin/true"));
        EXPECT_TRUE(started.ok()) << started.status().message();
        if (!started.ok())
            break;
        EXPECT_EQ(stateOf(started.value()), 'T');
        EXPECT_EQ(programCounter(started.value()), expectedProgramCounter(started.value()));
        ::kill(started.value(), SIGKILL);
        while (::kill(started.value(), 0) == 0) // the other thread reaps it
            std::this_thread::yield();
        EXPECT_EQ(spawnProcess(suspended("/missing")).status().errnoValue(), ENOENT);
    }
    stop = true;
    host.join();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

std::atomic<int> handled = 0;

TEST_F(SuspendedStart, GivesAPlainStartAnEmptyMask)
{
    struct sigaction action { };
    struct sigaction before { };
    action.sa_handler = [](int) { ++handled; };
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
    SpawnRequest request = suspended("/bin/sleep", {"1000"});
    request.flags = 0;
    const sys::SignalBlock block;
    const auto started = spawnProcess(request);
    ASSERT_TRUE(started.ok());
    EXPECT_EQ(::getpgid(started.value()), ::getpgrp());
    ::kill(started.value(), SIGUSR1);
    const int status = waitForExit(started.value());
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGUSR1);
    EXPECT_EQ(handled, 0);
    ::sigaction(SIGUSR1, &before, nullptr);
}

/// From here on ptrace(2) answers EPERM in this process and its children, as in a locked-down container.
bool refusePtrace()
{
    const sock_filter program[] = {
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, SYS_ptrace},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | EPERM},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
    };
    const sock_fprog filter{static_cast<unsigned short>(std::size(program)), const_cast<sock_filter*>(program)};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

int startWithoutPtrace()
{
    if (!refusePtrace())
        return 1;
    const auto started = spawnProcess(suspended("/bin/sh", {"-c", "exit 7"}));
    if (!started.ok() || stateOf(started.value()) != 'T')
        return 2;
    if (programCounter(started.value()) != expectedProgramCounter(started.value()))
        return 6;
    if (procFile(started.value(), "status").find("SigBlk:\t0000000000000000\n") == std::string::npos)
        return 3;
    if (sys::listDirectory("/proc/" + std::to_string(started.value()) + "/fd").value().size()
        > sys::listDirectory("/proc/self/fd").value().size())
        return 7;
    if (spawnProcess(suspended("/missing")).status().errnoValue() != ENOENT)
        return 4;
    ::kill(started.value(), SIGCONT);
    return WEXITSTATUS(waitForExit(started.value())) == 7 ? 0 : 5;
}

TEST_F(SuspendedStart, StartsSuspendedWhereTracingIsRefused)
{
    EXPECT_EXIT(::_exit(startWithoutPtrace()), testing::ExitedWithCode(0), "");
}

TEST_F(SuspendedStart, FindsTheExecutableOfABundle)
{
    constexpr std::string_view kInfo = "<plist><dict><key>CFBundleExecutable</key><string>Tool</string></dict></plist>";
    struct Row {
        const char* what;
        std::string info;
        std::string infoText;
        std::string executable; // empty: there is none
    } rows[] = {
        {"Deep.app", "Contents/Info.plist", std::string(kInfo), "Contents/MacOS/Tool"},
        {"Flat.app", "Info.plist", std::string(kInfo), "Tool"},
        {"Middle.app", "Info.plist", std::string(kInfo), "MacOS/Tool"},
        {"Broken.app", "Info.plist", "<plist><dict>", ""},
        {"NoKey.app", "Info.plist", "<plist><dict/></plist>", ""},
        {"NoFile.app", "Info.plist", std::string(kInfo), ""},
        {"Escape.app", "Info.plist",
         "<plist><dict><key>CFBundleExecutable</key><string>../Flat.app/Tool</string></dict></plist>", ""},
    };
    for (const Row& row : rows) {
        const std::string bundle = _directory + "/" + row.what;
        ASSERT_FALSE(createDirectory(bundle + "/Contents/MacOS"));
        ASSERT_FALSE(createDirectory(bundle + "/MacOS"));
        (void)file(std::string(row.what) + "/" + row.info, row.infoText, 0600);
        if (!row.executable.empty())
            (void)file(std::string(row.what) + "/" + row.executable, "", 0700);
        const auto found = bundleExecutablePath(bundle + "/");
        if (row.executable.empty())
            EXPECT_EQ(found.code(), Code::kNotFound) << row.what;
        else
            EXPECT_EQ(found.value(), bundle + "/" + row.executable) << row.what;
    }
    EXPECT_EQ(bundleExecutablePath("").code(), Code::kNotFound);
    EXPECT_EQ(bundleExecutablePath("/no/such/bundle").code(), Code::kNotFound);
}

} // namespace
} // namespace vnt
