/* What a recording of other users' processes needs: authorization references that hold a right, and a server of one's
 * own. Sessions (<Vantora/Vantora>) use these themselves; a program needs them only to talk to the services without a
 * session. Usable from C and C++.
 *
 * Each creating function returns a new reference, which the caller ends with AzlDestroyAuthorization, or null after one
 * line on standard error. They block while somebody is asked for credentials. Any thread may call any function; none
 * throws.
 */
#ifndef VANTORA_RIGHTS_H
#define VANTORA_RIGHTS_H

#include <Vantora/Authorization.h>
#include <Vantora/Ports.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The session's authorization, from the authority of the namespace that `bootstrap_port` stands for. On a terminal
 * (standard input and error) a name and password are asked for there when they are needed. */
VNT_EXPORT AuthorizationRef AzlCreateAuthorization(void);
VNT_EXPORT AuthorizationRef AzlObtainBasicAuthorization(void);
VNT_EXPORT AuthorizationRef AzlCreateLaunchSystemBootstrapAuthorization(void);
VNT_EXPORT AuthorizationRef AzlCreateKillAuthorization(void);
VNT_EXPORT AuthorizationRef AzlCreateTFPAuthorization(void);
/* 1 when the reference holds the right now, else 0; never asks anybody. */
VNT_EXPORT int AzlVerifyBasicAuthorization(AuthorizationRef authorization);
VNT_EXPORT int AzlVerifyVantoraRightIsAuthorized(AuthorizationRef authorization);
VNT_EXPORT OSStatus AzlDestroyAuthorization(AuthorizationRef authorization);

/* Asks the server's creation port for a server. `authorization` is an external form of `length` bytes; `address`
 * receives the new server's address, NUL-terminated, and has room for at least 32,000 bytes. Waits as long as the
 * server takes; one that dies answers MIG_SERVER_DIED. Returns 0, a status of sending or receiving, or the server's
 * own. An address of 32,000 bytes loses its last one to the NUL. */
VNT_EXPORT kern_return_t create_server(mach_port_t server, const char* authorization, uint32_t length, const char* name,
                                       char* address);

#ifdef __cplusplus
}
#endif
#endif
