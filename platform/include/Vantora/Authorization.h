/* Authorization references, as a caller of Vantora gets them from the Azl functions. Usable from C and C++. Any thread
 * may call any function; none throws. Each is one request to the authority process, which is started when it does not
 * run; a request that may interact with the user waits for as long as the user takes, one with a password some minutes
 * at most, the others some seconds. The authority's absence or death is errAuthorizationInternal.
 */
#ifndef VANTORA_AUTHORIZATION_H
#define VANTORA_AUTHORIZATION_H

#include <Vantora/Platform.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A reference to one authority, the user's or the system's. It lives as long as the process that made it keeps it. */
typedef struct VntAuthorization* AuthorizationRef;
typedef int32_t OSStatus;
typedef uint32_t AuthorizationFlags;

typedef struct {
    const char* name; /* at most 255 bytes */
    size_t valueLength; /* at most 4,096 */
    void* value;
    uint32_t flags;
} AuthorizationItem;

typedef struct {
    uint32_t count; /* at most 64 */
    AuthorizationItem* items;
} AuthorizationItemSet;
typedef AuthorizationItemSet AuthorizationRights;
typedef AuthorizationItemSet AuthorizationEnvironment;

enum { kAuthorizationExternalFormLength = 32 };
typedef struct {
    char bytes[kAuthorizationExternalFormLength];
} AuthorizationExternalForm;

enum {
    kAuthorizationFlagDefaults = 0,
    kAuthorizationFlagInteractionAllowed = 1,
    kAuthorizationFlagExtendRights = 2,
    kAuthorizationFlagPartialRights = 4,
    kAuthorizationFlagDestroyRights = 8,
    kAuthorizationFlagPreAuthorize = 16,
};

enum {
    errAuthorizationSuccess = 0,
    errAuthorizationInvalidSet = -60001,
    errAuthorizationInvalidRef = -60002,
    errAuthorizationDenied = -60005,
    errAuthorizationCanceled = -60006,
    errAuthorizationInteractionNotAllowed = -60007,
    errAuthorizationInternal = -60008,
    errAuthorizationExternalizeNotAllowed = -60009,
};

/* `rights` and `environment` may be null. On success the caller owns `*authorization` (AuthorizationFree). */
VNT_EXPORT OSStatus AuthorizationCreate(const AuthorizationRights* rights, const AuthorizationEnvironment* environment,
                                        AuthorizationFlags flags, AuthorizationRef* authorization)
    VNT_SYMBOL(AuthorizationCreate);
/* Without kAuthorizationFlagExtendRights only rights that the reference holds already are granted. Without
 * kAuthorizationFlagPartialRights all must be. `*grantedRights`, when asked for, goes to AuthorizationFreeItemSet. */
VNT_EXPORT OSStatus AuthorizationCopyRights(AuthorizationRef authorization, const AuthorizationRights* rights,
                                            const AuthorizationEnvironment* environment, AuthorizationFlags flags,
                                            AuthorizationRights** grantedRights) VNT_SYMBOL(AuthorizationCopyRights);
/* Ends the reference and every external form made from it. */
VNT_EXPORT OSStatus AuthorizationFree(AuthorizationRef authorization, AuthorizationFlags flags)
    VNT_SYMBOL(AuthorizationFree);
VNT_EXPORT OSStatus AuthorizationFreeItemSet(AuthorizationItemSet* set) VNT_SYMBOL(AuthorizationFreeItemSet);
/* 32 bytes that stand for the reference in a request to a server; worth what the reference is worth, for the same user,
 * as long as it lives, and for five to ten minutes: make one for each request. */
VNT_EXPORT OSStatus AuthorizationMakeExternalForm(AuthorizationRef authorization, AuthorizationExternalForm* form)
    VNT_SYMBOL(AuthorizationMakeExternalForm);
/* On success `*definition`, unless null, receives an owned dictionary (CFRelease). errAuthorizationDenied: no such
 * right. */
VNT_EXPORT OSStatus AuthorizationRightGet(const char* rightName, const void** definition)
    VNT_SYMBOL(AuthorizationRightGet);
/* `definition` is a dictionary; the last three arguments are ignored. The system's authority asks for an
 * administrator's password, unless root asks. errAuthorizationInvalidSet: a definition that is not understood. */
VNT_EXPORT OSStatus AuthorizationRightSet(AuthorizationRef authorization, const char* rightName, const void* definition,
                                          const void* descriptionKey, const void* bundle, const void* localeTableName)
    VNT_SYMBOL(AuthorizationRightSet);

#ifdef __cplusplus
}
#endif
#endif
