#include "countedobjects.h"

#include <stdlib.h>

struct Object {
    const void* class_pointer;
    unsigned count;
    unsigned floating;
    char rest[40];
};

static const char class_of_all[8];

void* counted_object_new(void)
{
    struct Object* object = calloc(1, sizeof *object);
    if (!object)
        abort();
    object->class_pointer = class_of_all;
    object->count = 1;
    return object;
}

void* counted_floating_new(void)
{
    struct Object* object = counted_object_new();
    object->floating = 1;
    return object;
}

void* g_object_ref(void* object)
{
    __atomic_fetch_add(&((struct Object*)object)->count, 1, __ATOMIC_SEQ_CST);
    return object;
}

int g_object_is_floating(const void* object) { return ((const struct Object*)object)->floating != 0; }

/* Calls the exported function, as some builds of a library do. */
void* g_object_ref_sink(void* object)
{
    struct Object* of = object;
    if (!of->floating)
        return g_object_ref(object);
    of->floating = 0;
    return object;
}

void* g_object_take_ref(void* object)
{
    ((struct Object*)object)->floating = 0;
    return object;
}

/* An object that ends takes a reference to itself and gives it back, as an object's own cleaning up may. */
void g_object_unref(void* object)
{
    struct Object* of = object;
    static __thread int ending;
    if (of->count == 1 && !ending) {
        ending = 1;
        g_object_unref(g_object_ref(object));
        ending = 0;
    }
    if (__atomic_sub_fetch(&of->count, 1, __ATOMIC_SEQ_CST) == 0)
        free(object);
}
