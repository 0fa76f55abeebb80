/* Ports and names that a caller of Vantora needs: looking a service up, giving back rights and memory. Usable from C
 * and C++. Any thread may call any function; none throws. bootstrap_look_up may start the service and waits for its
 * first byte, at most some seconds; the others do not block.
 */
#ifndef VANTORA_PORTS_H
#define VANTORA_PORTS_H

#include <Vantora/Platform.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t mach_port_t;
typedef uint32_t mach_port_name_t;
typedef int32_t kern_return_t;
typedef uintptr_t vm_address_t;
typedef uintptr_t vm_size_t;

#define MACH_PORT_NULL UINT32_C(0)
#define MACH_PORT_DEAD UINT32_C(0xffffffff)

enum {
    BOOTSTRAP_SUCCESS = 0,
    BOOTSTRAP_NOT_PRIVILEGED = 1100,
    BOOTSTRAP_UNKNOWN_SERVICE = 1102,
    BOOTSTRAP_NO_MEMORY = 1105,
};
enum { BOOTSTRAP_PRIVILEGED_SERVER = 8 };

/* Stands for the namespace of names that this process uses: the user's, or the system's for root. */
VNT_EXPORT extern mach_port_t bootstrap_port VNT_SYMBOL(bootstrap_port);

/* From now on `bootstrap_port` stands for the system's namespace: its services reach other users' processes, for who
 * holds the right. Call before anything else here. */
VNT_EXPORT void vnt_use_system_namespace(void);

/* On success `*port` is a send right that the caller owns (mach_port_deallocate). A name without a listener whose
 * program is known is started. Returns BOOTSTRAP_UNKNOWN_SERVICE, BOOTSTRAP_NOT_PRIVILEGED, BOOTSTRAP_NO_MEMORY, or
 * MACH_SEND_INVALID_DEST when `bootstrap` is no name service. */
VNT_EXPORT kern_return_t bootstrap_look_up(mach_port_t bootstrap, const char* name, mach_port_t* port)
    VNT_SYMBOL(bootstrap_look_up);
/* `flags` BOOTSTRAP_PRIVILEGED_SERVER: only the system's namespace, only a peer that runs as root. `instancePid`
 * must be 0. Look-ups with that flag share one connection: while it lives, another one gives the same
 * right with one more reference. */
VNT_EXPORT kern_return_t bootstrap_look_up2(mach_port_t bootstrap, const char* name, mach_port_t* port, int instancePid,
                                            uint64_t flags) VNT_SYMBOL(bootstrap_look_up2);
/* Static text, never null. */
VNT_EXPORT const char* bootstrap_strerror(kern_return_t status) VNT_SYMBOL(bootstrap_strerror);

/* Static text, never null; valid until the same thread's next call when the status is unknown. */
VNT_EXPORT const char* mach_error_string(kern_return_t status) VNT_SYMBOL(mach_error_string);

VNT_EXPORT mach_port_t mach_task_self(void) VNT_SYMBOL(mach_task_self);
/* Gives up one reference of a send, send-once or dead-name right. */
VNT_EXPORT kern_return_t mach_port_deallocate(mach_port_t task, mach_port_name_t name) VNT_SYMBOL(mach_port_deallocate);
/* Gives back memory that arrived in a message; the whole region goes, whatever part of it `size` names. An address
 * that did not arrive in a message is refused with KERN_INVALID_ADDRESS. Address 0 with size 0 is success. */
VNT_EXPORT kern_return_t vm_deallocate(mach_port_t task, vm_address_t address, vm_size_t size)
    VNT_SYMBOL(vm_deallocate);

#ifdef __cplusplus
}
#endif
#endif
