/* Platform functions that a caller of Vantora needs: strings, numbers, arrays, dictionaries, errors, property
 * lists, queues. Usable from C and C++.
 *
 * Ownership: functions with Create or Copy in their name return a reference that the caller must release
 * with CFRelease; functions with Get return one that the caller does not own and that lives as long as the object it
 * was got from. Collections retain what they hold. Every function may be called from any thread; an object that nobody
 * changes may be shared between threads. None throws; none blocks unless it says so.
 *
 * A null argument, an object of another type and an index outside are harmless: the result is then null, 0 or false.
 * Allocator arguments are ignored (kCFAllocatorNull of CFDataCreateWithBytesNoCopy excepted), capacities are hints.
 *
 * Longer than most headers: it is the one place where a C caller looks.
 */
#ifndef VANTORA_PLATFORM_H
#define VANTORA_PLATFORM_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define VNT_NOEXCEPT noexcept
extern "C" {
#else
#define VNT_NOEXCEPT
#endif

#define VNT_EXPORT __attribute__((visibility("default")))
/* The library is loaded into any program: the ELF names carry a prefix so that they meet nobody else's. */
#define VNT_SYMBOL(name) __asm__("vnt_" #name)
#define VNT_FUNCTION(name) VNT_NOEXCEPT VNT_SYMBOL(name)

typedef const void* CFTypeRef;
typedef const struct VntString* CFStringRef;
typedef const struct VntNumber* CFNumberRef;
typedef const struct VntNumber* CFBooleanRef;
typedef const struct VntDate* CFDateRef;
typedef const struct VntArray* CFArrayRef;
typedef struct VntArray* CFMutableArrayRef;
typedef const struct VntDictionary* CFDictionaryRef;
typedef struct VntDictionary* CFMutableDictionaryRef;
typedef const struct VntData* CFDataRef;
typedef const struct VntUrl* CFURLRef;
typedef const struct VntError* CFErrorRef;
typedef CFTypeRef CFPropertyListRef;
typedef const void* CFAllocatorRef;

typedef long CFIndex;
typedef unsigned long CFTypeID;
typedef unsigned long CFHashCode;
typedef double CFAbsoluteTime; /* seconds since 1 January 2001 UTC */

#ifdef __cplusplus
#define kCFAllocatorDefault nullptr
#define kCFAllocatorNull reinterpret_cast<CFAllocatorRef>(1)
#else
#define kCFAllocatorDefault ((CFAllocatorRef)0)
#define kCFAllocatorNull ((CFAllocatorRef)1)
#endif

/* ---- Any object ---- */

/* Returns its argument. */
VNT_EXPORT CFTypeRef CFRetain(CFTypeRef object) VNT_FUNCTION(CFRetain);
VNT_EXPORT void CFRelease(CFTypeRef object) VNT_FUNCTION(CFRelease);
/* By value; two nulls are equal. Numbers of different widths are equal when their values are. */
VNT_EXPORT bool CFEqual(CFTypeRef a, CFTypeRef b) VNT_FUNCTION(CFEqual);
/* Equal objects have equal hashes, within one process. */
VNT_EXPORT CFHashCode CFHash(CFTypeRef object) VNT_FUNCTION(CFHash);
/* What "%@" shows in the library's messages. */
VNT_EXPORT CFStringRef CFCopyDescription(CFTypeRef object) VNT_FUNCTION(CFCopyDescription);

/* 0 for null; an id that no function below returns for objects without one. */
VNT_EXPORT CFTypeID CFGetTypeID(CFTypeRef object) VNT_FUNCTION(CFGetTypeID);
VNT_EXPORT CFTypeID CFNullGetTypeID(void) VNT_FUNCTION(CFNullGetTypeID);
VNT_EXPORT CFTypeID CFStringGetTypeID(void) VNT_FUNCTION(CFStringGetTypeID);
VNT_EXPORT CFTypeID CFNumberGetTypeID(void) VNT_FUNCTION(CFNumberGetTypeID);
VNT_EXPORT CFTypeID CFBooleanGetTypeID(void) VNT_FUNCTION(CFBooleanGetTypeID);
VNT_EXPORT CFTypeID CFDateGetTypeID(void) VNT_FUNCTION(CFDateGetTypeID);
VNT_EXPORT CFTypeID CFDataGetTypeID(void) VNT_FUNCTION(CFDataGetTypeID);
VNT_EXPORT CFTypeID CFArrayGetTypeID(void) VNT_FUNCTION(CFArrayGetTypeID);
VNT_EXPORT CFTypeID CFDictionaryGetTypeID(void) VNT_FUNCTION(CFDictionaryGetTypeID);
VNT_EXPORT CFTypeID CFSetGetTypeID(void) VNT_FUNCTION(CFSetGetTypeID);
VNT_EXPORT CFTypeID CFURLGetTypeID(void) VNT_FUNCTION(CFURLGetTypeID);
VNT_EXPORT CFTypeID CFErrorGetTypeID(void) VNT_FUNCTION(CFErrorGetTypeID);

/* The object that stands in collections for "nothing"; need not be released. */
#define kCFNull VntNull()
VNT_EXPORT CFTypeRef VntNull(void) VNT_FUNCTION(VntNull);

/* ---- Strings: UTF-8 ---- */

typedef uint32_t CFStringEncoding;
enum { kCFStringEncodingUTF8 = 0x08000100, kCFStringEncodingASCII = 0x0600 };

/* Bytes that are no UTF-8 become U+FFFD. Null for another encoding than the two above. */
VNT_EXPORT CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char* text, CFStringEncoding encoding)
    VNT_FUNCTION(CFStringCreateWithCString);
VNT_EXPORT CFStringRef CFStringCreateWithBytes(CFAllocatorRef allocator, const uint8_t* bytes, CFIndex length,
                                               CFStringEncoding encoding, bool isExternal)
    VNT_FUNCTION(CFStringCreateWithBytes);
/* In UTF-16 units. */
VNT_EXPORT CFIndex CFStringGetLength(CFStringRef string) VNT_FUNCTION(CFStringGetLength);
/* Bytes that a text of so many UTF-16 units may need, without the final zero. */
VNT_EXPORT CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding)
    VNT_FUNCTION(CFStringGetMaximumSizeForEncoding);
/* False, and an empty text in `buffer`, when it does not fit with its final zero. */
VNT_EXPORT bool CFStringGetCString(CFStringRef string, char* buffer, CFIndex bufferSize, CFStringEncoding encoding)
    VNT_FUNCTION(CFStringGetCString);
/* The text itself, valid as long as the string. */
VNT_EXPORT const char* CFStringGetCStringPtr(CFStringRef string, CFStringEncoding encoding)
    VNT_FUNCTION(CFStringGetCStringPtr);

/* ---- Numbers and booleans ---- */

typedef enum {
    kCFNumberSInt8Type = 1,
    kCFNumberSInt16Type = 2,
    kCFNumberSInt32Type = 3,
    kCFNumberSInt64Type = 4,
    kCFNumberFloat32Type = 5,
    kCFNumberFloat64Type = 6,
    kCFNumberCharType = 7,
    kCFNumberShortType = 8,
    kCFNumberIntType = 9,
    kCFNumberLongType = 10,
    kCFNumberLongLongType = 11,
    kCFNumberFloatType = 12,
    kCFNumberDoubleType = 13,
    kCFNumberCFIndexType = 14
} CFNumberType;

/* Reads `value` as the type says. Types narrower than 32 bits are kept as 32 bits, float as double. */
VNT_EXPORT CFNumberRef CFNumberCreate(CFAllocatorRef allocator, CFNumberType type, const void* value)
    VNT_FUNCTION(CFNumberCreate);
/* Writes the number as the type says; true when that is its exact value. Integers wrap, doubles are cut toward zero. */
VNT_EXPORT bool CFNumberGetValue(CFNumberRef number, CFNumberType type, void* value) VNT_FUNCTION(CFNumberGetValue);
/* The type it is kept as: SInt32, SInt64 (also unsigned 64-bit numbers) or Float64. */
VNT_EXPORT CFNumberType CFNumberGetType(CFNumberRef number) VNT_FUNCTION(CFNumberGetType);

/* The two booleans; need not be released. */
#define kCFBooleanTrue VntBoolean(true)
#define kCFBooleanFalse VntBoolean(false)
VNT_EXPORT CFBooleanRef VntBoolean(bool value) VNT_FUNCTION(VntBoolean);
/* For a number: whether it is not 0. */
VNT_EXPORT bool CFBooleanGetValue(CFBooleanRef boolean) VNT_FUNCTION(CFBooleanGetValue);

/* ---- Dates ---- */

VNT_EXPORT CFDateRef CFDateCreate(CFAllocatorRef allocator, CFAbsoluteTime at) VNT_FUNCTION(CFDateCreate);
VNT_EXPORT CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef date) VNT_FUNCTION(CFDateGetAbsoluteTime);

/* ---- Data ---- */

VNT_EXPORT CFDataRef CFDataCreate(CFAllocatorRef allocator, const uint8_t* bytes, CFIndex length)
    VNT_FUNCTION(CFDataCreate);
/* With kCFAllocatorNull the bytes are not copied: they must stay valid and unchanged as long as the object. With any
 * other deallocator they are copied and given to free(). */
VNT_EXPORT CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef allocator, const uint8_t* bytes, CFIndex length,
                                                 CFAllocatorRef bytesDeallocator)
    VNT_FUNCTION(CFDataCreateWithBytesNoCopy);
VNT_EXPORT const uint8_t* CFDataGetBytePtr(CFDataRef data) VNT_FUNCTION(CFDataGetBytePtr);
VNT_EXPORT CFIndex CFDataGetLength(CFDataRef data) VNT_FUNCTION(CFDataGetLength);

/* ---- Arrays ---- */

/* The callbacks of collections stand for "holds objects" and are ignored. */
typedef struct {
    int unused;
} CFArrayCallBacks;
typedef struct {
    int unused;
} CFDictionaryKeyCallBacks;
typedef struct {
    int unused;
} CFDictionaryValueCallBacks;
VNT_EXPORT extern const CFArrayCallBacks kCFTypeArrayCallBacks VNT_SYMBOL(kCFTypeArrayCallBacks);
VNT_EXPORT extern const CFDictionaryKeyCallBacks
    kCFTypeDictionaryKeyCallBacks VNT_SYMBOL(kCFTypeDictionaryKeyCallBacks);
VNT_EXPORT extern const CFDictionaryValueCallBacks
    kCFTypeDictionaryValueCallBacks VNT_SYMBOL(kCFTypeDictionaryValueCallBacks);

/* Null when one of the values is null. */
VNT_EXPORT CFArrayRef CFArrayCreate(CFAllocatorRef allocator, const void** values, CFIndex count,
                                    const CFArrayCallBacks* callBacks) VNT_FUNCTION(CFArrayCreate);
VNT_EXPORT CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                                  const CFArrayCallBacks* callBacks) VNT_FUNCTION(CFArrayCreateMutable);
/* Nothing happens to an array that cannot change. An array must not come to hold itself. */
VNT_EXPORT void CFArrayAppendValue(CFMutableArrayRef array, const void* value) VNT_FUNCTION(CFArrayAppendValue);
VNT_EXPORT CFIndex CFArrayGetCount(CFArrayRef array) VNT_FUNCTION(CFArrayGetCount);
VNT_EXPORT const void* CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index) VNT_FUNCTION(CFArrayGetValueAtIndex);

/* ---- Dictionaries: keep the order in which keys were first set ---- */

/* Null when one of the keys or values is null. */
VNT_EXPORT CFDictionaryRef CFDictionaryCreate(CFAllocatorRef allocator, const void** keys, const void** values,
                                              CFIndex count, const CFDictionaryKeyCallBacks* keyCallBacks,
                                              const CFDictionaryValueCallBacks* valueCallBacks)
    VNT_FUNCTION(CFDictionaryCreate);
VNT_EXPORT CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                                            const CFDictionaryKeyCallBacks* keyCallBacks,
                                                            const CFDictionaryValueCallBacks* valueCallBacks)
    VNT_FUNCTION(CFDictionaryCreateMutable);
/* Nothing happens to a dictionary that cannot change. */
VNT_EXPORT void CFDictionarySetValue(CFMutableDictionaryRef dictionary, const void* key, const void* value)
    VNT_FUNCTION(CFDictionarySetValue);
VNT_EXPORT void CFDictionaryRemoveValue(CFMutableDictionaryRef dictionary, const void* key)
    VNT_FUNCTION(CFDictionaryRemoveValue);
VNT_EXPORT CFIndex CFDictionaryGetCount(CFDictionaryRef dictionary) VNT_FUNCTION(CFDictionaryGetCount);
VNT_EXPORT const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key)
    VNT_FUNCTION(CFDictionaryGetValue);
/* Fills the arrays, each with room for CFDictionaryGetCount() references; either may be null. */
VNT_EXPORT void CFDictionaryGetKeysAndValues(CFDictionaryRef dictionary, const void** keys, const void** values)
    VNT_FUNCTION(CFDictionaryGetKeysAndValues);

/* ---- URLs ---- */

/* Null when the text has no scheme; `base` must be null. */
VNT_EXPORT CFURLRef CFURLCreateWithString(CFAllocatorRef allocator, CFStringRef text, CFURLRef base)
    VNT_FUNCTION(CFURLCreateWithString);
VNT_EXPORT CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef allocator, const uint8_t* path,
                                                            CFIndex length, bool isDirectory)
    VNT_FUNCTION(CFURLCreateFromFileSystemRepresentation);
VNT_EXPORT CFStringRef CFURLGetString(CFURLRef url) VNT_FUNCTION(CFURLGetString);

/* ---- Errors ---- */

VNT_EXPORT CFErrorRef CFErrorCreate(CFAllocatorRef allocator, CFStringRef domain, CFIndex code,
                                    CFDictionaryRef userInfo) VNT_FUNCTION(CFErrorCreate);
VNT_EXPORT CFStringRef CFErrorGetDomain(CFErrorRef error) VNT_FUNCTION(CFErrorGetDomain);
VNT_EXPORT CFIndex CFErrorGetCode(CFErrorRef error) VNT_FUNCTION(CFErrorGetCode);
VNT_EXPORT CFDictionaryRef CFErrorCopyUserInfo(CFErrorRef error) VNT_FUNCTION(CFErrorCopyUserInfo);
/* The sentence for the user. */
VNT_EXPORT CFStringRef CFErrorCopyDescription(CFErrorRef error) VNT_FUNCTION(CFErrorCopyDescription);

/* ---- Property lists ---- */

typedef enum { kCFPropertyListXMLFormat_v1_0 = 100, kCFPropertyListBinaryFormat_v1_0 = 200 } CFPropertyListFormat;
enum { kCFPropertyListImmutable = 0 };

/* On failure null, and when `error` is not null a new error object in it. `options` is 0. */
VNT_EXPORT CFDataRef CFPropertyListCreateData(CFAllocatorRef allocator, CFPropertyListRef list,
                                              CFPropertyListFormat format, unsigned long options, CFErrorRef* error)
    VNT_FUNCTION(CFPropertyListCreateData);
/* `format`, when not null, receives the form that was found. The result cannot change. */
VNT_EXPORT CFPropertyListRef CFPropertyListCreateWithData(CFAllocatorRef allocator, CFDataRef data,
                                                          unsigned long options, CFPropertyListFormat* format,
                                                          CFErrorRef* error) VNT_FUNCTION(CFPropertyListCreateWithData);

/* ---- Serial queues ---- */

typedef struct VntQueue* dispatch_queue_t;
typedef void (*dispatch_function_t)(void* context);

/* Every queue is serial; `attribute` is ignored. To be given back with dispatch_release; what is queued still runs. */
VNT_EXPORT dispatch_queue_t dispatch_queue_create(const char* label, const void* attribute)
    VNT_FUNCTION(dispatch_queue_create);
VNT_EXPORT void dispatch_retain(dispatch_queue_t queue) VNT_FUNCTION(dispatch_retain);
VNT_EXPORT void dispatch_release(dispatch_queue_t queue) VNT_FUNCTION(dispatch_release);
VNT_EXPORT const char* dispatch_queue_get_label(dispatch_queue_t queue) VNT_FUNCTION(dispatch_queue_get_label);
/* Runs `work(context)` later on the queue's own thread. `work` must not throw. */
VNT_EXPORT void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work)
    VNT_FUNCTION(dispatch_async_f);
/* Blocks until what was queued before and then `work(context)` has run, the latter on the calling thread. Must not be
 * called from work of the same queue. */
VNT_EXPORT void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work)
    VNT_FUNCTION(dispatch_sync_f);

#ifdef __cplusplus
}
#endif
#endif
