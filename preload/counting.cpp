#include "preload/counting.h"

#include <dlfcn.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "preload/definitions.h"
#include "preload/journal.h"
#include "preload/real.h"
#include "preload/zombies.h"

// Each calls the real one, in a target that asks for no counts after a look at the mask.

#define VNT_EXPORT extern "C" __attribute__((visibility("default")))
#define VNT_FRAME __builtin_frame_address(0)

using namespace vnt;
using namespace vnt::journal;

namespace {

using Returning = void* (*)(void*);
using Plain = void (*)(void*);
using Asking = int (*)(const void*);

struct Real {
    const char* name;
    void* function; ///< null: not found yet
};
enum : size_t {
    kRealRef,
    kRealUnref,
    kRealRefSink,
    kRealTakeRef,
    kRealRetain,
    kRealRelease,
    kExported,
    kRealIsFloating
};
Real reals[] = {{"g_object_ref", nullptr},
                {"g_object_unref", nullptr},
                {"g_object_ref_sink", nullptr},
                {"g_object_take_ref", nullptr},
                {"vnt_CFRetain", nullptr},
                {"vnt_CFRelease", nullptr},
                {nullptr, nullptr},
                {"g_object_is_floating", nullptr}};

/// Objects that the calling thread is within a call for, whose further calls for the same object are part of that one:
/// g_object_ref_sink, which in some builds of the library calls g_object_ref, and the release that ends an object, in
/// which the object may take references to itself and give them back. Values only, so that whoever leaves such a call
/// by longjmp(3) does no harm.
struct Within {
    static constexpr uint32_t kMost = 16; // deeper ones are told
    const void* objects[kMost];
    uint32_t count;

    [[nodiscard]] bool has(const void* object) const
    {
        for (uint32_t i = count < kMost ? count : kMost; i-- > 0;) {
            if (objects[i] == object)
                return true;
        }
        return false;
    }
    void enter(const void* object)
    {
        if (count < kMost)
            objects[count] = object;
        ++count;
    }
    void leave(uint32_t before) { count = before; }
};
__thread Within within __attribute__((tls_model("initial-exec")));

void find(Real& real, bool atStart)
{
    const Definition found = findDefinition(real.name);
    // What the program was started with is never unloaded. Else the address must not become another's.
    if (found.function && !atStart && !found.stays)
        (void)::dlopen(found.file, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    if (found.function)
        __atomic_store_n(&real.function, found.function, __ATOMIC_RELAXED);
}

/// Null only for a caller that looked the function up although nobody has it.
template <typename Function> Function realFunction(size_t number)
{
    Real& real = reals[number];
    if (__builtin_expect(!__atomic_load_n(&real.function, __ATOMIC_RELAXED), 0))
        find(real, /*atStart=*/false);
    return reinterpret_cast<Function>(__atomic_load_n(&real.function, __ATOMIC_RELAXED));
}

/// A GObject begins with the pointer to its class and its count, which is part of its binary interface. Whoever passes
/// something else has at least a pointer there.
uint32_t countOf(const void* object)
{
    constexpr uintptr_t kPageBytes = 4096;
    const auto place = reinterpret_cast<uintptr_t>(object) + sizeof(void*);
    if (place % sizeof(uint32_t) != 0 || place % kPageBytes == 0)
        return 0;
    return __atomic_load_n(reinterpret_cast<const uint32_t*>(place), __ATOMIC_RELAXED);
}

/// Before the real call: a reference goes to no other thread before it is told, and memory to no other object. False:
/// the object was freed, and is left alone.
bool tell(const void* object, uint32_t count, Counting counting, const void* frame)
{
    const void* freed = keepsZombies() ? keptBlockOf(object) : nullptr;
    if (!freed) {
        noteCount(kCount, object, count, counting, frame);
        return true;
    }
    const size_t place = reinterpret_cast<uintptr_t>(object) - reinterpret_cast<uintptr_t>(freed);
    noteCount(kCountOfFreed, freed, place, counting, frame);
    return false;
}

bool tellObject(const void* object, Counting counting, const void* frame)
{
    return tell(object, countOf(object), counting, frame);
}

} // namespace

namespace vnt {

void findCountingFunctions()
{
    for (Real& real : reals) {
        if (real.name)
            find(real, /*atStart=*/!isLate());
    }
}

bool isCountingFunction(const char* name)
{
    for (size_t i = 0; i < kExported; ++i) {
        if (::strcmp(reals[i].name, name) == 0)
            return true;
    }
    return false;
}

} // namespace vnt

VNT_EXPORT void* g_object_ref(void* object)
{
    const auto real = realFunction<Returning>(kRealRef);
    if (countsReferences() && object && !within.has(object) && !tellObject(object, kRef, VNT_FRAME))
        return object;
    return real ? real(object) : object;
}

VNT_EXPORT void g_object_unref(void* object)
{
    const auto real = realFunction<Plain>(kRealUnref);
    if (!countsReferences() || !object || within.has(object)) {
        if (real)
            real(object);
        return;
    }
    const uint32_t count = countOf(object);
    if (!tell(object, count, kUnref, VNT_FRAME))
        return;
    const uint32_t outer = within.count;
    if (count == 1)
        within.enter(object);
    if (real)
        real(object);
    within.leave(outer);
}

VNT_EXPORT void* g_object_ref_sink(void* object)
{
    const auto real = realFunction<Returning>(kRealRefSink);
    if (!countsReferences() || !object || within.has(object))
        return real ? real(object) : object;
    if (keepsZombies() && keptBlockOf(object)) {
        (void)tellObject(object, kRefSink, VNT_FRAME);
        return object;
    }
    const auto isFloating = realFunction<Asking>(kRealIsFloating);
    (void)tellObject(object, isFloating && isFloating(object) != 0 ? kSink : kRefSink, VNT_FRAME);
    const uint32_t outer = within.count;
    within.enter(object);
    void* result = real ? real(object) : object;
    within.leave(outer);
    return result;
}

VNT_EXPORT void* g_object_take_ref(void* object)
{
    const auto real = realFunction<Returning>(kRealTakeRef);
    if (countsReferences() && object && !within.has(object) && !tellObject(object, kTakeRef, VNT_FRAME))
        return object;
    return real ? real(object) : object;
}

// Of our own library; C sources call them CFRetain and CFRelease. Where their count is, is the library's own affair.

VNT_EXPORT void* vnt_CFRetain(void* object)
{
    const auto real = realFunction<Returning>(kRealRetain);
    if (countsReferences() && object && !tell(object, 0, kRetain, VNT_FRAME))
        return object;
    return real ? real(object) : object;
}

VNT_EXPORT void vnt_CFRelease(void* object)
{
    const auto real = realFunction<Plain>(kRealRelease);
    if (countsReferences() && object && !tell(object, 0, kRelease, VNT_FRAME))
        return;
    if (real)
        real(object);
}
