#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>

#include "platform/base/ByteCursor.h"
#include "platform/base/sys.h"
#include "platform/mach/MessageLayout.h"
#include "platform/mach/MessageTransfer.h"
#include "platform/mach/MessageWire.h"
#include "platform/mach/OutOfLine.h"
#include "platform/mach/PortTable.h"

/// A scripted peer that speaks the real packets on the other end of a send right.
namespace vnt {
namespace {

using Bytes = std::vector<std::byte>;

struct Reply {
    mach_msg_header_t header{};
    char rest[256] = {};
};

/// Makes one request over `pair.first`'s right while the script has the request's reply right, and returns the
/// receive status. The request's queue is small enough that no second thread is needed.
class ScriptedCall {
public:
    ScriptedCall()
    {
        auto pair = sys::socketPair(SOCK_SEQPACKET);
        _peer = std::move(pair.value().second);
        _service = PortTable::shared().insertSend(std::move(pair.value().first)).take();
        Reply message;
        message.header.msgh_bits =
            MACH_MSGH_BITS(uint32_t{MACH_MSG_TYPE_COPY_SEND}, uint32_t{MACH_MSG_TYPE_MAKE_SEND_ONCE});
        message.header.msgh_remote_port = _service;
        message.header.msgh_local_port = mig_get_reply_port();
        message.header.msgh_id = 1;
        EXPECT_EQ(mach_msg(&message.header, MACH_SEND_MSG, 28, 0, 0, 0, 0), KERN_SUCCESS);
    }
    ~ScriptedCall()
    {
        EXPECT_EQ(mach_port_deallocate(mach_task_self(), _service), KERN_SUCCESS);
        mig_dealloc_reply_port(mig_get_reply_port());
    }

    UniqueFd takeReplyRight()
    {
        Packet packet;
        EXPECT_EQ(tryReceivePacket(_peer.get(), kMaxPacketBytes, packet), ReceiveOutcome::kPacket);
        EXPECT_EQ(packet.descriptors.size(), 1u);
        return std::move(packet.descriptors.at(0));
    }
    void die() { _peer.reset(); }

    mach_msg_return_t receive()
    {
        return mach_msg(&reply.header, MACH_RCV_MSG | MACH_RCV_TIMEOUT, 0, sizeof reply, mig_get_reply_port(), 20000,
                        0);
    }

    Reply reply;

private:
    UniqueFd _peer;
    mach_port_t _service = MACH_PORT_NULL;
};

int sendRaw(const UniqueFd& to, const Bytes& bytes, const std::vector<int>& descriptors = {})
{
    const iovec part{const_cast<std::byte*>(bytes.data()), bytes.size()};
    return trySendPacket(to.get(), {&part, 1}, descriptors);
}

/// A reply with 8 bytes of body and the given descriptors; inline memory is added by the caller.
Bytes wholeReply(const std::vector<WireDescriptor>& descriptors = {}, uint8_t replyArrivesAs = 0)
{
    WireHeader header;
    header.id = 101;
    header.complex = !descriptors.empty();
    header.bodyBytes = 8;
    header.replyArrivesAs = replyArrivesAs;
    Bytes bytes = encodeMessageHead(header, descriptors);
    bytes.resize(bytes.size() + 8);
    return bytes;
}

TEST(SendOnceRight, ItsEndIsHeardHoweverItComes)
{
    struct Row {
        const char* what;
        std::function<void(ScriptedCall&)> script;
        mach_msg_return_t expected;
        int id;
    };
    const Row rows[] = {
        {"peer dies with the request unread", [](ScriptedCall& c) { c.die(); }, KERN_SUCCESS, MACH_NOTIFY_SEND_ONCE},
        {"right closed unused", [](ScriptedCall& c) { c.takeReplyRight(); }, KERN_SUCCESS, MACH_NOTIFY_SEND_ONCE},
        {"reply, then death",
         [](ScriptedCall& c) {
             sendRaw(c.takeReplyRight(), wholeReply());
             c.die();
         },
         KERN_SUCCESS, 101},
        {"empty packet", [](ScriptedCall& c) { sendRaw(c.takeReplyRight(), {}); }, KERN_SUCCESS, MACH_NOTIFY_SEND_ONCE},
        {"two replies: the first counts",
         [](ScriptedCall& c) {
             const UniqueFd right = c.takeReplyRight();
             sendRaw(right, wholeReply());
             sendRaw(right, wholeReply());
         },
         KERN_SUCCESS, 101},
        {"shut down while held", [](ScriptedCall& c) { ::shutdown(c.takeReplyRight().get(), SHUT_RDWR); }, KERN_SUCCESS,
         MACH_NOTIFY_SEND_ONCE},
    };
    for (const Row& row : rows) {
        ScriptedCall call;
        row.script(call);
        EXPECT_EQ(call.receive(), row.expected) << row.what;
        EXPECT_EQ(call.reply.header.msgh_id, row.id) << row.what;
    }
}

TEST(HostilePeer, DamagedRepliesEndTheCallWithAnError)
{
    const WireDescriptor port{WireDescriptorKind::kPort, MACH_MSG_TYPE_MOVE_SEND, 0};
    const WireDescriptor inlineMemory{WireDescriptorKind::kInlineMemory, 0, 16};
    struct Row {
        const char* what;
        Bytes bytes;
        size_t patchAt;
        uint64_t patch;
        size_t patchBytes;
    };
    Bytes withMemory = wholeReply({inlineMemory});
    withMemory.resize(withMemory.size() + 16);
    const Row rows[] = {
        {"magic", wholeReply(), 0, 0, 4},
        {"version", wholeReply(), 4, 2, 2},
        {"one descriptor too many", withMemory, 6, 2, 2},
        {"one descriptor too few", withMemory, 6, 0, 2},
        {"most descriptors", withMemory, 6, 0xffff, 2},
        {"body one less", wholeReply(), 12, 7, 4},
        {"body one more", wholeReply(), 12, 9, 4},
        {"body near 2^32", wholeReply(), 12, 0xffffffff, 4},
        {"unknown flag", wholeReply(), 16, 2, 1},
        {"descriptors without the complex bit", withMemory, 16, 0, 1},
        {"reply right that is none", wholeReply(), 17, 16, 1},
        {"reply right announced, not sent", wholeReply(), 17, MACH_MSG_TYPE_MOVE_SEND_ONCE, 1},
        {"reserved bytes", wholeReply(), 20, 1, 4},
        {"descriptor kind", withMemory, 24, 5, 1},
        {"memory that is a port", withMemory, 25, MACH_MSG_TYPE_MOVE_SEND, 1},
        {"memory one more", withMemory, 32, 17, 8},
        {"memory one less", withMemory, 32, 15, 8},
        {"memory zero", withMemory, 32, 0, 8},
        {"memory past the limit", withMemory, 32, kMaxOutOfLineBytes + 1, 8},
        {"memory near 2^64", withMemory, 32, ~uint64_t{0}, 8},
        {"port announced, not sent", wholeReply({port}), 0, kMessageMagic, 4},
        {"port of a size", wholeReply({port}), 32, 1, 8},
    };
    for (const Row& row : rows) {
        Bytes bytes = row.bytes;
        std::memcpy(bytes.data() + row.patchAt, &row.patch, row.patchBytes);
        ScriptedCall call;
        ASSERT_EQ(sendRaw(call.takeReplyRight(), bytes), 0);
        EXPECT_EQ(call.receive(), MACH_RCV_INVALID_DATA) << row.what;
    }
    for (size_t length = 1; length < withMemory.size(); ++length) {
        ScriptedCall call;
        ASSERT_EQ(
            sendRaw(call.takeReplyRight(), Bytes(withMemory.begin(), withMemory.begin() + static_cast<long>(length))),
            0);
        EXPECT_EQ(call.receive(), MACH_RCV_INVALID_DATA) << "cut to " << length;
    }
    ScriptedCall whole; // and the undamaged one is taken
    ASSERT_EQ(sendRaw(whole.takeReplyRight(), withMemory), 0);
    EXPECT_EQ(whole.receive(), KERN_SUCCESS);
    NativeAddress address = 0;
    std::memcpy(&address, whole.reply.rest + sizeof(mach_msg_body_t), sizeof address);
    EXPECT_EQ(vm_deallocate(mach_task_self(), static_cast<vm_address_t>(address), 16), KERN_SUCCESS);
}

UniqueFd memoryFile(size_t size, int seals, unsigned flags = 0)
{
    UniqueFd fd(::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING | flags));
    if (fd && (::ftruncate(fd.get(), static_cast<off_t>(size)) != 0 || ::fcntl(fd.get(), F_ADD_SEALS, seals) != 0))
        fd.reset();
    return fd;
}

TEST(HostilePeer, DescriptorsOfWrongNumberOrKindAreRefused)
{
    constexpr int kAll = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
    const WireDescriptor port{WireDescriptorKind::kPort, MACH_MSG_TYPE_MOVE_SEND, 0};
    const WireDescriptor memory{WireDescriptorKind::kMemoryFile, 0, 8192};
    auto socket = sys::socketPair(SOCK_SEQPACKET).take();
    auto stream = sys::socketPair(SOCK_STREAM).take();
    auto pipe = sys::makePipe().take();
    const UniqueFd good = memoryFile(8192, kAll);
    const UniqueFd writable = memoryFile(8192, F_SEAL_SHRINK | F_SEAL_GROW);
    const UniqueFd shrinks = memoryFile(8192, F_SEAL_GROW | F_SEAL_WRITE);
    const UniqueFd small = memoryFile(4096, kAll);
    const UniqueFd huge = memoryFile(size_t{2} << 20, kAll, MFD_HUGETLB); // may be missing on this kernel
    const WireDescriptor hugeMemory{WireDescriptorKind::kMemoryFile, 0, uint64_t{2} << 20};
    struct Row {
        const char* what;
        std::vector<WireDescriptor> announced;
        std::vector<int> sent;
        mach_msg_return_t expected;
    };
    std::vector<Row> rows = {
        {"extra right", {port}, {socket.first.get(), socket.second.get()}, MACH_RCV_INVALID_DATA},
        {"right that nobody announced", {}, {socket.first.get()}, MACH_RCV_INVALID_DATA},
        {"right missing", {port, port}, {socket.first.get()}, MACH_RCV_INVALID_DATA},
        {"stream socket as a right", {port}, {stream.first.get()}, MACH_RCV_INVALID_DATA},
        {"memory as a right", {port}, {good.get()}, MACH_RCV_INVALID_DATA},
        {"pipe as a right", {port}, {pipe.first.get()}, MACH_RCV_BODY_ERROR},
        {"right as memory", {memory}, {socket.first.get()}, MACH_RCV_INVALID_DATA},
        {"memory that can be written", {memory}, {writable.get()}, MACH_RCV_INVALID_DATA},
        {"memory that can shrink", {memory}, {shrinks.get()}, MACH_RCV_INVALID_DATA},
        {"memory smaller than announced", {memory}, {small.get()}, MACH_RCV_INVALID_DATA},
        {"a right, then bad memory", {port, memory}, {socket.first.get(), small.get()}, MACH_RCV_INVALID_DATA},
        {"more than fit a message", std::vector<WireDescriptor>(64, port), std::vector<int>(65, socket.first.get()),
         MACH_RCV_INVALID_DATA},
    };
    if (huge)
        rows.push_back({"huge pages", {hugeMemory}, {huge.get()}, MACH_RCV_INVALID_DATA});
    const size_t names = PortTable::shared().countForTesting();
    for (const Row& row : rows) {
        ScriptedCall call;
        ASSERT_EQ(sendRaw(call.takeReplyRight(), wholeReply(row.announced), row.sent), 0) << row.what;
        EXPECT_EQ(call.receive(), row.expected) << row.what;
    }
    EXPECT_EQ(PortTable::shared().countForTesting(), names); // rights of refused messages are gone

    // What is closed on a thread of its own is closed at last: only our own end of the pipe's reader is left.
    pipe.first.reset();
    pollfd closed{pipe.second.get(), 0, 0};
    const auto ready = sys::pollFds({&closed, 1}, std::chrono::seconds(20));
    EXPECT_TRUE(ready.ok() && ready.value() == 1 && (closed.revents & POLLERR) != 0);
}

TEST(HostilePeer, APacketPastTheLimitIsRefused)
{
    auto pair = sys::socketPair(SOCK_SEQPACKET).take();
    int size = 1 << 20;
    ::setsockopt(pair.first.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    if (sendRaw(pair.first, Bytes(kMaxPacketBytes + 1)) != 0)
        GTEST_SKIP() << "needs net.core.wmem_max above " << kMaxPacketBytes;
    Packet packet;
    EXPECT_EQ(tryReceivePacket(pair.second.get(), kMaxPacketBytes, packet), ReceiveOutcome::kRejected);
    ASSERT_EQ(sendRaw(pair.first, Bytes(kMaxPacketBytes)), 0);
    EXPECT_EQ(tryReceivePacket(pair.second.get(), kMaxPacketBytes, packet), ReceiveOutcome::kPacket);
}

TEST(HostilePeer, RubbishOnAReceiveRightDoesNotHoldUpOthers)
{
    mach_port_t port = MACH_PORT_NULL;
    ASSERT_EQ(mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, &port), KERN_SUCCESS);
    const Ref<Port> object = PortTable::shared().receiveRight(port);
    const UniqueFd right(::dup(object->sendEnd()));
    ASSERT_EQ(sendRaw(right, Bytes(40)), 0);
    ASSERT_EQ(sendRaw(right, {}), 0);
    ASSERT_EQ(sendRaw(right, wholeReply()), 0);
    Reply message;
    EXPECT_EQ(mach_msg(&message.header, MACH_RCV_MSG | MACH_RCV_TIMEOUT, 0, sizeof message, port, 20000, 0),
              KERN_SUCCESS);
    EXPECT_EQ(message.header.msgh_id, 101);
    // A holder can end the port for all; the owner must hear of it rather than spin.
    ::shutdown(right.get(), SHUT_RDWR);
    EXPECT_EQ(mach_msg(&message.header, MACH_RCV_MSG, 0, sizeof message, port, 0, 0), MACH_RCV_PORT_DIED);
    EXPECT_EQ(mach_port_mod_refs(mach_task_self(), port, MACH_PORT_RIGHT_RECEIVE, -1), KERN_SUCCESS);
}

} // namespace
} // namespace vnt
