#include <Vantora/TaskDaemon.h>
#include <gtest/gtest.h>

#include "Vantora/privileged/AuthorizedRpc.h"
#include "Vantora/privileged/DaemonRpc.h"
#include "Vantora/privileged/ScriptedDaemon_test.h"
#include "platform/mach/OutOfLine.h"
#include "platform/mach/PortTable.h"

namespace vnt {
namespace {

using namespace test;

constexpr bool k64 = sizeof(void*) == 8;
const std::vector<std::byte> kMemory(kFileBytes, std::byte{7});

enum Routine { kAttach, kSetup, kWatch, kGet, kStop, kCreate };
const Routine kRoutines[] = {kAttach, kSetup, kWatch, kGet, kStop, kCreate};

/// One call of a routine and everything it might store.
struct Outcome {
    kern_return_t status = 0;
    mach_port_t task = 0x77;
    void* data = reinterpret_cast<void*>(uintptr_t{0x77});
    uint32_t length = 0x77;
    std::string address;

    [[nodiscard]] bool untouched() const
    {
        return task == 0x77 && data == reinterpret_cast<void*>(uintptr_t{0x77}) && length == 0x77;
    }
};

/// Names in use; the daemon's thread in this process may be about to give up the reply right that it has used.
bool namesSettleAt(size_t expected)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (PortTable::shared().countForTesting() != expected && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    return PortTable::shared().countForTesting() == expected;
}

class TaskDaemonRpc : public testing::Test {
protected:
    void SetUp() override
    {
        _port = _daemon.connect();
        ASSERT_EQ(mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, &_handle), KERN_SUCCESS);
    }
    void TearDown() override
    {
        EXPECT_EQ(mach_port_mod_refs(mach_task_self(), _handle, MACH_PORT_RIGHT_RECEIVE, -1), KERN_SUCCESS);
        EXPECT_EQ(mach_port_deallocate(mach_task_self(), _port), KERN_SUCCESS);
        mig_dealloc_reply_port(mig_get_reply_port());
    }

    Outcome call(Routine routine, mach_port_t to = MACH_PORT_NULL)
    {
        const char form[32] = "authorization";
        const mach_port_t port = to == MACH_PORT_NULL ? _port : to;
        Outcome outcome;
        std::vector<char> address(32000, 'x');
        switch (routine) {
        case kAttach:
            outcome.status = attach_access(port, form, sizeof form, 1234, &outcome.task);
            break;
        case kSetup:
            outcome.status = setup_launch_daemon(port, form, sizeof form, kMemory.data(), kFileBytes);
            break;
        case kWatch:
            outcome.status = watch_pids(port, form, sizeof form, _handle);
            break;
        case kGet:
            outcome.status = get_symbolication_info(port, _handle, &outcome.data, &outcome.length);
            break;
        case kStop:
            outcome.status = stop_watching_pids(port, _handle, &outcome.data, &outcome.length);
            break;
        case kCreate:
            outcome.status = create_server(port, form, sizeof form, "server", address.data());
            outcome.address = outcome.status == KERN_SUCCESS ? address.data() : "";
            break;
        }
        return outcome;
    }
    void answerWith(std::function<ScriptedReply()> make)
    {
        _daemon.onRequest([make = std::move(make)](ReceivedMessage& message) { make().send(message); });
    }

    ScriptedDaemon _daemon;
    mach_port_t _port = MACH_PORT_NULL, _handle = MACH_PORT_NULL;
};

TEST_F(TaskDaemonRpc, RequestsHaveTheirLayouts)
{
    struct Row {
        Routine routine;
        int32_t id;
        size_t size, descriptors;
    };
    const Row rows[] = {
        {kAttach, 68888, k64 ? 60u : 56u, 1},
        {kSetup, 68889, k64 ? 76u : 68u, 2},
        {kWatch, 68890, k64 ? 68u : 64u, 2},
        {kGet, 68891, 40, 1},
        {kStop, 68892, 40, 1},
        {kCreate, 12345, k64 ? 72u : 68u, 1},
    };
    for (const Row& row : rows) {
        _daemon.onRequest([&row](ReceivedMessage& message) {
            EXPECT_EQ(message.header().msgh_id, row.id);
            EXPECT_EQ(message.bytes().size(), row.size) << row.id;
            EXPECT_NE(message.header().msgh_bits & MACH_MSGH_BITS_COMPLEX, 0u);
            uint32_t descriptors = 0;
            std::memcpy(&descriptors, message.bytes().data() + 24, 4);
            EXPECT_EQ(descriptors, row.descriptors) << row.id;
            if (row.routine == kAttach) {
                const auto* request = message.as<AttachAccessRequest<NativeAddress>>();
                EXPECT_EQ(request->pid, 1234);
                EXPECT_EQ(request->authorizationCount, 32u);
            } else if (row.routine == kSetup) {
                EXPECT_EQ(message.as<SetupLaunchDaemonRequest<NativeAddress>>()->payloadCount, kFileBytes);
                EXPECT_EQ(message.memory(1).size(), kFileBytes);
            } else if (row.routine == kWatch) {
                EXPECT_NE(message.takePort(1), MACH_PORT_NULL);
            }
            if (row.routine != kGet && row.routine != kStop) {
                EXPECT_STREQ(reinterpret_cast<const char*>(message.memory(0).data()), "authorization");
            }
            statusReply(99).send(message);
        });
        EXPECT_EQ(call(row.routine).status, 99) << row.id;
        // The right that the script took is the process's own handle, with one more reference.
        if (row.routine == kWatch) {
            EXPECT_EQ(mach_port_mod_refs(mach_task_self(), _handle, MACH_PORT_RIGHT_SEND, -1), KERN_SUCCESS);
        }
    }
    // A name is cut to 31,999 bytes and its NUL.
    _daemon.onRequest([](ReceivedMessage& message) {
        EXPECT_EQ(message.bytes().size(), k64 ? 32064u : 32060u);
        statusReply(98).send(message);
    });
    for (const size_t length : {size_t{31999}, size_t{32000}, size_t{40000}}) {
        char address[32000];
        EXPECT_EQ(create_server(_port, nullptr, 0, std::string(length, 'n').c_str(), address), 98) << length;
    }
}

/// What each routine makes of one reply.
struct ReplyRow {
    const char* what;
    std::function<ScriptedReply(mach_port_t)> make; ///< its argument is a receive right of the daemon's
    kern_return_t attach, status, data, create;

    [[nodiscard]] kern_return_t expected(Routine routine) const
    {
        return routine == kAttach                    ? attach
            : routine == kSetup || routine == kWatch ? status
            : routine == kCreate                     ? create
                                                     : data;
    }
};

using Make = ScriptedReply;
constexpr kern_return_t kType = MIG_TYPE_ERROR;

const ReplyRow kReplyRows[] = {
    {"another id",
     [](mach_port_t) {
         ScriptedReply reply = statusReply(5);
         reply.idDistance = 101;
         return reply;
     },
     MIG_REPLY_MISMATCH, MIG_REPLY_MISMATCH, MIG_REPLY_MISMATCH, MIG_REPLY_MISMATCH},
    {"another id, with a right", // and as large as every routine can take
     [](mach_port_t port) {
         ScriptedReply reply;
         reply.idDistance = 1;
         return reply.addPort(port, MACH_MSG_TYPE_MAKE_SEND);
     },
     MIG_REPLY_MISMATCH, MIG_REPLY_MISMATCH, MIG_REPLY_MISMATCH, MIG_REPLY_MISMATCH},
    {"refused", [](mach_port_t) { return statusReply(5); }, 5, 5, 5, 5},
    {"refused by another byte order", [](mach_port_t) { return statusReply(5, true); }, 5, 5, 5, 5},
    {"success without anything", [](mach_port_t) { return statusReply(0); }, kType, 0, kType, kType},
    {"a status too short", [](mach_port_t) { return Make().addBytes(8); }, kType, kType, kType, kType},
    {"a status too long", [](mach_port_t) { return statusReply(5).addBytes(4); }, kType, kType, kType, kType},
    {"only a header", [](mach_port_t) { return Make(); }, kType, kType, kType, kType},
    {"what looks like a right, without a descriptor",
     [](mach_port_t port) {
         ScriptedReply reply;
         reply.complex = true;
         return reply.add(PortDescriptor{port, 0, portFlags(MACH_MSG_TYPE_MOVE_SEND)});
     },
     kType, kType, kType, kType},
    {"a right", [](mach_port_t port) { return Make().addPort(port, MACH_MSG_TYPE_MAKE_SEND); }, 0, kType, kType, kType},
    {"a send-once right", [](mach_port_t port) { return Make().addPort(port, MACH_MSG_TYPE_MAKE_SEND_ONCE); }, kType,
     kType, kType, kType},
    {"a right and more", [](mach_port_t port) { return Make().addPort(port, MACH_MSG_TYPE_MAKE_SEND).addBytes(4); },
     kType, kType, kType, kType},
};

TEST_F(TaskDaemonRpc, EveryReplyIsCheckedAndWhatARefusedOneBroughtIsGivenBack)
{
    mach_port_t right = MACH_PORT_NULL;
    ASSERT_EQ(mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, &right), KERN_SUCCESS);
    (void)mig_get_reply_port();
    const size_t names = PortTable::shared().countForTesting();
    for (const ReplyRow& row : kReplyRows) {
        for (const Routine routine : kRoutines) {
            answerWith([&] { return row.make(right); });
            const Outcome outcome = call(routine);
            EXPECT_EQ(outcome.status, row.expected(routine)) << row.what << ", routine " << routine;
            EXPECT_TRUE(outcome.status == 0 || outcome.untouched()) << row.what << ", routine " << routine;
            if (routine == kAttach && outcome.status == KERN_SUCCESS) {
                EXPECT_EQ(outcome.task, right); // known by its socket
                EXPECT_EQ(mach_port_deallocate(mach_task_self(), outcome.task), KERN_SUCCESS);
            }
            // No reference has stayed behind, neither to the daemon's port nor as a name of its own.
            EXPECT_EQ(mach_port_mod_refs(mach_task_self(), right, MACH_PORT_RIGHT_SEND, 0), KERN_INVALID_RIGHT)
                << row.what << ", routine " << routine;
            (void)mig_get_reply_port();
            EXPECT_TRUE(namesSettleAt(names)) << row.what << ", routine " << routine;
        }
    }
    EXPECT_EQ(mach_port_mod_refs(mach_task_self(), right, MACH_PORT_RIGHT_RECEIVE, -1), KERN_SUCCESS);
}

TEST_F(TaskDaemonRpc, ADaemonThatDropsTheRequestIsDead)
{
    _daemon.onRequest({});
    for (const Routine routine : kRoutines)
        EXPECT_EQ(call(routine).status, MIG_SERVER_DIED) << routine;
}

TEST_F(TaskDaemonRpc, DataIsBelievedAsFarAsItIsThere)
{
    mach_port_t right = MACH_PORT_NULL;
    ASSERT_EQ(mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, &right), KERN_SUCCESS);
    struct Row {
        const char* what;
        std::function<ScriptedReply()> make;
        kern_return_t expected;
        uint32_t length;
    };
    const std::vector<std::byte> nothing;
    const Row rows[] = {
        {"all", [] { return Make().addMemory(kMemory).addNumber(kFileBytes); }, 0, kFileBytes},
        {"part", [] { return Make().addMemory(kMemory).addNumber(5); }, 0, 5},
        {"of another byte order", [] { return Make().addMemory(kMemory).addNumber(kFileBytes, true); }, 0, kFileBytes},
        {"none", [&] { return Make().addMemory(nothing).addNumber(0); }, 0, 0},
        {"one more than there is", [] { return Make().addMemory(kMemory).addNumber(kFileBytes + 1); }, kType, 0},
        {"far more", [] { return Make().addMemory(kMemory).addNumber(0xffffffff); }, kType, 0},
        {"one where there is none", [&] { return Make().addMemory(nothing).addNumber(1); }, kType, 0},
        {"too short", [] { return Make().addMemory(kMemory).addBytes(8); }, kType, 0},
        {"a right in its place", [&] { return Make().addPort(right, 20).addBytes(k64 ? 4 : 0).addNumber(4); }, kType,
         0},
        {"what looks like memory, without a descriptor",
         [&] {
             ScriptedReply reply;
             reply.addMemory(nothing).addNumber(0);
             reply.descriptorCount = 0;
             return reply;
         },
         kType, 0},
        {"with a second piece", [] { return Make().addMemory(kMemory).addMemory(kMemory); }, kType, 0},
    };
    (void)mig_get_reply_port();
    const size_t names = PortTable::shared().countForTesting();
    for (const Row& row : rows) {
        for (const Routine routine : {kGet, kStop}) {
            answerWith(row.make);
            const size_t mapped = mappedMessageFiles();
            const Outcome outcome = call(routine);
            EXPECT_EQ(outcome.status, row.expected) << row.what;
            if (outcome.status == KERN_SUCCESS) {
                EXPECT_EQ(outcome.length, row.length) << row.what;
                EXPECT_TRUE(row.length == 0 || static_cast<std::byte*>(outcome.data)[row.length - 1] == std::byte{7});
                EXPECT_EQ(vm_deallocate(mach_task_self(), reinterpret_cast<vm_address_t>(outcome.data), row.length),
                          KERN_SUCCESS);
            } else {
                EXPECT_TRUE(outcome.untouched()) << row.what;
            }
            EXPECT_EQ(mappedMessageFiles(), mapped) << row.what;
            EXPECT_TRUE(namesSettleAt(names)) << row.what;
        }
    }
    EXPECT_EQ(mach_port_mod_refs(mach_task_self(), right, MACH_PORT_RIGHT_RECEIVE, -1), KERN_SUCCESS);
}

TEST_F(TaskDaemonRpc, AServersAddressIsCheckedToTheByte)
{
    struct Row {
        const char* what;
        uint32_t returnCode, count;
        size_t textBytes; // after the count
        kern_return_t expected;
        size_t length; // of the address
        kern_return_t inSmallBuffer; // room for five bytes and the NUL
    };
    const Row rows[] = {
        {"empty", 0, 0, 0, 0, 0, 0},
        {"five bytes", 0, 5, 8, 0, 5, 0},
        {"six bytes", 0, 6, 8, 0, 6, KERN_RESOURCE_SHORTAGE},
        {"count past the text", 0, 9, 8, kType, 0, kType},
        {"text past the count", 0, 4, 8, kType, 0, kType},
        {"count that wraps", 0, 0xfffffffd, 0, kType, 0, kType},
        {"refused at full length", 7, 5, 8, 7, 0, 7},
        {"the longest", 0, 32000, 32000, 0, 31999, KERN_RESOURCE_SHORTAGE},
        {"longer", 0, 32001, 32004, kType, 0, kType},
        {"larger than the buffer", 0, 32012, 32012, MACH_RCV_TOO_LARGE, 0, MACH_RCV_TOO_LARGE},
    };
    for (const Row& row : rows) {
        answerWith([&row] {
            ScriptedReply reply = statusReply(static_cast<int32_t>(row.returnCode));
            reply.add(uint32_t{0}).add(row.count);
            reply.rest.resize(reply.rest.size() + row.textBytes, std::byte{'a'}); // no NUL anywhere
            return reply;
        });
        const Outcome outcome = call(kCreate);
        EXPECT_EQ(outcome.status, row.expected) << row.what;
        EXPECT_EQ(outcome.address, std::string(row.length, 'a')) << row.what;
        char small[6] = "?";
        EXPECT_EQ(createServer(_port, nullptr, 0, "server", small, sizeof small), row.inSmallBuffer) << row.what;
    }
}

TEST_F(TaskDaemonRpc, TheReplyPortIsKeptWhenNothingWasSent)
{
    for (const Routine routine : kRoutines) {
        const mach_port_t before = mig_get_reply_port();
        EXPECT_EQ(call(routine, 0x7777).status, MACH_SEND_INVALID_DEST);
        EXPECT_EQ(mig_get_reply_port(), before) << routine;
    }
    const mach_port_t before = mig_get_reply_port();
    EXPECT_EQ(watch_pids(_port, nullptr, 0, 0x7777), MACH_SEND_INVALID_RIGHT);
    EXPECT_NE(mig_get_reply_port(), before);
}

TEST(AuthorizedRpc, AnUnknownKindAsksNobody)
{
    for (const int kind : {4, 5, -1, 0x7fffffff}) {
        EXPECT_EQ(make_authorized_rpc(kind,
                                      [](const char*, uint32_t, mach_port_t) -> kern_return_t {
                                          ADD_FAILURE() << "was called";
                                          return 0;
                                      }),
                  KERN_INVALID_ARGUMENT)
            << kind;
    }
}

} // namespace
} // namespace vnt
