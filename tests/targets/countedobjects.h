#pragma once

/* Stands for a library of counted objects: the functions have the names, the shape and the layout of objects that
 * GObject's have, so that a target can be built where that is not, and for any width. */
#ifdef __cplusplus
extern "C" {
#endif

void* counted_object_new(void);
void* counted_floating_new(void);
void* g_object_ref(void* object);
void* g_object_ref_sink(void* object);
void* g_object_take_ref(void* object);
void g_object_unref(void* object);
int g_object_is_floating(const void* object);

#ifdef __cplusplus
}
#endif
