#pragma once

#include "platform/mach/RoutineLayouts.h"

/// What the test service of the ports understands.
namespace vnt {

inline constexpr const char* kEchoServiceName = "quillon.tfp"; ///< a name with a job; the program stands in its place
enum EchoId : int32_t {
    kEchoDescribe = 1, ///< what the service is like: EchoDescription
    kEchoExit = 2, ///< it exits without an answer
    kEchoWatch = 3, ///< ClientHandleRequest; the answer comes when the port dies
    kEchoMemory = 4, ///< AttachAccessRequest; DataReply with the same memory
    kEchoIgnore = 5, ///< dropped without an answer
};

#pragma pack(push, 4)
struct EchoDescription {
    mach_msg_header_t header;
    int32_t pid;
    uint32_t senderUser;
    int32_t senderPid;
    uint32_t openDescriptors;
    uint32_t isSessionLeader, isInRoot, hasLoaderVariables, hasBlockedOrIgnoredSignals;
};
#pragma pack(pop)

} // namespace vnt
