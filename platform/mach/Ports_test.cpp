#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <future>
#include <thread>

#include "platform/base/sys.h"
#include "platform/mach/MessageTransfer.h"
#include "platform/mach/OutOfLine.h"
#include "platform/mach/PortTable.h"
#include "platform/mach/RoutineLayouts.h"

namespace vnt {
namespace {

constexpr mach_msg_timeout_t kGenerousMs = 20000;

#pragma pack(push, 4)
struct Simple {
    mach_msg_header_t header{};
    uint32_t value = 0;
};
struct OnePort {
    mach_msg_header_t header{};
    mach_msg_body_t body{1};
    PortDescriptor port{};
};
struct OneMemory {
    mach_msg_header_t header{};
    mach_msg_body_t body{1};
    OutOfLineDescriptor<NativeAddress> memory{};
    uint32_t value = 0;
};
#pragma pack(pop)

mach_port_t newPort()
{
    mach_port_t port = MACH_PORT_NULL;
    EXPECT_EQ(mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, &port), KERN_SUCCESS);
    return port;
}

void destroyPort(mach_port_t port)
{
    EXPECT_EQ(mach_port_mod_refs(mach_task_self(), port, MACH_PORT_RIGHT_RECEIVE, -1), KERN_SUCCESS);
}

template <typename Message>
mach_msg_return_t send(Message& message, mach_port_t to, uint32_t type = MACH_MSG_TYPE_MAKE_SEND, uint32_t bits = 0)
{
    message.header.msgh_bits = MACH_MSGH_BITS(type, 0u) | bits;
    message.header.msgh_remote_port = to;
    message.header.msgh_local_port = MACH_PORT_NULL;
    return mach_msg(&message.header, MACH_SEND_MSG | MACH_SEND_TIMEOUT, sizeof message, 0, 0, kGenerousMs, 0);
}

template <typename Message>
mach_msg_return_t receive(Message& message, mach_port_t from, mach_msg_timeout_t timeoutMs = kGenerousMs)
{
    return mach_msg(&message.header, MACH_RCV_MSG | MACH_RCV_TIMEOUT, 0, sizeof message, from, timeoutMs, 0);
}

/// Answers every request on `port` with its value plus one until a value of 0 comes.
void serveIncrements(mach_port_t port)
{
    for (;;) {
        Simple message;
        ASSERT_EQ(receive(message, port), KERN_SUCCESS);
        ASSERT_EQ(message.header.msgh_size, sizeof message);
        const bool last = message.value == 0;
        ++message.value;
        message.header.msgh_id += 100;
        ASSERT_EQ(send(message, message.header.msgh_remote_port, MACH_MSG_TYPE_MOVE_SEND_ONCE), KERN_SUCCESS);
        if (last)
            return;
    }
}

uint32_t callIncrement(mach_port_t port, uint32_t value)
{
    Simple message;
    message.value = value;
    message.header.msgh_id = 7;
    message.header.msgh_bits =
        MACH_MSGH_BITS(uint32_t{MACH_MSG_TYPE_MAKE_SEND}, uint32_t{MACH_MSG_TYPE_MAKE_SEND_ONCE});
    message.header.msgh_remote_port = port;
    message.header.msgh_local_port = mig_get_reply_port();
    EXPECT_EQ(mach_msg(&message.header, MACH_SEND_MSG | MACH_RCV_MSG, sizeof message, sizeof message,
                       mig_get_reply_port(), 0, 0),
              KERN_SUCCESS);
    EXPECT_EQ(message.header.msgh_id, 107);
    return message.value;
}

TEST(MachMsg, ManyThreadsGetTheirOwnAnswersAndLeaveNoNames)
{
    const size_t before = PortTable::shared().countForTesting();
    const mach_port_t port = newPort();
    std::thread server(serveIncrements, port);
    std::vector<std::thread> clients;
    for (uint32_t client = 1; client <= 8; ++client) {
        clients.emplace_back([port, client] {
            for (uint32_t i = 0; i < 100; ++i)
                ASSERT_EQ(callIncrement(port, client * 1000 + i), client * 1000 + i + 1);
        });
    }
    for (std::thread& client : clients)
        client.join();
    std::thread([port] { callIncrement(port, 0); }).join();
    server.join();
    destroyPort(port);
    EXPECT_EQ(PortTable::shared().countForTesting(), before); // the threads' reply ports too
}

TEST(MachMsg, MemoryOfEverySizeArrivesAsAPrivateCopy)
{
    const mach_port_t port = newPort();
    for (const size_t size :
         {size_t{0}, size_t{1}, size_t{32}, kMaxInlineMemoryBytes, kMaxInlineMemoryBytes + 1, size_t{1} << 20}) {
        SCOPED_TRACE(size);
        std::vector<std::byte> content(size);
        for (size_t i = 0; i < size; ++i)
            content[i] = static_cast<std::byte>(i * 7 + (i >> 8));
        OneMemory message;
        message.memory.address = reinterpret_cast<uintptr_t>(content.data());
        message.memory.size = static_cast<uint32_t>(size);
        message.memory.flags = outOfLineFlags(false);
        message.value = 99;
        ASSERT_EQ(send(message, port, MACH_MSG_TYPE_MAKE_SEND, MACH_MSGH_BITS_COMPLEX), KERN_SUCCESS);

        OneMemory received;
        ASSERT_EQ(receive(received, port), KERN_SUCCESS);
        EXPECT_EQ(received.header.msgh_size, sizeof received);
        EXPECT_EQ(received.value, 99u);
        EXPECT_EQ(descriptorType(received.memory.flags), uint32_t{MACH_MSG_OOL_DESCRIPTOR});
        ASSERT_EQ(received.memory.size, size);
        auto* memory = reinterpret_cast<std::byte*>(static_cast<uintptr_t>(received.memory.address));
        EXPECT_EQ(regionSize(memory), size);
        if (size != 0) {
            EXPECT_EQ(std::memcmp(memory, content.data(), size), 0);
            memory[size - 1] = std::byte{0}; // writable
        }
        EXPECT_EQ(vm_deallocate(mach_task_self(), reinterpret_cast<uintptr_t>(memory), size), KERN_SUCCESS);
        if (size != 0) {
            EXPECT_EQ(vm_deallocate(mach_task_self(), reinterpret_cast<uintptr_t>(memory), size), KERN_INVALID_ADDRESS);
        }
    }
    destroyPort(port);
}

TEST(MachMsg, WhatCannotBeSentIsRefusedAndKeepsItsRights)
{
    const mach_port_t port = newPort();
    Simple sendRight; // a send right of our own to try with
    ASSERT_EQ(send(sendRight, port), KERN_SUCCESS);
    ASSERT_EQ(receive(sendRight, port), KERN_SUCCESS);

    struct Row {
        const char* what;
        mach_port_t to;
        uint32_t type;
        mach_port_t descriptor;
        uint32_t descriptorFlags;
        mach_msg_return_t expected;
    };
    const Row rows[] = {
        {"null destination", MACH_PORT_NULL, MACH_MSG_TYPE_COPY_SEND, 0, portFlags(19), MACH_SEND_INVALID_DEST},
        {"unknown destination", 0x7777, MACH_MSG_TYPE_COPY_SEND, 0, portFlags(19), MACH_SEND_INVALID_DEST},
        {"no send right", port, MACH_MSG_TYPE_COPY_SEND, 0, portFlags(19), MACH_SEND_INVALID_DEST},
        {"no such disposition", port, 99, 0, portFlags(19), MACH_SEND_INVALID_HEADER},
        {"unknown descriptor type", port, MACH_MSG_TYPE_MAKE_SEND, 0, 9u << 24, MACH_SEND_INVALID_TYPE},
        {"unknown port in the body", port, MACH_MSG_TYPE_MAKE_SEND, 0x7777, portFlags(19), MACH_SEND_INVALID_RIGHT},
        {"receive right in the body", port, MACH_MSG_TYPE_MAKE_SEND, port, portFlags(16), MACH_SEND_INVALID_RIGHT},
        {"right that is not held", port, MACH_MSG_TYPE_MAKE_SEND, port, portFlags(17), MACH_SEND_INVALID_RIGHT},
    };
    for (const Row& row : rows) {
        OnePort message;
        message.port = {row.descriptor, 0, row.descriptorFlags};
        EXPECT_EQ(send(message, row.to, row.type, MACH_MSGH_BITS_COMPLEX), row.expected) << row.what;
    }

    OnePort cut;
    cut.header.msgh_bits = MACH_MSGH_BITS(uint32_t{MACH_MSG_TYPE_MAKE_SEND}, 0u) | MACH_MSGH_BITS_COMPLEX;
    cut.header.msgh_remote_port = port;
    cut.port = {MACH_PORT_NULL, 0, portFlags(19)};
    for (const mach_msg_size_t size : {0u, 23u, 24u, 27u, 28u, 39u})
        EXPECT_EQ(mach_msg(&cut.header, MACH_SEND_MSG, size, 0, 0, 0, 0), MACH_SEND_INVALID_HEADER) << size;
    EXPECT_EQ(mach_msg(&cut.header, MACH_SEND_MSG, 65537, 0, 0, 0, 0), MACH_SEND_TOO_LARGE);
    cut.body.msgh_descriptor_count = 0xffffffff;
    EXPECT_EQ(mach_msg(&cut.header, MACH_SEND_MSG, sizeof cut, 0, 0, 0, 0), MACH_SEND_TOO_LARGE);
    EXPECT_EQ(receive(cut, port, 0), MACH_RCV_TIMED_OUT); // nothing of all that left
    destroyPort(port);
}

TEST(MachMsg, AFullQueueTimesOutAndADeadReceiverIsSeen)
{
    const mach_port_t port = newPort();
    OnePort carrier;
    carrier.port = {port, 0, portFlags(MACH_MSG_TYPE_MAKE_SEND)};
    const mach_port_t box = newPort();
    ASSERT_EQ(send(carrier, box, MACH_MSG_TYPE_MAKE_SEND, MACH_MSGH_BITS_COMPLEX), KERN_SUCCESS);
    ASSERT_EQ(receive(carrier, box), KERN_SUCCESS);
    ASSERT_EQ(carrier.port.name, port); // a right that comes home gets its own name

    mach_msg_return_t status = KERN_SUCCESS;
    for (int i = 0; i < 100000 && status == KERN_SUCCESS; ++i) {
        Simple message;
        message.header.msgh_bits = MACH_MSGH_BITS(uint32_t{MACH_MSG_TYPE_COPY_SEND}, 0u);
        message.header.msgh_remote_port = port;
        status = mach_msg(&message.header, MACH_SEND_MSG | MACH_SEND_TIMEOUT, sizeof message, 0, 0, 1, 0);
    }
    EXPECT_EQ(status, MACH_SEND_TIMED_OUT);

    destroyPort(port);
    Simple message;
    EXPECT_EQ(send(message, port, MACH_MSG_TYPE_COPY_SEND), MACH_SEND_INVALID_DEST);
    EXPECT_EQ(receive(message, port), MACH_RCV_INVALID_NAME);
    EXPECT_EQ(mach_port_deallocate(mach_task_self(), port), KERN_SUCCESS); // the dead name
    EXPECT_EQ(mach_port_deallocate(mach_task_self(), port), KERN_INVALID_NAME);
    destroyPort(box);
}

void awaitWaiter(mach_port_t port)
{
    const Ref<Port> object = PortTable::shared().receiveRight(port);
    while (object->waitersForTesting() == 0) // the test's time limit ends this
        std::this_thread::yield();
}

TEST(MachMsg, DestroyingAReceiveRightWakesItsWaiter)
{
    for (const bool useReplyPort : {false, true}) {
        std::promise<mach_port_t> waitsOn;
        auto name = waitsOn.get_future();
        std::thread waiter([&] {
            const mach_port_t port = useReplyPort ? mig_get_reply_port() : newPort();
            waitsOn.set_value(port);
            Simple message;
            EXPECT_EQ(mach_msg(&message.header, MACH_RCV_MSG, 0, sizeof message, port, 0, 0), MACH_RCV_PORT_DIED);
        });
        const mach_port_t port = name.get();
        awaitWaiter(port);
        destroyPort(port);
        waiter.join();
    }
}

TEST(MachMsg, ASendOnceRightMadeDuringTheWaitIsWaitedFor)
{
    const mach_port_t port = newPort();
    const mach_port_t box = newPort();
    std::thread waiter([&] {
        Simple message;
        EXPECT_EQ(receive(message, port), KERN_SUCCESS);
        EXPECT_EQ(message.header.msgh_id, MACH_NOTIFY_SEND_ONCE);
    });
    awaitWaiter(port);
    OnePort carrier;
    carrier.port = {port, 0, portFlags(MACH_MSG_TYPE_MAKE_SEND_ONCE)};
    ASSERT_EQ(send(carrier, box, MACH_MSG_TYPE_MAKE_SEND, MACH_MSGH_BITS_COMPLEX), KERN_SUCCESS);
    destroyPort(box); // the right dies in the queue
    waiter.join();
    destroyPort(port);
}

TEST(MachMsg, TooSmallABufferDestroysTheMessageWithItsRights)
{
    const mach_port_t port = newPort();
    const mach_port_t traveller = newPort();
    const size_t before = PortTable::shared().countForTesting();
    OnePort message;
    message.port = {traveller, 0, portFlags(MACH_MSG_TYPE_MAKE_SEND_ONCE)};
    ASSERT_EQ(send(message, port, MACH_MSG_TYPE_MAKE_SEND, MACH_MSGH_BITS_COMPLEX), KERN_SUCCESS);
    Simple small;
    EXPECT_EQ(receive(small, port), MACH_RCV_TOO_LARGE);
    EXPECT_EQ(PortTable::shared().countForTesting(), before);
    EXPECT_EQ(receive(small, traveller), KERN_SUCCESS);
    EXPECT_EQ(small.header.msgh_id, MACH_NOTIFY_SEND_ONCE);
    destroyPort(traveller);
    destroyPort(port);
}

TEST(MachMsg, ANullOrDeadNameTravelsAsSuch)
{
    const mach_port_t port = newPort();
    for (const mach_port_t name : {MACH_PORT_NULL, MACH_PORT_DEAD}) {
        OnePort message;
        message.port = {name, 0, portFlags(MACH_MSG_TYPE_COPY_SEND)};
        ASSERT_EQ(send(message, port, MACH_MSG_TYPE_MAKE_SEND, MACH_MSGH_BITS_COMPLEX), KERN_SUCCESS);
        ASSERT_EQ(receive(message, port), KERN_SUCCESS);
        EXPECT_EQ(message.port.name, name);
        EXPECT_EQ(portDisposition(message.port.flags), uint32_t{MACH_MSG_TYPE_MOVE_SEND});
    }
    destroyPort(port);
}

TEST(MachMsg, DescriptorsLostToAFullTableEndTheCallNotTheProcess)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "needs a build without sanitizers: their own checks need descriptors while the table is full";
#endif
    const mach_port_t port = newPort();
    OnePort message;
    message.port = {port, 0, portFlags(MACH_MSG_TYPE_MAKE_SEND)};
    ASSERT_EQ(send(message, port, MACH_MSG_TYPE_MAKE_SEND, MACH_MSGH_BITS_COMPLEX), KERN_SUCCESS);
    rlimit saved{};
    ::getrlimit(RLIMIT_NOFILE, &saved);
    auto highest = sys::makeEventFd();
    ASSERT_TRUE(highest.ok());
    auto event = sys::makeEventFd(); // the wait needs one: fill up to it, then make room for exactly that
    const rlimit full{static_cast<rlim_t>(highest.value().get()) + 1, saved.rlim_max};
    event.value().reset();
    highest.value().reset();
    ::setrlimit(RLIMIT_NOFILE, &full);
    EXPECT_EQ(receive(message, port, 100), MACH_RCV_TIMED_OUT); // dropped: it came by a send right
    ::setrlimit(RLIMIT_NOFILE, &saved);
    Simple next;
    EXPECT_EQ(send(next, port), KERN_SUCCESS);
    EXPECT_EQ(receive(next, port), KERN_SUCCESS);
    destroyPort(port);
}

TEST(PortNames, RightsAreCountedByKindUnderOneName)
{
    const mach_port_t task = mach_task_self();
    const mach_port_t port = newPort();
    const mach_port_t box = newPort();
    for (int i = 0; i < 2; ++i) {
        OnePort carrier;
        carrier.port = {port, 0, portFlags(MACH_MSG_TYPE_MAKE_SEND)};
        ASSERT_EQ(send(carrier, box, MACH_MSG_TYPE_MAKE_SEND, MACH_MSGH_BITS_COMPLEX), KERN_SUCCESS);
        ASSERT_EQ(receive(carrier, box), KERN_SUCCESS);
        EXPECT_EQ(carrier.port.name, port);
    }
    struct Row {
        const char* what;
        mach_port_t name;
        mach_port_right_t right;
        mach_port_delta_t delta;
        kern_return_t expected;
    };
    const Row rows[] = {
        {"unknown name", 0x7777, MACH_PORT_RIGHT_SEND, -1, KERN_INVALID_NAME},
        {"unknown kind", port, 77, -1, KERN_INVALID_VALUE},
        {"kind not held", port, MACH_PORT_RIGHT_SEND_ONCE, -1, KERN_INVALID_RIGHT},
        {"below zero", port, MACH_PORT_RIGHT_SEND, -3, KERN_INVALID_VALUE},
        {"past the limit", port, MACH_PORT_RIGHT_SEND, 0x7fffffff, KERN_INVALID_VALUE},
        {"second receive right", port, MACH_PORT_RIGHT_RECEIVE, 1, KERN_INVALID_VALUE},
        {"one more", port, MACH_PORT_RIGHT_SEND, 1, KERN_SUCCESS},
        {"two of three", port, MACH_PORT_RIGHT_SEND, -2, KERN_SUCCESS},
        {"the receive right", port, MACH_PORT_RIGHT_RECEIVE, -1, KERN_SUCCESS},
        {"send is dead now", port, MACH_PORT_RIGHT_SEND, -1, KERN_INVALID_RIGHT},
        {"the dead name", port, MACH_PORT_RIGHT_DEAD_NAME, -1, KERN_SUCCESS},
        {"nothing left", port, MACH_PORT_RIGHT_DEAD_NAME, -1, KERN_INVALID_NAME},
    };
    for (const Row& row : rows)
        EXPECT_EQ(mach_port_mod_refs(task, row.name, row.right, row.delta), row.expected) << row.what;
    EXPECT_EQ(mach_port_mod_refs(task + 4, box, MACH_PORT_RIGHT_RECEIVE, -1), KERN_INVALID_ARGUMENT);
    mach_port_t name = 0;
    EXPECT_EQ(mach_port_allocate(task, MACH_PORT_RIGHT_SEND, &name), KERN_INVALID_ARGUMENT);
    destroyPort(box);
}

TEST(Mig, CopiesNamesCutToTheLimit)
{
    struct Row {
        const char* source;
        int length, expected;
        const char* result;
    };
    const Row rows[] = {{"server", 32, 7, "server"}, {"", 32, 1, ""},      {"server", 7, 7, "server"},
                        {"server", 6, 6, "serve"},   {"server", 1, 1, ""}, {"server", 0, 0, "*"},
                        {"server", -5, 0, "*"}};
    for (const Row& row : rows) {
        char buffer[40] = "*";
        EXPECT_EQ(mig_strncpy(buffer, row.source, row.length), row.expected) << row.length;
        EXPECT_STREQ(buffer, row.result) << row.length;
    }
}

TEST(Mig, AReplyPortIsTheThreadsUntilDestroyed)
{
    const mach_port_t port = mig_get_reply_port();
    mig_put_reply_port(port);
    EXPECT_EQ(mig_get_reply_port(), port);
    mach_port_t other = port;
    std::thread([&] { other = mig_get_reply_port(); }).join();
    EXPECT_NE(other, port);
    mig_dealloc_reply_port(other); // not this thread's: nothing happens
    mig_dealloc_reply_port(port);
    EXPECT_NE(mig_get_reply_port(), port);
    mig_dealloc_reply_port(mig_get_reply_port());
}

} // namespace
} // namespace vnt
