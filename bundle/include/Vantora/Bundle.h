/* Reads Vantora bundles from C: what a recording holds, record by record in the order of time, with symbols.
 *
 * Link with -lVantoraBundle. Nothing here needs a server or the recorded machine. Bundles are untrusted input: what is
 * missing or damaged is left out and told by vnt_bundle_remark().
 *
 * Ownership: a vnt_bundle belongs to the caller until vnt_bundle_close(). Every text that is returned belongs to the
 * bundle and is valid until it is closed; what a callback is given, only during the call. All text is UTF-8 as
 * recorded, unchecked, ended by a zero byte, never NULL. Threads: one bundle is used by one thread at a time; different
 * bundles are independent. Errors: no function prints, aborts or throws. NULL bundles are answered like empty ones.
 * Structs: `size` is filled by the side that provides the struct's memory; later versions only add members at the end.
 */
#ifndef VANTORA_BUNDLE_H
#define VANTORA_BUNDLE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VNT_BUNDLE_API __attribute__((visibility("default")))

typedef struct vnt_bundle vnt_bundle;

typedef enum vnt_bundle_kind {
    /* Stack Sampler */
    VNT_BUNDLE_SAMPLE = 1, /* a thread ran; duration_ns: the processor time that the sample stands for */
    VNT_BUNDLE_BLOCKED = 2, /* a thread did not run for duration_ns before time_ns */
    /* Heap Recorder */
    VNT_BUNDLE_ALLOCATION = 3, /* name: the function; values: address, size, slot */
    VNT_BUNDLE_FREE = 4, /* values: address (0: unknown), size, slot (-1: a block not recorded) */
    VNT_BUNDLE_HEAP_FAULT = 5, /* name: what was done to a freed block; text: whose stack this record has */
    VNT_BUNDLE_HEAP_TARGET = 6, /* name: the program that began to report; all earlier blocks are gone */
    /* Kernel Tracer */
    VNT_BUNDLE_EVENT = 7, /* name: tracepoint; text: system call, or what the event says; values: its own */
    /* Process Census */
    VNT_BUNDLE_SWEEP = 8, /* values: of the machine */
    VNT_BUNDLE_PROCESS_USAGE = 9, /* values: what the process used since its start */
    VNT_BUNDLE_PROCESS_STARTED = 10, /* text: executable; values: parent, uid */
    VNT_BUNDLE_PROCESS_RENAMED = 11, /* text: executable: it began another program */
    VNT_BUNDLE_PROCESS_ENDED = 12, /* values: status, as of wait(2); -1: not known */
    /* of several */
    VNT_BUNDLE_FORK = 13, /* pid: the parent; values: child */
    VNT_BUNDLE_EXEC = 14, /* name: of the program */
    VNT_BUNDLE_EXIT = 15,
    VNT_BUNDLE_LOST = 16, /* name: the cause; values: count of records that are not in the bundle */
    VNT_BUNDLE_COST = 17, /* values: processor_ns, what recording cost since its beginning */
    /* Orphan Finder */
    VNT_BUNDLE_LEAK_SEARCH = 18, /* name: the target; duration_ns: it stood still; values: what was found */
    VNT_BUNDLE_LEAK = 19, /* name: direct, cycle or indirect; values: address, size, holder (number of the leak, from 1,
                             that points to it; 0: none), is_new, allocated_ns; perhaps table and code as of a class */
    /* Heap Recorder, where asked for */
    VNT_BUNDLE_COUNT = 20, /* name: the function called on a counted object; values: address, change (1, 0 or -1),
                              before (the object's count of references; 0: unknown) */
    VNT_BUNDLE_CLASS_LOOK = 21, /* the classes of live blocks follow, earlier ones are past; values: blocks, bytes */
    VNT_BUNDLE_CLASS = 22 /* values: table (address that the blocks begin with), code (start of the code of the module
                             that it is in), blocks, bytes */
    /* Later versions add kinds: skip what is not known. */
} vnt_bundle_kind;

typedef struct vnt_bundle_value {
    const char* name;
    int64_t value; /* unsigned numbers keep their bits */
} vnt_bundle_value;

typedef struct vnt_bundle_record {
    uint32_t size; /* of this struct, by the library */
    uint32_t kind; /* vnt_bundle_kind */
    uint64_t time_ns; /* CLOCK_MONOTONIC of the recorded machine */
    uint64_t duration_ns;
    uint32_t pid; /* 0: none */
    uint32_t tid;
    int32_t cpu; /* -1: not recorded */
    uint32_t flags; /* VNT_BUNDLE_STACK_CUT, VNT_BUNDLE_INNERMOST_IS_RETURN */
    const char* thread; /* name of the thread */
    const char* name;
    const char* text;
    const uint64_t* stack; /* innermost first; kernel addresses have the highest bit set */
    size_t stack_count; /* 0: none was recorded */
    const vnt_bundle_value* values;
    size_t value_count;
    uint64_t stack_key; /* within one reading, equal pid and key stand for equal stacks */
} vnt_bundle_record;

#define VNT_BUNDLE_STACK_CUT 1u /* the outer frames are missing */
#define VNT_BUNDLE_INNERMOST_IS_RETURN 2u /* stack[0] is a return address */

typedef struct vnt_bundle_totals {
    uint32_t size; /* of this struct, by the caller */
    uint32_t complete; /* 0: the callback ended the reading */
    uint64_t records; /* delivered */
    uint64_t unordered; /* of these: delivered behind a later one */
    uint64_t orphans; /* left out: what they refer to is lost */
    uint64_t messages;
    uint64_t missing_messages;
    uint64_t damaged_messages;
} vnt_bundle_totals;

typedef struct vnt_bundle_info {
    uint32_t size; /* of this struct, by the caller */
    int32_t pid; /* target; -3: all processes, 0: the kernel, -1: not recorded */
    const char* identifier; /* "quillon.vnt.stacksampler" */
    const char* name; /* "Stack Sampler" */
    int64_t start_seconds; /* since 1970; 0: not recorded */
    int64_t stop_seconds;
    uint64_t start_ns; /* on the records' clock; 0: not recorded */
    uint64_t stop_ns;
} vnt_bundle_info;

typedef struct vnt_bundle_frame {
    const char* function; /* readable; "[unknown] in libx.so" and the like where no name is known */
    const char* module; /* short name; "" when unknown */
    const char* file; /* source file; "" when unknown */
    uint32_t line; /* 0: unknown */
    uint32_t is_inlined; /* part of the next frame's machine code */
} vnt_bundle_frame;

/* "1.0.0" */
VNT_BUNDLE_API const char* vnt_bundle_version(void);

/* Opens the bundle at `path`. On failure NULL, and the reason in `error`, which has room for `error_size` bytes (may be
 * NULL and 0). Reads little: cost does not grow with the recording. */
VNT_BUNDLE_API vnt_bundle* vnt_bundle_open(const char* path, char* error, size_t error_size);
/* NULL is allowed. Not from within a callback of the same bundle. */
VNT_BUNDLE_API void vnt_bundle_close(vnt_bundle* bundle);

VNT_BUNDLE_API size_t vnt_bundle_instrument_count(const vnt_bundle* bundle);
/* Fills what fits into info->size bytes. 0 on success, -1 when there is no such instrument or memory. */
VNT_BUNDLE_API int vnt_bundle_instrument_info(vnt_bundle* bundle, size_t instrument, vnt_bundle_info* info);

/* Called with each record; 0 ends the reading. May call every function on the bundle but close and read. */
typedef int (*vnt_bundle_callback)(const vnt_bundle_record* record, void* context);

/* Passes all records of an instrument to `callback` in the order of time, in bounded memory whatever the recording's
 * length. Blocks. `totals` may be NULL. 0 on success, also when the callback ended it; -1 when there is no such
 * instrument, no callback, or no memory. */
VNT_BUNDLE_API int vnt_bundle_read(vnt_bundle* bundle, size_t instrument, vnt_bundle_callback callback, void* context,
                                   vnt_bundle_totals* totals);

/* Not 0 when record->stack[index] is a return address, which belongs to the call before it. */
VNT_BUNDLE_API int vnt_bundle_is_return(const vnt_bundle_record* record, size_t index);

/* The functions at an address: those inlined there, innermost first, and last the one whose code it is. Fills at most
 * `capacity` frames; returns how many there are, 0 for a wrong instrument or without memory. The first question for a
 * module takes milliseconds, an address that was asked before 100 ns. Nothing is fetched from anywhere. */
VNT_BUNDLE_API size_t vnt_bundle_symbolize(vnt_bundle* bundle, size_t instrument, uint32_t pid, uint64_t address,
                                           uint64_t time_ns, int is_return, vnt_bundle_frame* frames, size_t capacity);

/* What was missing or damaged, as far as it has been read: one sentence each. "" for a number that is too large. */
VNT_BUNDLE_API size_t vnt_bundle_remark_count(const vnt_bundle* bundle);
VNT_BUNDLE_API const char* vnt_bundle_remark(const vnt_bundle* bundle, size_t index);

#ifdef __cplusplus
}
#endif

#endif
