#include "services/tsec/TaskDaemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <thread>

#include "platform/base/sys.h"
#include "platform/mach/MessageWire.h"
#include "platform/mach/NameService.h"
#include "platform/mach/OutOfLine.h"
#include "platform/mach/PortTable.h"
#include "tests/support/PrivateAuthority.h"

namespace vnt {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::byte>;

/// The daemon itself, on a thread of this program, with the real authority; clients speak raw packets.
class TaskDaemonTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root to serve the system's namespace";
        _world.emplace(VNT_TEST_PROGRAM_DIR);
        useNamespace(Namespace::kSystem);
        ServiceArguments arguments;
        arguments.which = Namespace::kSystem;
        auto daemon = TaskDaemon::open(std::move(arguments), std::chrono::milliseconds(-1));
        ASSERT_TRUE(daemon.ok()) << daemon.status().message();
        _daemon = daemon.take();
        const sys::SignalBlock block;
        _thread = std::thread([this] { EXPECT_TRUE(_daemon->run().ok()); });
    }
    void TearDown() override
    {
        if (_daemon) {
            _daemon->server().packets().stop();
            _thread.join();
            _daemon.reset();
        }
        _world.reset();
    }

    static UniqueFd connect() { return connectToService(Namespace::kSystem, TaskDaemon::kName).take(); }

    std::optional<test::PrivateAuthority> _world;
    std::unique_ptr<TaskDaemon> _daemon;
    std::thread _thread;
};

/// A request as it stands in a packet.
struct Raw {
    int32_t id = kAttachAccessId;
    bool complex = true;
    std::vector<WireDescriptor> descriptors;
    Bytes body, memory;
    std::vector<int> fds; // beside the reply right
    size_t cut = 0; // bytes that are missing at the end
    size_t extra = 0;

    Raw& number(uint32_t value)
    {
        const auto* first = reinterpret_cast<const std::byte*>(&value);
        body.insert(body.end(), first, first + sizeof value);
        return *this;
    }
    Raw& ndr(uint8_t order = 1)
    {
        NDR_record_t record = NDR_record;
        record.int_rep = order;
        const auto* first = reinterpret_cast<const std::byte*>(&record);
        body.insert(body.end(), first, first + sizeof record);
        return *this;
    }
    Raw& inlineMemory(size_t announced, size_t there)
    {
        descriptors.push_back({WireDescriptorKind::kInlineMemory, 0, announced});
        memory.resize(memory.size() + there);
        return *this;
    }
    Raw& file(int fd, size_t announced)
    {
        descriptors.push_back({WireDescriptorKind::kMemoryFile, 0, announced});
        fds.push_back(fd);
        return *this;
    }
    Raw& port(int fd, uint8_t type = MACH_MSG_TYPE_MOVE_SEND)
    {
        descriptors.push_back({WireDescriptorKind::kPort, type, 0});
        fds.push_back(fd);
        return *this;
    }
    Raw& nullPort()
    {
        descriptors.push_back({WireDescriptorKind::kNullPort, MACH_MSG_TYPE_MOVE_SEND, 0});
        return *this;
    }
};

Raw request(int32_t id)
{
    Raw raw;
    raw.id = id;
    return raw;
}

/// What became of a request: kRefused with the status, or the connection closed.
constexpr int32_t kClosed = -1000;

int32_t send(const UniqueFd& connection, const Raw& raw)
{
    auto reply = sys::socketPair(SOCK_SEQPACKET).take();
    WireHeader header;
    header.id = raw.id;
    header.complex = raw.complex;
    header.replyArrivesAs = MACH_MSG_TYPE_MOVE_SEND_ONCE;
    header.bodyBytes = static_cast<uint32_t>(raw.body.size());
    Bytes packet = encodeMessageHead(header, raw.descriptors);
    packet.insert(packet.end(), raw.body.begin(), raw.body.end());
    packet.insert(packet.end(), raw.memory.begin(), raw.memory.end());
    packet.resize(packet.size() - raw.cut + raw.extra);
    std::vector<int> fds{reply.second.get()};
    fds.insert(fds.end(), raw.fds.begin(), raw.fds.end());
    const iovec part{packet.data(), packet.size()};
    if (trySendPacket(connection.get(), {&part, 1}, fds) != 0)
        return kClosed;
    reply.second.reset();
    pollfd answered{reply.first.get(), POLLIN, 0};
    EXPECT_EQ(sys::pollFds({&answered, 1}, std::chrono::seconds(20)).take(), 1);
    Packet answer;
    if (tryReceivePacket(reply.first.get(), kMaxPacketBytes, answer) != ReceiveOutcome::kPacket)
        return kClosed;
    const auto message = parseMessage(answer);
    EXPECT_TRUE(message.ok());
    int32_t status = 0;
    if (message.ok() && message.value().body.size() >= 12)
        std::memcpy(&status, message.value().body.data() + 8, sizeof status);
    return status;
}

TEST_F(TaskDaemonTest, EveryForgedRequestIsRefusedAlone)
{
    const UniqueFd sealed = makeSealedMemory(Bytes(32)).take();
    const UniqueFd open(::memfd_create("open", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(::ftruncate(open.get(), 32), 0);
    const UniqueFd shrinks(::memfd_create("shrinks", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(::ftruncate(shrinks.get(), 32), 0);
    ASSERT_EQ(::fcntl(shrinks.get(), F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_GROW), 0);
    auto pair = sys::socketPair(SOCK_SEQPACKET).take();
    const int port = pair.first.get();
    auto dead = sys::socketPair(SOCK_SEQPACKET).take();
    dead.second.reset();
    struct Row {
        const char* what;
        Raw raw;
        int32_t expected;
    };
    const auto attach = [] { return request(kAttachAccessId); };
    const auto setUp = [] { return request(kSetupLaunchDaemonId); };
    const auto watch = [] { return request(kWatchPidsId); };
    const Row rows[] = {
        {"unknown id", request(4711).inlineMemory(0, 0).ndr().number(0).number(1), KERN_INVALID_ARGUMENT},
        {"nothing in it",
         [] {
             Raw raw;
             raw.complex = false;
             return raw;
         }(),
         KERN_INVALID_ARGUMENT},
        {"without authorization", attach().inlineMemory(0, 0).ndr().number(0).number(1), KERN_NO_ACCESS},
        {"unknown token", attach().inlineMemory(32, 32).ndr().number(32).number(1), KERN_NO_ACCESS},
        {"unknown token in a file", attach().file(sealed.get(), 32).ndr().number(32).number(1), KERN_NO_ACCESS},
        {"31 bytes", attach().inlineMemory(31, 31).ndr().number(31).number(1), KERN_INVALID_ARGUMENT},
        {"count below the memory", attach().inlineMemory(32, 32).ndr().number(0).number(1), KERN_INVALID_ARGUMENT},
        {"count above the memory", attach().inlineMemory(0, 0).ndr().number(32).number(1), KERN_INVALID_ARGUMENT},
        {"short", attach().inlineMemory(0, 0).ndr().number(0), KERN_INVALID_ARGUMENT},
        {"long", attach().inlineMemory(0, 0).ndr().number(0).number(1).number(1), KERN_INVALID_ARGUMENT},
        {"foreign byte order", attach().inlineMemory(0, 0).ndr(0).number(0).number(1), KERN_INVALID_ARGUMENT},
        {"no descriptor", attach().ndr().number(0).number(1), KERN_INVALID_ARGUMENT},
        // A port descriptor is 4 bytes shorter than one of memory: made up in the body, so that the size is right.
        {"a right for memory", attach().port(port).number(0).ndr().number(0).number(1), KERN_INVALID_ARGUMENT},
        {"two descriptors", attach().inlineMemory(0, 0).inlineMemory(0, 0).number(1), KERN_INVALID_ARGUMENT},
        {"memory that can change", attach().file(open.get(), 32).ndr().number(32).number(1), kClosed},
        {"memory that can shrink", attach().file(shrinks.get(), 32).ndr().number(32).number(1), kClosed},
        {"memory larger than its file", attach().file(sealed.get(), 64).ndr().number(64).number(1), kClosed},
        {"memory that is not there", attach().inlineMemory(32, 8).ndr().number(32).number(1), kClosed},
        {"a socket as memory", attach().file(port, 32).ndr().number(32).number(1), kClosed},
        {"cut",
         [&] {
             Raw raw = attach().ndr();
             raw.cut = 3;
             return raw;
         }(),
         kClosed},
        {"padded",
         [&] {
             Raw raw = attach().ndr();
             raw.extra = 3;
             return raw;
         }(),
         kClosed},
        {"payload count too large", setUp().inlineMemory(0, 0).inlineMemory(5, 5).ndr().number(0).number(6),
         KERN_INVALID_ARGUMENT},
        {"payload without authorization", setUp().inlineMemory(0, 0).inlineMemory(5, 5).ndr().number(0).number(5),
         KERN_NO_ACCESS},
        {"payload, unknown token", setUp().inlineMemory(32, 32).inlineMemory(5, 5).ndr().number(32).number(5),
         KERN_NO_ACCESS},
        {"watch without authorization", watch().inlineMemory(0, 0).port(port).ndr().number(0), KERN_NO_ACCESS},
        {"watch, unknown token", watch().inlineMemory(32, 32).port(port).ndr().number(32), KERN_NO_ACCESS},
        {"watch by a send-once right", watch().inlineMemory(32, 32).port(port, 18).ndr().number(32),
         KERN_INVALID_ARGUMENT},
        {"watch with the descriptors exchanged", watch().port(port).inlineMemory(0, 0).ndr().number(0),
         KERN_INVALID_ARGUMENT},
        {"collect without a watch", request(kGetSymbolicationInfoId).port(port), KERN_INVALID_NAME},
        {"collect by a dead handle", request(kGetSymbolicationInfoId).port(dead.first.get()), KERN_INVALID_NAME},
        {"collect by nothing", request(kStopWatchingPidsId).nullPort(), KERN_INVALID_NAME},
        {"collect by a send-once right", request(kStopWatchingPidsId).port(port, 18), KERN_INVALID_ARGUMENT},
        {"collect by memory", request(kStopWatchingPidsId).inlineMemory(4, 4), KERN_INVALID_ARGUMENT},
    };
    const UniqueFd witness = connect();
    const Raw harmless = attach().inlineMemory(0, 0).ndr().number(0).number(1);
    (void)send(witness, harmless);
    const size_t names = PortTable::shared().countForTesting();
    for (const Row& row : rows) {
        const UniqueFd connection = connect();
        EXPECT_EQ(send(connection, row.raw), row.expected) << row.what;
        // Whatever it was, others are served, and where the packet itself was sound, so is its sender.
        EXPECT_EQ(send(witness, harmless), KERN_NO_ACCESS) << row.what;
        if (row.expected != kClosed) {
            EXPECT_EQ(send(connection, harmless), KERN_NO_ACCESS) << row.what;
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (PortTable::shared().countForTesting() > names && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_LE(PortTable::shared().countForTesting(), names); // rights of refused requests are gone
}

TEST_F(TaskDaemonTest, AFloodOfRequestsThatNobodyReadsIsBounded)
{
    const UniqueFd connection = connect();
    const UniqueFd witness = connect();
    Raw unknownToken = request(kAttachAccessId).inlineMemory(32, 32).ndr().number(32).number(1);
    WireHeader header;
    header.id = kAttachAccessId;
    header.complex = true;
    header.replyArrivesAs = MACH_MSG_TYPE_MOVE_SEND_ONCE;
    header.bodyBytes = static_cast<uint32_t>(unknownToken.body.size());
    Bytes packet = encodeMessageHead(header, unknownToken.descriptors);
    packet.insert(packet.end(), unknownToken.body.begin(), unknownToken.body.end());
    packet.insert(packet.end(), unknownToken.memory.begin(), unknownToken.memory.end());
    std::vector<UniqueFd> unread;
    for (int i = 0; i < 400; ++i) {
        auto reply = sys::socketPair(SOCK_SEQPACKET).take();
        const iovec part{packet.data(), packet.size()};
        const int fd = reply.second.get();
        ASSERT_TRUE(sendPacket(connection.get(), {&part, 1}, {&fd, 1},
                               std::chrono::steady_clock::now() + std::chrono::seconds(20))
                        .ok());
        unread.push_back(std::move(reply.first));
    }
    EXPECT_EQ(send(witness, request(kAttachAccessId).inlineMemory(0, 0).ndr().number(0).number(1)), KERN_NO_ACCESS);
    for (UniqueFd& reply : unread) { // each was answered, one way or the other
        pollfd answered{reply.get(), POLLIN, 0};
        ASSERT_EQ(sys::pollFds({&answered, 1}, std::chrono::seconds(20)).take(), 1);
        Packet answer;
        ASSERT_EQ(tryReceivePacket(reply.get(), kMaxPacketBytes, answer), ReceiveOutcome::kPacket);
    }
}

TEST(TaskDaemon, ServesOnlyAsRootAndOnlyTheSystem)
{
    ServiceArguments arguments;
    arguments.which = Namespace::kUser;
    const auto daemon = TaskDaemon::open(std::move(arguments));
    ASSERT_FALSE(daemon.ok());
    EXPECT_NE(daemon.status().message().find(::geteuid() == 0 ? "--namespace=system" : "as root"), std::string::npos);
    if (::geteuid() != 0)
        return;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ServiceArguments system;
        system.which = Namespace::kSystem;
        ::_exit(::setuid(65534) == 0 && TaskDaemon::open(std::move(system)).code() == Code::kDenied ? 0 : 1);
    }
    int status = -1;
    ::waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
}

} // namespace
} // namespace vnt
