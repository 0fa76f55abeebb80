#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "platform/mach/NameService.h"
#include "platform/mach/OutOfLine.h"
#include "platform/mach/PacketServer.h"
#include "platform/mach/PortTable.h"
#include "platform/mach/testing/EchoProtocol.h"

namespace vnt {
namespace {

namespace fs = std::filesystem;
constexpr uid_t kNobody = 65534;

/// A private bootstrap directory and a program directory in which the test service stands for one with a job.
class NameServiceTest : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string program = std::string(VNT_TEST_PROGRAM_DIR) + "/PortEchoService";
        if (!fs::exists(program))
            GTEST_SKIP() << "needs " << program << "; build the preset dev first";
        char path[] = "/tmp/vnt-names.XXXXXX";
        ASSERT_NE(::mkdtemp(path), nullptr);
        _directory = path;
        _savedBootstrap = sys::environmentOr("VANTORA_BOOTSTRAP_DIR", "");
        ::setenv("VANTORA_BOOTSTRAP_DIR", (_directory + "/user").c_str(), 1);
        ::setenv("VANTORA_PROGRAM_DIR", (_directory + "/bin").c_str(), 1);
        ::setenv("VANTORA_TEST_IDLE_MS", "20000", 1);
        fs::create_directory(_directory + "/bin");
        fs::create_symlink(program, _directory + "/bin/KxTSecD");
        useNamespace(Namespace::kUser);
    }
    void TearDown() override
    {
        for (const pid_t pid : _services)
            ::kill(pid, SIGKILL);
        ::setenv("VANTORA_BOOTSTRAP_DIR", _savedBootstrap.c_str(), 1);
        ::unsetenv("VANTORA_PROGRAM_DIR");
        std::error_code busy; // a service on its way out may still rename its socket
        do
            fs::remove_all(_directory, busy);
        while (busy);
        mig_dealloc_reply_port(mig_get_reply_port());
        bootstrap_port = PortTable::kBootstrapDefault;
    }

    mach_port_t lookUp()
    {
        mach_port_t port = MACH_PORT_NULL;
        EXPECT_EQ(bootstrap_look_up(bootstrap_port, kEchoServiceName, &port), BOOTSTRAP_SUCCESS);
        return port;
    }
    EchoDescription describe(mach_port_t port)
    {
        EchoDescription message{};
        EXPECT_EQ(call(port, kEchoDescribe, message.header, sizeof message.header, sizeof message), KERN_SUCCESS);
        EXPECT_EQ(message.header.msgh_id, kEchoDescribe + kReplyIdDistance);
        if (message.pid > 0)
            _services.insert(message.pid);
        return message;
    }
    static mach_msg_return_t call(mach_port_t port, int32_t id, mach_msg_header_t& message, size_t size, size_t limit,
                                  uint32_t complex = 0)
    {
        message.msgh_bits =
            MACH_MSGH_BITS(uint32_t{MACH_MSG_TYPE_COPY_SEND}, uint32_t{MACH_MSG_TYPE_MAKE_SEND_ONCE}) | complex;
        message.msgh_remote_port = port;
        message.msgh_local_port = mig_get_reply_port();
        message.msgh_id = id;
        return mach_msg(&message, MACH_SEND_MSG | MACH_RCV_MSG, static_cast<mach_msg_size_t>(size),
                        static_cast<mach_msg_size_t>(limit), mig_get_reply_port(), 0, 0);
    }
    static void drop(mach_port_t port) { EXPECT_EQ(mach_port_deallocate(mach_task_self(), port), KERN_SUCCESS); }
    std::string socketPath() const { return _directory + "/user/v1/" + kEchoServiceName; }

    std::string _directory, _savedBootstrap;
    std::set<pid_t> _services;
};

TEST_F(NameServiceTest, AServiceStartedOnDemandStandsAlone)
{
    ::setenv("LD_LIBRARY_PATH", "/nowhere", 1);
    ::signal(SIGUSR1, SIG_IGN);
    const UniqueFd inheritable(::open("/dev/null", O_RDONLY)); // no close-on-exec: a careless host
    const mach_port_t port = lookUp();
    ::signal(SIGUSR1, SIG_DFL);
    ::unsetenv("LD_LIBRARY_PATH");
    const EchoDescription service = describe(port);
    EXPECT_EQ(service.senderUser, ::geteuid());
    EXPECT_EQ(service.senderPid, ::getpid());
    EXPECT_TRUE(service.isSessionLeader);
    EXPECT_TRUE(service.isInRoot);
    EXPECT_FALSE(service.hasLoaderVariables);
    EXPECT_FALSE(service.hasBlockedOrIgnoredSignals);
    // Three standard files, listener, wake-up, reserve, our connection, the reply right, the directory being listed.
    EXPECT_EQ(service.openDescriptors, 9u);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG | __WALL), -1); // nobody's child here

    const mach_port_t second = lookUp();
    EXPECT_NE(second, port); // a right of its own,
    EXPECT_EQ(describe(second).pid, service.pid); // the same service
    drop(second);
    drop(port);
}

TEST_F(NameServiceTest, ADyingServiceEndsTheCallAndIsStartedAgain)
{
    const mach_port_t port = lookUp();
    const pid_t first = describe(port).pid;
    for (const int32_t id : {kEchoIgnore, kEchoExit}) {
        EchoDescription message{};
        ASSERT_EQ(call(port, id, message.header, sizeof message.header, sizeof message), KERN_SUCCESS);
        EXPECT_EQ(message.header.msgh_id, MACH_NOTIFY_SEND_ONCE) << id;
    }
    EchoDescription message{};
    const auto status = call(port, kEchoDescribe, message.header, sizeof message.header, sizeof message);
    // It closes its descriptors one by one: the request may still have found a queue, and died in it.
    EXPECT_TRUE(status == MACH_SEND_INVALID_DEST || message.header.msgh_id == MACH_NOTIFY_SEND_ONCE) << status;
    drop(port);
    ASSERT_TRUE(fs::exists(socketPath())); // stale: it did not clear up
    const mach_port_t again = lookUp();
    EXPECT_NE(describe(again).pid, first);
    drop(again);
}

TEST_F(NameServiceTest, ManyStartersStartOneService)
{
    auto pipe = sys::makePipe().take();
    const std::string directory = namespaceDirectory(Namespace::kUser).take();
    // Nobody gets on until all have found the name unserved and stand at its lock.
    auto lock = std::make_unique<NameLock>(NameLock::take(directory, kEchoServiceName, NameLock::Wait::kNo).take());
    std::vector<pid_t> starters;
    for (int i = 0; i < 8; ++i) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            lock.reset(); // the parent's stays: both are one open file, whose lock ends with its last descriptor
            const pid_t service = describe(lookUp()).pid;
            (void)::write(pipe.second.get(), &service, sizeof service);
            ::_exit(0);
        }
        starters.push_back(pid);
    }
    for (const pid_t pid : starters) {
        const auto standsAtLock = [&] {
            std::error_code gone; // descriptors come and go while we look
            for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", gone)) {
                if (fs::read_symlink(entry.path(), gone) == directory + "/" + kEchoServiceName + ".lock")
                    return true;
            }
            return false;
        };
        while (!standsAtLock())
            std::this_thread::yield();
    }
    lock.reset();
    for (size_t i = 0; i < starters.size(); ++i) {
        pid_t service = 0;
        ASSERT_TRUE(sys::readFully(pipe.first.get(), &service, sizeof service).ok());
        _services.insert(service);
    }
    EXPECT_EQ(_services.size(), 1u);
    for (const pid_t pid : starters)
        ::waitpid(pid, nullptr, 0);
}

TEST_F(NameServiceTest, NoLookUpIsLostWhileServicesLeave)
{
    ::setenv("VANTORA_TEST_IDLE_MS", "0", 1);
    for (const int clientCount : {1, 3}) {
        std::atomic<int> served{0};
        Mutex mutex;
        std::set<pid_t> services;
        const auto ask = [&](int times) {
            for (int i = 0; i < times; ++i) {
                const mach_port_t port = lookUp();
                EchoDescription message{};
                if (call(port, kEchoDescribe, message.header, sizeof message.header, sizeof message) == KERN_SUCCESS
                    && message.header.msgh_id == kEchoDescribe + kReplyIdDistance)
                    served.fetch_add(1, std::memory_order_relaxed);
                drop(port); // the next look-up meets the service on its way out
                MutexLock lock(mutex);
                services.insert(message.pid);
            }
        };
        std::vector<std::thread> clients;
        for (int client = 0; client < clientCount; ++client)
            clients.emplace_back(ask, 40);
        for (std::thread& client : clients)
            client.join();
        while (fs::exists(socketPath())) // it does leave; the test's time limit ends this if not
            std::this_thread::yield();
        ask(1);
        EXPECT_EQ(served.load(), clientCount * 40 + 1);
        EXPECT_GT(services.size(), 1u);
    }
}

TEST_F(NameServiceTest, MemoryAndRightsCrossTheProcessBoundary)
{
    const mach_port_t port = lookUp();
    (void)describe(port);
    std::vector<std::byte> content(kMaxInlineMemoryBytes + 5);
    for (size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<std::byte>(i * 31);
    for (const size_t size : {size_t{0}, size_t{32}, content.size()}) {
        union {
            AttachAccessRequest<NativeAddress> request;
            DataReply<NativeAddress> reply;
        } message{};
        message.request.body.msgh_descriptor_count = 1;
        message.request.authorization.address = reinterpret_cast<uintptr_t>(content.data());
        message.request.authorization.size = static_cast<uint32_t>(size);
        message.request.authorization.flags = outOfLineFlags(false);
        ASSERT_EQ(call(port, kEchoMemory, message.request.header, sizeof message.request, sizeof message,
                       MACH_MSGH_BITS_COMPLEX),
                  KERN_SUCCESS);
        EXPECT_EQ(message.reply.header.msgh_size, sizeof message.reply); // 56, or 52 in a 32-bit process
        EXPECT_EQ(message.reply.dataCount, size);
        const auto address = static_cast<uintptr_t>(message.reply.data.address);
        EXPECT_TRUE(size == 0 || std::memcmp(reinterpret_cast<void*>(address), content.data(), size) == 0);
        EXPECT_EQ(vm_deallocate(mach_task_self(), address, size), KERN_SUCCESS);
    }

    mach_port_t handle = MACH_PORT_NULL;
    ASSERT_EQ(mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, &handle), KERN_SUCCESS);
    union {
        ClientHandleRequest request;
        StatusReply reply;
    } watch{};
    watch.request.body.msgh_descriptor_count = 1;
    watch.request.clientHandle = {handle, 0, portFlags(MACH_MSG_TYPE_MAKE_SEND)};
    std::thread killer([&] { // the answer comes by the death of the port, before or after the request arrived
        EXPECT_EQ(mach_port_mod_refs(mach_task_self(), handle, MACH_PORT_RIGHT_RECEIVE, 0), KERN_SUCCESS);
        EXPECT_EQ(describe(port).header.msgh_id, kEchoDescribe + kReplyIdDistance);
        EXPECT_EQ(mach_port_mod_refs(mach_task_self(), handle, MACH_PORT_RIGHT_RECEIVE, -1), KERN_SUCCESS);
    });
    const auto status =
        call(port, kEchoWatch, watch.request.header, sizeof watch.request, sizeof watch, MACH_MSGH_BITS_COMPLEX);
    killer.join();
    // The right may have died before it was sent: then there is nothing to watch.
    if (status == KERN_SUCCESS) {
        EXPECT_EQ(watch.reply.returnCode, 77);
    } else {
        EXPECT_EQ(status, MACH_SEND_INVALID_RIGHT);
    }
    drop(port);
}

TEST_F(NameServiceTest, WhatCannotBeLookedUpSaysSoAtOnce)
{
    std::ofstream(_directory + "/bin/QuillonServer") << "\x7f"
                                                        "ELF but not really";
    fs::permissions(_directory + "/bin/QuillonServer", fs::perms::owner_all);
    struct Row {
        const char* what;
        mach_port_t bootstrap;
        const char* name;
        uint64_t flags;
        kern_return_t expected;
    };
    const Row rows[] = {
        {"no job", bootstrap_port, "some.name", 0, BOOTSTRAP_UNKNOWN_SERVICE},
        {"program missing", bootstrap_port, "quillon.authority", 0, BOOTSTRAP_UNKNOWN_SERVICE},
        {"program that cannot run", bootstrap_port, "quillon.server.mig", 0, BOOTSTRAP_UNKNOWN_SERVICE},
        {"name with a slash", bootstrap_port, "../x", 0, BOOTSTRAP_UNKNOWN_SERVICE},
        {"name of a lock", bootstrap_port, "quillon.tfp.lock", 0, BOOTSTRAP_UNKNOWN_SERVICE},
        {"empty name", bootstrap_port, "", 0, BOOTSTRAP_UNKNOWN_SERVICE},
        {"not a name service", MACH_PORT_NULL, "quillon.tfp", 0, MACH_SEND_INVALID_DEST},
        {"unknown flags", bootstrap_port, "quillon.tfp", 1, KERN_INVALID_ARGUMENT},
    };
    mach_port_t port = MACH_PORT_NULL;
    for (const Row& row : rows)
        EXPECT_EQ(bootstrap_look_up2(row.bootstrap, row.name, &port, 0, row.flags), row.expected) << row.what;
    EXPECT_FALSE(fs::exists(_directory + "/user/v1/quillon.server.mig")); // no socket that nobody serves
    EXPECT_EQ(port, MACH_PORT_NULL);
}

TEST_F(NameServiceTest, DirectoriesOfOthersAreRefused)
{
    const std::string user = _directory + "/user";
    struct Row {
        const char* what;
        std::function<void()> make;
        bool needsRoot;
        kern_return_t expected;
    };
    const Row rows[] = {
        {"of another owner",
         [&] {
             fs::create_directory(user);
             (void)::chown(user.c_str(), kNobody, kNobody);
         },
         true, BOOTSTRAP_NOT_PRIVILEGED},
        {"writable by the group",
         [&] {
             fs::create_directory(user);
             ::chmod(user.c_str(), 0720);
         },
         false, BOOTSTRAP_NOT_PRIVILEGED},
        {"a symbolic link",
         [&] {
             fs::create_directory(_directory + "/real");
             fs::create_directory_symlink(_directory + "/real", user);
         },
         false, BOOTSTRAP_NOT_PRIVILEGED},
        {"a file", [&] { std::ofstream(user) << "x"; }, false, BOOTSTRAP_NOT_PRIVILEGED},
        {"version directory of another owner",
         [&] {
             fs::create_directory(user);
             ::chmod(user.c_str(), 0700);
             fs::create_directory(user + "/v1");
             (void)::chown((user + "/v1").c_str(), kNobody, kNobody);
         },
         true, BOOTSTRAP_NOT_PRIVILEGED},
    };
    for (const Row& row : rows) {
        if (row.needsRoot && ::geteuid() != 0)
            continue;
        row.make();
        mach_port_t port = MACH_PORT_NULL;
        EXPECT_EQ(bootstrap_look_up(bootstrap_port, kEchoServiceName, &port), row.expected) << row.what;
        fs::remove_all(user);
    }
    ::setenv("VANTORA_BOOTSTRAP_DIR", (_directory + "/" + std::string(100, 'x')).c_str(), 1);
    mach_port_t port = MACH_PORT_NULL;
    EXPECT_EQ(bootstrap_look_up(bootstrap_port, kEchoServiceName, &port), BOOTSTRAP_UNKNOWN_SERVICE);
}

TEST_F(NameServiceTest, AServerRefusesStrangersAndCrowdsAndForgetsThem)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    ASSERT_TRUE(namespaceDirectory(Namespace::kUser).ok());
    // As nobody, straight to the socket: the directory would keep it out otherwise.
    const auto greetingFor = [&](int connections) {
        const pid_t child = ::fork();
        if (child == 0) {
            if (::setresuid(kNobody, kNobody, kNobody) != 0)
                ::_exit(100);
            std::vector<UniqueFd> held;
            int worst = 0;
            for (int i = 0; i < connections; ++i) {
                auto connection = sys::connectUnix(socketPath(), SOCK_SEQPACKET);
                ServiceGreeting greeting;
                if (!connection.ok() || !sys::readFully(connection.value().get(), &greeting, sizeof greeting).ok())
                    ::_exit(102);
                worst = std::max<int>(worst, greeting.status);
                held.push_back(connection.take());
            }
            ::_exit(worst);
        }
        int result = 0;
        ::waitpid(child, &result, 0);
        return WEXITSTATUS(result);
    };
    for (const auto access : {PacketServer::Access::kOwnUser, PacketServer::Access::kAnyUser}) {
        PacketServer::Options options;
        options.arguments.which = Namespace::kUser;
        options.name = kEchoServiceName;
        options.access = access;
        options.maxConnectionsPerUser = 3;
        auto opened = PacketServer::open(std::move(options), {.onPacket = {}, .onClose = {}, .mayExit = {}});
        ASSERT_TRUE(opened.ok()) << opened.status().message();
        for (const std::string& part : {_directory, _directory + "/user", _directory + "/user/v1"})
            ::chmod(part.c_str(), 0711);
        ::chmod(socketPath().c_str(), 0666);
        const pid_t server = ::fork(); // before any thread
        if (server == 0) {
            (void)opened.value()->run();
            ::_exit(0);
        }
        const bool any = access == PacketServer::Access::kAnyUser;
        EXPECT_EQ(greetingFor(3), any ? ServiceGreeting::kAccepted : ServiceGreeting::kRefused);
        EXPECT_EQ(greetingFor(4), any ? ServiceGreeting::kBusy : ServiceGreeting::kRefused);
        while (any && greetingFor(3) != ServiceGreeting::kAccepted) { } // those that went are forgotten soon
        ::kill(server, SIGKILL);
        ::waitpid(server, nullptr, 0);
        for (const std::string& part : {_directory + "/user", _directory + "/user/v1"})
            ::chmod(part.c_str(), 0700);
    }
}

TEST_F(NameServiceTest, ASilentOrDeafClientDoesNotHoldUpOthers)
{
    PacketServer::Options options;
    options.arguments.which = Namespace::kUser;
    options.name = kEchoServiceName;
    std::atomic<int> closed{0};
    PacketServer* server = nullptr;
    std::vector<std::byte> answer(60000);
    auto opened = PacketServer::open(std::move(options),
                                     {.onPacket = [&](PacketServer::ConnectionId id, const sys::PeerCredentials&,
                                                      Packet&) { (void)server->send(id, answer); },
                                      .onClose = [&](PacketServer::ConnectionId) { closed.fetch_add(1); },
                                      .mayExit = {}});
    ASSERT_TRUE(opened.ok());
    server = opened.value().get();
    std::thread thread([&] { EXPECT_TRUE(server->run().ok()); });

    auto silent = connectToService(Namespace::kUser, kEchoServiceName);
    auto deaf = connectToService(Namespace::kUser, kEchoServiceName);
    auto good = connectToService(Namespace::kUser, kEchoServiceName);
    ASSERT_TRUE(silent.ok() && deaf.ok() && good.ok());
    const char ask[4] = "ask";
    for (int i = 0; i < 20; ++i) // its queue holds three of the answers
        (void)::send(deaf.value().get(), ask, sizeof ask, MSG_NOSIGNAL);
    ASSERT_TRUE(sys::writeFully(good.value().get(), ask, sizeof ask).ok());
    std::vector<char> received(answer.size());
    EXPECT_TRUE(sys::readFully(good.value().get(), received.data(), received.size()).ok());
    while (closed.load() == 0) // the deaf one is put out; the test's time limit ends this if not
        std::this_thread::yield();
    EXPECT_EQ(closed.load(), 1);
    server->stop();
    thread.join();
}

TEST_F(NameServiceTest, AServiceThatEndsBeforeItGreetsIsStartedAgainOrGivenUp)
{
    ASSERT_TRUE(namespaceDirectory(Namespace::kUser).ok());
    for (const bool hasProgram : {true, false}) {
        if (!hasProgram)
            fs::remove(_directory + "/bin/KxTSecD");
        fs::remove(socketPath());
        auto listener = bindServiceName(Namespace::kUser, kEchoServiceName);
        ASSERT_TRUE(listener.ok());
        std::thread killer([&] {
            pollfd waiting{listener.value().get(), POLLIN, 0};
            EXPECT_TRUE(sys::pollFds({&waiting, 1}, std::chrono::seconds(20)).ok()); // the client is queued
            listener.value().reset();
        });
        mach_port_t port = MACH_PORT_NULL;
        EXPECT_EQ(bootstrap_look_up(bootstrap_port, kEchoServiceName, &port),
                  hasProgram ? BOOTSTRAP_SUCCESS : BOOTSTRAP_UNKNOWN_SERVICE);
        killer.join();
        if (hasProgram) {
            EXPECT_NE(describe(port).pid, ::getpid());
            drop(port);
        }
    }
}

} // namespace
} // namespace vnt
