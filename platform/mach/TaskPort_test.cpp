#include "platform/mach/TaskPort.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/base/sys.h"
#include "platform/mach/JobFiles.h"
#include "platform/mach/MessageLayout.h"
#include "platform/mach/PortTable.h"

namespace vnt {
namespace {

namespace fs = std::filesystem;
constexpr uid_t kNobody = 65534;

/// The sending end of a pair in whose queue `bytes` and `fds` lie.
UniqueFd rightWith(const std::vector<uint32_t>& words, const std::vector<int>& fds)
{
    auto pair = sys::socketPair(SOCK_SEQPACKET).take();
    const iovec part{const_cast<uint32_t*>(words.data()), words.size() * 4};
    EXPECT_EQ(trySendPacket(pair.first.get(), {&part, 1}, fds), 0);
    return std::move(pair.second);
}

size_t openDescriptors() { return sys::listDirectory("/proc/self/fd").take().size(); }

TEST(TaskPort, OnlyAWholeOneIsBelieved)
{
    const TaskFiles files = openTask(::getpid()).take();
    const int process = files.process.get(), memory = files.memory.get();
    const std::vector<uint32_t> good = {0x4b535456, 1, 42, 0};
    struct Row {
        const char* what;
        std::vector<uint32_t> words;
        std::vector<int> fds;
        bool good;
    };
    const Row rows[] = {
        {"whole", good, {process, memory, memory, memory}, true},
        {"another magic", {0x4b535457, 1, 42, 0}, {process, memory, memory, memory}, false},
        {"another version", {0x4b535456, 2, 42, 0}, {process, memory, memory, memory}, false},
        {"short", {0x4b535456, 1, 42}, {process, memory, memory, memory}, false},
        {"long", {0x4b535456, 1, 42, 0, 0}, {process, memory, memory, memory}, false},
        {"one descriptor missing", good, {process, memory, memory}, false},
        {"one too many", good, {process, memory, memory, memory, memory}, false},
        {"none", good, {}, false},
        {"no process", good, {memory, memory, memory, memory}, false},
    };
    const size_t before = openDescriptors();
    for (const Row& row : rows) {
        const UniqueFd right = rightWith(row.words, row.fds);
        for (int look = 0; look < 2; ++look) { // a look takes nothing away
            const auto held = readTaskRight(right.get());
            EXPECT_EQ(held.ok(), row.good) << row.what;
            EXPECT_TRUE(!held.ok() || held.value().pid == ::getpid()) << row.what;
        }
    }
    EXPECT_EQ(openDescriptors(), before);
    auto empty = sys::socketPair(SOCK_SEQPACKET).take();
    EXPECT_EQ(readTaskRight(empty.first.get()).code(), Code::kInvalid); // asks without waiting
    empty.second.reset();
    EXPECT_FALSE(readTaskRight(empty.first.get()).ok());
}

TEST(TaskPort, AStrangersIsNone)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    auto carrier = sys::socketPair(SOCK_SEQPACKET).take();
    const pid_t pid = ::fork();
    if (pid == 0) {
        const TaskFiles files = openTask(::getpid()).take();
        if (::setuid(kNobody) != 0)
            ::_exit(1);
        const UniqueFd right = makeTaskRight(files).take();
        char byte = 'x';
        const iovec part{&byte, 1};
        const int fd = right.get();
        ::_exit(trySendPacket(carrier.first.get(), {&part, 1}, {&fd, 1}));
    }
    int status = -1;
    ::waitpid(pid, &status, 0);
    ASSERT_EQ(status, 0);
    Packet packet;
    ASSERT_EQ(tryReceivePacket(carrier.second.get(), 64, packet), ReceiveOutcome::kPacket);
    EXPECT_EQ(readTaskRight(packet.descriptors.at(0).get()).code(), Code::kDenied);
}

TEST(TaskPort, WhatCannotBeOpenedIsRefused)
{
    mach_port_t task = 0x77;
    for (const int pid : {0, -1, -5, 0x7fffffff}) {
        EXPECT_EQ(task_for_pid(mach_task_self(), pid, &task), KERN_FAILURE) << pid;
        EXPECT_EQ(task, MACH_PORT_NULL);
    }
    EXPECT_EQ(task_for_pid(0x7777, ::getpid(), &task), KERN_INVALID_ARGUMENT);
    EXPECT_EQ(task_for_pid(mach_task_self(), ::getpid(), nullptr), KERN_INVALID_ARGUMENT);
    int pid = 0;
    mach_port_t ordinary = MACH_PORT_NULL;
    ASSERT_EQ(mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, &ordinary), KERN_SUCCESS);
    for (const mach_port_t none : {MACH_PORT_NULL, MACH_PORT_DEAD, mach_port_t{0x7777}, ordinary})
        EXPECT_EQ(task_get_pid(none, &pid), KERN_INVALID_ARGUMENT) << none;
    EXPECT_EQ(mach_port_mod_refs(mach_task_self(), ordinary, MACH_PORT_RIGHT_RECEIVE, -1), KERN_SUCCESS);
}

TEST(TaskPort, TravelsLikeAnyRight)
{
    mach_port_t task = MACH_PORT_NULL, box = MACH_PORT_NULL;
    ASSERT_EQ(task_for_pid(mach_task_self(), ::getpid(), &task), KERN_SUCCESS);
    ASSERT_EQ(mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, &box), KERN_SUCCESS);
    struct {
        mach_msg_header_t header;
        mach_msg_body_t body;
        PortDescriptor port;
    } message{};
    message.header.msgh_bits = MACH_MSGH_BITS(uint32_t{MACH_MSG_TYPE_MAKE_SEND}, 0u) | MACH_MSGH_BITS_COMPLEX;
    message.header.msgh_remote_port = box;
    message.body.msgh_descriptor_count = 1;
    message.port = {task, 0, portFlags(MACH_MSG_TYPE_COPY_SEND)};
    ASSERT_EQ(mach_msg(&message.header, MACH_SEND_MSG, sizeof message, 0, 0, 0, 0), KERN_SUCCESS);
    EXPECT_EQ(mach_port_deallocate(mach_task_self(), task), KERN_SUCCESS); // on its way it is held by the message
    ASSERT_EQ(mach_msg(&message.header, MACH_RCV_MSG, 0, sizeof message, box, 0, 0), KERN_SUCCESS);
    int pid = 0;
    EXPECT_EQ(task_get_pid(message.port.name, &pid), KERN_SUCCESS);
    EXPECT_EQ(pid, ::getpid());
    mach_msg_destroy(&message.header); // gives back what a message brought
    EXPECT_EQ(task_get_pid(message.port.name, &pid), KERN_INVALID_ARGUMENT);
    EXPECT_EQ(mach_port_mod_refs(mach_task_self(), box, MACH_PORT_RIGHT_RECEIVE, -1), KERN_SUCCESS);
}

TEST(JobFiles, OnlyWhatRootAloneCanHaveWrittenIsTrusted)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to own the programs";
    char path[] = "/var/lib/vnt-test.XXXXXX"; // below directories that only root may write
    ASSERT_NE(::mkdtemp(path), nullptr);
    const std::string base = path;
    const auto program = [&](const std::string& name, mode_t mode, uid_t owner) {
        std::ofstream(base + "/" + name) << "#!/bin/true\n";
        EXPECT_EQ(::chown((base + "/" + name).c_str(), owner, 0), 0);
        EXPECT_EQ(::chmod((base + "/" + name).c_str(), mode), 0);
    };
    for (const char* directory : {"open", "theirs", "inner"})
        fs::create_directory(base + "/" + directory);
    ::chmod((base + "/open").c_str(), 01777); // sticky or not
    EXPECT_EQ(::chown((base + "/theirs").c_str(), kNobody, 0), 0);
    program("good", 0755, 0);
    program("inner/good", 0700, 0);
    program("theirs/p", 0755, 0);
    program("open/p", 0755, 0);
    program("group", 0775, 0);
    program("others", 0757, 0);
    program("owned", 0755, kNobody);
    program("plain", 0644, 0);
    fs::create_symlink("good", base + "/link");
    fs::create_directory_symlink("inner", base + "/into");
    ASSERT_EQ(::mkfifo((base + "/pipe").c_str(), 0700), 0);
    struct Row {
        std::string path;
        Code expected;
    };
    const Row rows[] = {
        {base + "/good", Code::kOk},
        {base + "/inner/good", Code::kOk},
        {base + "/missing", Code::kNotFound},
        {base + "/theirs/p", Code::kDenied},
        {base + "/open/p", Code::kDenied},
        {base + "/group", Code::kDenied},
        {base + "/others", Code::kDenied},
        {base + "/owned", Code::kDenied},
        {base + "/plain", Code::kDenied},
        {base + "/link", Code::kDenied},
        {base + "/into/good", Code::kDenied},
        {base + "/pipe", Code::kDenied}, // and asking does not wait for a writer
        {base + "/inner", Code::kDenied},
        {base + "/good/x", Code::kInvalid},
        {base + "/inner/../good", Code::kInvalid},
        {base + "/./good", Code::kInvalid},
        {base + "//good", Code::kInvalid},
        {base + "/good/", Code::kInvalid},
        {"/", Code::kInvalid},
        {"", Code::kInvalid},
        {"good", Code::kInvalid},
        {base + std::string("/good\0x", 7), Code::kInvalid},
        {"/" + std::string(2000, 'x'), Code::kInvalid},
    };
    for (const Row& row : rows)
        EXPECT_EQ(checkTrustedProgram(row.path).code(), row.expected) << row.path;
    fs::remove_all(base);
}

} // namespace
} // namespace vnt
