#pragma once

#include "platform/mach/MessageLayout.h"

/// Messages of the six remote routines, as they stand in the memory of a client and of a server. `Address` is the
/// pointer width of the process (NativeAddress for one's own). Requests that carry a name, and the address reply, are
/// sent cut to what is used: kName… and kAddress… give the fixed part.
namespace vnt {

enum RoutineId : int32_t {
    kCreateServerId = 12345,
    kAttachAccessId = 68888,
    kSetupLaunchDaemonId = 68889,
    kWatchPidsId = 68890,
    kGetSymbolicationInfoId = 68891,
    kStopWatchingPidsId = 68892,
};
/// A reply's id is its request's plus this.
inline constexpr int32_t kReplyIdDistance = 100;
/// Complex; the service port is copied, the reply right is send-once.
inline constexpr uint32_t kRoutineRequestBits =
    MACH_MSGH_BITS_COMPLEX | MACH_MSGH_BITS(uint32_t{MACH_MSG_TYPE_COPY_SEND}, uint32_t{MACH_MSG_TYPE_MAKE_SEND_ONCE});
static_assert(kRoutineRequestBits == 0x80001513);
/// Longest server name and longest server address, the NUL included.
inline constexpr uint32_t kMaxRoutineTextBytes = 32000;

#pragma pack(push, 4)
template <typename Address> struct CreateServerRequest {
    mach_msg_header_t header;
    mach_msg_body_t body;
    OutOfLineDescriptor<Address> authorization;
    NDR_record_t ndr;
    uint32_t authorizationCount;
    uint32_t nameOffset;
    uint32_t nameCount;
    char name[kMaxRoutineTextBytes]; ///< sent up to nameCount rounded up to 4
};

struct CreateServerReply {
    mach_msg_header_t header;
    NDR_record_t ndr;
    int32_t returnCode;
    uint32_t addressOffset;
    uint32_t addressCount;
    char address[kMaxRoutineTextBytes]; ///< sent up to addressCount rounded up to 4
};

/// Every simple reply: an error, or the result of watch_pids and setup_launch_daemon.
struct StatusReply {
    mach_msg_header_t header;
    NDR_record_t ndr;
    int32_t returnCode;
};

template <typename Address> struct AttachAccessRequest {
    mach_msg_header_t header;
    mach_msg_body_t body;
    OutOfLineDescriptor<Address> authorization;
    NDR_record_t ndr;
    uint32_t authorizationCount;
    int32_t pid;
};

struct AttachAccessReply {
    mach_msg_header_t header;
    mach_msg_body_t body;
    PortDescriptor task;
};

template <typename Address> struct SetupLaunchDaemonRequest {
    mach_msg_header_t header;
    mach_msg_body_t body;
    OutOfLineDescriptor<Address> authorization;
    OutOfLineDescriptor<Address> payload;
    NDR_record_t ndr;
    uint32_t authorizationCount;
    uint32_t payloadCount;
};

template <typename Address> struct WatchPidsRequest {
    mach_msg_header_t header;
    mach_msg_body_t body;
    OutOfLineDescriptor<Address> authorization;
    PortDescriptor clientHandle;
    NDR_record_t ndr;
    uint32_t authorizationCount;
};

/// get_symbolication_info and stop_watching_pids.
struct ClientHandleRequest {
    mach_msg_header_t header;
    mach_msg_body_t body;
    PortDescriptor clientHandle;
};

template <typename Address> struct DataReply {
    mach_msg_header_t header;
    mach_msg_body_t body;
    OutOfLineDescriptor<Address> data;
    NDR_record_t ndr;
    uint32_t dataCount;
};
#pragma pack(pop)

template <typename Address>
inline constexpr size_t kNameRequestFixedBytes = offsetof(CreateServerRequest<Address>, name);
inline constexpr size_t kAddressReplyFixedBytes = offsetof(CreateServerReply, address);

static_assert(kNameRequestFixedBytes<uint64_t> == 64 && kNameRequestFixedBytes<uint32_t> == 60);
static_assert(offsetof(CreateServerRequest<uint64_t>, ndr) == 44);
static_assert(kAddressReplyFixedBytes == 44 && offsetof(CreateServerReply, returnCode) == 32);
static_assert(sizeof(StatusReply) == 36);
static_assert(sizeof(AttachAccessRequest<uint64_t>) == 60 && sizeof(AttachAccessRequest<uint32_t>) == 56);
static_assert(sizeof(AttachAccessReply) == 40);
static_assert(sizeof(SetupLaunchDaemonRequest<uint64_t>) == 76 && sizeof(SetupLaunchDaemonRequest<uint32_t>) == 68);
static_assert(sizeof(WatchPidsRequest<uint64_t>) == 68 && sizeof(WatchPidsRequest<uint32_t>) == 64);
static_assert(sizeof(ClientHandleRequest) == 40);
static_assert(sizeof(DataReply<uint64_t>) == 56 && sizeof(DataReply<uint32_t>) == 52);

/// Bytes of a text field on the wire: whole words.
constexpr uint32_t roundedToWord(uint32_t count) { return (count + 3) & ~uint32_t{3}; }

} // namespace vnt
