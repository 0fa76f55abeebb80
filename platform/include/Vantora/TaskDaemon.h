/* The task-port daemon KxTSecD, which runs as root: ports of other processes, services of the system, and watching what
 * processes start and end. Usable from C and C++.
 *
 * Every function blocks its caller until the daemon has answered; it may be called on any thread and throws nothing.
 * Results are 0, a status of sending or receiving, MIG_TYPE_ERROR (-300), MIG_REPLY_MISMATCH (-301) or MIG_SERVER_DIED
 * (-308) for a reply that is no good, or what the daemon answered: KERN_NO_ACCESS (8) without the right that it asks
 * for. After a failure nothing has been stored through the pointers, unless said otherwise.
 */
#ifndef VANTORA_TASKDAEMON_H
#define VANTORA_TASKDAEMON_H

#include <Vantora/Platform.h>
#include <Vantora/Ports.h>
#include <Vantora/Tasks.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A task port of `pid` (<Vantora/Tasks.h>), to be given back with mach_port_deallocate: directly where the system lets
 * this process trace that one, else from the daemon, which may mean that the user is asked for a password. `*task` is
 * MACH_PORT_NULL after a failure. */
VNT_EXPORT kern_return_t authorized_task_for_pid(int pid, mach_port_t* task);

/* Registers a service with the system's name service. `payload`, a property list, is a dictionary with the strings
 * "name" (what is looked up) and "program" (the absolute path of a program that root alone can have written). */
VNT_EXPORT kern_return_t setup_system_bootstrap_daemon(const void* payload, uint32_t length);

/* ---- Watching processes ---- */

/* What to do with the signatures: `call(context, signatures)`, which must not throw and does not own its argument, a
 * property list (docs/tsec.md). `release(context)` runs exactly once, after the call or when it is certain that there
 * will be none; it may be null. */
typedef struct {
    void (*call)(void* context, CFPropertyListRef signatures);
    void* context;
    void (*release)(void* context);
} pid_watcher_callback_t;

/* Begins a watch and stores its handle in `*client`. Once there is a handle it stays until pid_watcher_disconnect, also
 * when the daemon refuses; without one `*client` is 0 and the result 5 (KERN_FAILURE). */
VNT_EXPORT kern_return_t pid_watcher_connect(mach_port_t* client);

/* Asks for what the watch has gathered. With a queue the request and, after it, the callback run there and this returns
 * at once; without one it returns when the callback has. 5 when there is no watch, else 0; a request that fails calls
 * nothing. `callback` is copied and may be null: then what the daemon sent stays in memory for good. */
VNT_EXPORT kern_return_t pid_watcher_collect(mach_port_t* client, dispatch_queue_t queue,
                                             const pid_watcher_callback_t* callback);

/* The same once more, then the watch ends. `*client` is 0 at once. Always 0. */
VNT_EXPORT kern_return_t pid_watcher_disconnect(mach_port_t* client, dispatch_queue_t queue,
                                                const pid_watcher_callback_t* callback);

/* ---- The daemon's routines ---- */

/* `daemon` is a send right to the daemon, `authorization` the external form of a reference, `length` 32, or 0 for none.
 */
VNT_EXPORT kern_return_t attach_access(mach_port_t daemon, const char* authorization, uint32_t length, int pid,
                                       mach_port_t* task);
VNT_EXPORT kern_return_t setup_launch_daemon(mach_port_t daemon, const char* authorization, uint32_t length,
                                             const void* payload, uint32_t payloadLength);
/* `client` names a receive right of the caller's, whose end ends the watch. */
VNT_EXPORT kern_return_t watch_pids(mach_port_t daemon, const char* authorization, uint32_t length, mach_port_t client);
/* The data is the caller's, to be given back with vm_deallocate. */
VNT_EXPORT kern_return_t get_symbolication_info(mach_port_t daemon, mach_port_t client, void** data, uint32_t* length);
VNT_EXPORT kern_return_t stop_watching_pids(mach_port_t daemon, mach_port_t client, void** data, uint32_t* length);

#ifdef __cplusplus
}
#endif
#endif
