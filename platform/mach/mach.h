#pragma once

#include <Vantora/Ports.h>
#include <Vantora/Tasks.h>

/// Mach-style ports and messages over Unix sockets: the interface, its layouts and values. C linkage; usable from C.
/// What a caller of the library needs is in <Vantora/Ports.h>; the rest is hidden.
///
/// A port name is a small integer of this process. Names do not survive fork(2): a child must execute another program
/// before it uses ports. Everything may be called from any thread; a reply port belongs to the thread that got it.
#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t mach_port_right_t;
typedef int32_t mach_port_delta_t;
typedef int32_t mach_msg_return_t;
typedef int32_t mach_msg_option_t;
typedef uint32_t mach_msg_size_t;
typedef uint32_t mach_msg_bits_t;
typedef int32_t mach_msg_id_t;
typedef uint32_t mach_msg_timeout_t;

enum {
    MACH_PORT_RIGHT_SEND = 0,
    MACH_PORT_RIGHT_RECEIVE = 1,
    MACH_PORT_RIGHT_SEND_ONCE = 2,
    MACH_PORT_RIGHT_DEAD_NAME = 4
};

enum {
    KERN_SUCCESS = 0,
    KERN_INVALID_ADDRESS = 1,
    KERN_PROTECTION_FAILURE = 2,
    KERN_INVALID_ARGUMENT = 4,
    KERN_FAILURE = 5,
    KERN_RESOURCE_SHORTAGE = 6,
    KERN_NO_ACCESS = 8,
    KERN_NAME_EXISTS = 13,
    KERN_INVALID_NAME = 15,
    KERN_INVALID_RIGHT = 17,
    KERN_INVALID_VALUE = 18,
    KERN_TERMINATED = 37,
    MACH_SEND_INVALID_DATA = 0x10000002,
    MACH_SEND_INVALID_DEST = 0x10000003,
    MACH_SEND_TIMED_OUT = 0x10000004,
    MACH_SEND_INVALID_RIGHT = 0x10000007,
    MACH_SEND_NO_BUFFER = 0x1000000d,
    MACH_SEND_TOO_LARGE = 0x1000000e,
    MACH_SEND_INVALID_TYPE = 0x1000000f,
    MACH_SEND_INVALID_HEADER = 0x10000010,
    MACH_RCV_INVALID_NAME = 0x10004002,
    MACH_RCV_TIMED_OUT = 0x10004003,
    MACH_RCV_TOO_LARGE = 0x10004004,
    MACH_RCV_INVALID_DATA = 0x10004008,
    MACH_RCV_PORT_DIED = 0x10004009,
    MACH_RCV_BODY_ERROR = 0x1000400c,
};

enum { MACH_SEND_MSG = 1, MACH_RCV_MSG = 2, MACH_SEND_TIMEOUT = 0x10, MACH_RCV_TIMEOUT = 0x100 };

enum {
    MACH_MSG_TYPE_MOVE_RECEIVE = 16,
    MACH_MSG_TYPE_MOVE_SEND = 17,
    MACH_MSG_TYPE_MOVE_SEND_ONCE = 18,
    MACH_MSG_TYPE_COPY_SEND = 19,
    MACH_MSG_TYPE_MAKE_SEND = 20,
    MACH_MSG_TYPE_MAKE_SEND_ONCE = 21,
};
enum { MACH_MSG_PORT_DESCRIPTOR = 0, MACH_MSG_OOL_DESCRIPTOR = 1 };
enum { MACH_MSG_PHYSICAL_COPY = 0, MACH_MSG_VIRTUAL_COPY = 1 };
#define MACH_MSGH_BITS_COMPLEX 0x80000000u
#define MACH_MSGH_BITS(remote, local) ((remote) | ((local) << 8))
enum { MACH_NOTIFY_SEND_ONCE = 71 };
enum { MIG_TYPE_ERROR = -300, MIG_REPLY_MISMATCH = -301, MIG_SERVER_DIED = -308 };

typedef struct {
    mach_msg_bits_t msgh_bits;
    mach_msg_size_t msgh_size;
    mach_port_t msgh_remote_port;
    mach_port_t msgh_local_port;
    uint32_t msgh_reserved;
    mach_msg_id_t msgh_id;
} mach_msg_header_t;

typedef struct {
    uint32_t msgh_descriptor_count;
} mach_msg_body_t;

typedef struct {
    uint8_t mig_vers, if_vers, reserved1, mig_encoding, int_rep, char_rep, float_rep, reserved2;
} NDR_record_t;
extern const NDR_record_t NDR_record VNT_SYMBOL(NDR_record);

typedef struct {
    uint32_t numer;
    uint32_t denom;
} mach_timebase_info_data_t;

/// Sends `sendSize` bytes of `message` (MACH_SEND_MSG), then receives the next message of `receiveName` into the same
/// memory (MACH_RCV_MSG). The layout is that of the calling process; descriptors follow the header of a complex
/// message. Without the timeout options it waits for as long as it takes, but a wait for a reply ends with a message
/// of id 71 when the last holder of the reply right is gone. A failed send consumes no right. A message larger than
/// `receiveLimit` is destroyed (MACH_RCV_TOO_LARGE). `notify` is ignored.
/// Cost: a request with a fresh reply right and its answer, three to four bare packet round trips.
mach_msg_return_t mach_msg(mach_msg_header_t* message, mach_msg_option_t option, mach_msg_size_t sendSize,
                           mach_msg_size_t receiveLimit, mach_port_name_t receiveName, mach_msg_timeout_t timeoutMs,
                           mach_port_name_t notify) VNT_SYMBOL(mach_msg);

/// Gives back the rights and the memory that a received message brought, its reply right included. Call it on the
/// message as it came, once, or not at all.
void mach_msg_destroy(mach_msg_header_t* message) VNT_SYMBOL(mach_msg_destroy);

/// The calling thread's reply port, made on first use; it goes with the thread.
mach_port_t mig_get_reply_port(void) VNT_SYMBOL(mig_get_reply_port);
/// The port stays with the thread for its next call.
void mig_put_reply_port(mach_port_t port) VNT_SYMBOL(mig_put_reply_port);
/// Destroys the thread's reply port; whatever was still to arrive there is lost.
void mig_dealloc_reply_port(mach_port_t port) VNT_SYMBOL(mig_dealloc_reply_port);
/// Copies at most `length` bytes of `source` with the terminating NUL, cutting a longer text. Returns the bytes
/// written, the NUL included; 0 when `length` is not positive.
int mig_strncpy(char* destination, const char* source, int length) VNT_SYMBOL(mig_strncpy);

/// Only MACH_PORT_RIGHT_RECEIVE can be allocated. KERN_RESOURCE_SHORTAGE without descriptors or memory.
kern_return_t mach_port_allocate(mach_port_t task, mach_port_right_t right, mach_port_name_t* name)
    VNT_SYMBOL(mach_port_allocate);
/// Adds `delta` references of one kind of right to a name. A receive right can only be given up (-1): its senders see
/// it die, a thread that waits on it returns MACH_RCV_PORT_DIED.
kern_return_t mach_port_mod_refs(mach_port_t task, mach_port_name_t name, mach_port_right_t right,
                                 mach_port_delta_t delta) VNT_SYMBOL(mach_port_mod_refs);

/// A task port of the process `pid`, see <Vantora/Tasks.h>. Succeeds where the kernel lets this process trace that one
/// (ptrace(2), "Ptrace access mode checking"); nobody is asked. KERN_FAILURE otherwise, with `*target` null;
/// KERN_INVALID_ARGUMENT for another `task` than one's own.
kern_return_t task_for_pid(mach_port_t task, int pid, mach_port_t* target) VNT_SYMBOL(task_for_pid);

/// CLOCK_MONOTONIC in nanoseconds; the time base is therefore 1/1.
uint64_t mach_absolute_time(void) VNT_SYMBOL(mach_absolute_time);
kern_return_t mach_timebase_info(mach_timebase_info_data_t* info) VNT_SYMBOL(mach_timebase_info);

#ifdef __cplusplus
}
#endif
