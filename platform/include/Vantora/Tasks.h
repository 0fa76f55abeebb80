/* Task ports: looking into another process. A task port is a right of this process (a small integer, given back with
 * mach_port_deallocate) that holds what one process may look into another with: the process itself, so that it is never
 * taken for a later one of the same pid, its memory, its mappings and its threads, all for reading only. It comes from
 * authorized_task_for_pid (<Vantora/TaskDaemon.h>), may travel to other processes in messages, and works in 32-bit and
 * 64-bit processes for targets of either kind.
 *
 * It stands for the program that ran when it was made: after the process has executed another one, memory and mappings
 * are gone (KERN_TERMINATED), and a new task port is needed. A task port is believed when root or the caller's own user
 * made it; a right of anybody else is none.
 *
 * Statuses: 0; KERN_INVALID_ARGUMENT (4), not a task port or a null pointer; KERN_INVALID_ADDRESS (1), nothing to read
 * there; KERN_RESOURCE_SHORTAGE (6), no memory or descriptors; KERN_NO_ACCESS (8), the system hides it;
 * KERN_TERMINATED (37), the process is over. Any thread may call any function; none blocks for longer than the kernel
 * takes; none throws. The first call with a port opens what it holds (about 20 microseconds); a read costs about a
 * microsecond and what the copying takes.
 */
#ifndef VANTORA_TASKS_H
#define VANTORA_TASKS_H

#include <Vantora/Ports.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The pid in this process's pid namespace, or the one it had when the process is over. */
VNT_EXPORT kern_return_t task_get_pid(mach_port_t task, int* pid) VNT_SYMBOL(task_get_pid);
/* `*running` becomes 1 until the last thread of the process has ended, then 0. */
VNT_EXPORT kern_return_t task_is_running(mach_port_t task, int* running) VNT_SYMBOL(task_is_running);

/* Reads up to `size` bytes at `address` of the task's memory into `buffer`. `*count` is what was read: less than `size`
 * when memory that cannot be read begins inside. */
VNT_EXPORT kern_return_t task_read_memory(mach_port_t task, uint64_t address, void* buffer, size_t size, size_t* count)
    VNT_SYMBOL(task_read_memory);

enum { TASK_REGION_READ = 1, TASK_REGION_WRITE = 2, TASK_REGION_EXECUTE = 4, TASK_REGION_SHARED = 8 };
typedef struct {
    uint64_t address, size; /* bytes */
    uint64_t offset; /* into the file */
    uint32_t flags; /* TASK_REGION_… */
    char path[500]; /* of the file, or a name such as "[stack]", or empty; cut when longer */
} task_region_t;
/* Copies at most `*count` regions, ascending, and sets `*count` to how many there are. `regions` may be null when
 * `*count` is 0. */
VNT_EXPORT kern_return_t task_copy_regions(mach_port_t task, task_region_t* regions, uint32_t* count)
    VNT_SYMBOL(task_copy_regions);

/* Copies at most `*count` thread ids and sets `*count` to how many there are. `threads` may be null when it is 0. */
VNT_EXPORT kern_return_t task_copy_threads(mach_port_t task, int32_t* threads, uint32_t* count)
    VNT_SYMBOL(task_copy_threads);
typedef struct {
    char name[32];
    uint64_t userNs, systemNs; /* processor time, in steps of the kernel's clock tick */
    char state; /* as in /proc/PID/stat: R, S, D, T, t, Z, … */
} task_thread_t;
/* KERN_INVALID_ARGUMENT when the task has no such thread. */
VNT_EXPORT kern_return_t task_get_thread(mach_port_t task, int32_t thread, task_thread_t* info)
    VNT_SYMBOL(task_get_thread);

#ifdef __cplusplus
}
#endif
#endif
